// A plain serial line as the board's view and outside programs reach it:
// the host's list of lines, what the board side wrote (kept for readers
// that come later), and bytes sent from either end through the host.
#include <chrono>
#include <thread>

#include "sim/serial/mcu_model.h"
#include "sim/serial/serial_line.h"
#include "support/board_fixture.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace vexa::test {
namespace {

constexpr const char *kTtl = "/dev/ttyS7";
constexpr const char *kTtl2 = "/dev/ttyS8";

class SerialFarEndTest : public BoardTest {
protected:
    void SetUp() override
    {
        BoardTest::SetUp();
        bi_init_product_config();
    }
    std::string kept(const char *path)
    {
        const std::string file = sim::serial_output_path(path);
        return board().exists(file) ? board().read_file(file) : "";
    }
    // Waits (up to 5 s) for the line's kept output to end with `tail`.
    std::string kept_ending(const char *path, const std::string &tail)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        std::string now = kept(path);
        while (!(now.size() >= tail.size() && now.compare(now.size() - tail.size(), tail.size(), tail) == 0) &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            now = kept(path);
        }
        return now;
    }
};

TEST_F(SerialFarEndTest, ListNamesEachLineWithItsPtysAndTheMcuLine)
{
    const auto list = sim::serial_line_list(board());
    ASSERT_EQ(list.size(), sim::serial_lines(board()).size());
    int mcu_lines = 0;
    for (const auto &info : list) {
        auto line = sim::serial_line(board(), info.board_path);
        ASSERT_TRUE(line) << info.board_path;
        EXPECT_EQ(info.board_pty, line->pty_path());
        EXPECT_EQ(info.outside_pty, line->outside_path());
        EXPECT_EQ(info.mcu, line == sim::mcu_model(board())) << info.board_path;
        mcu_lines += info.mcu;
    }
    EXPECT_EQ(mcu_lines, 1);
    EXPECT_EQ(sim::serial_output_path("/dev/ttyS7"), "/.board/serial/dev_ttyS7");
}

TEST_F(SerialFarEndTest, WhatTheBoardWroteIsKeptPerLine)
{
    ASSERT_EQ(bi_serial_ttl_open(115200, 8, 1, 'N'), 0);
    ASSERT_EQ(bi_serial_ttl_write("status: ok\n", 11), 11);
    EXPECT_EQ(kept_ending(kTtl, "status: ok\n"), "status: ok\n");
    EXPECT_EQ(kept(kTtl2), "");
    // It still comes out at the far end: the capture takes nothing away.
    EXPECT_EQ(sim::serial_line(board(), kTtl)->take_output(11, 5000), "status: ok\n");
    bi_serial_ttl_close();
}

TEST_F(SerialFarEndTest, KeptOutputStaysBoundedAndEndsWithTheNewest)
{
    ASSERT_EQ(bi_serial_ttl_open(115200, 8, 1, 'N'), 0);
    auto line = sim::serial_line(board(), kTtl);
    std::string block(4096, '\0');
    std::string last;
    for (int n = 0; n < 20; ++n) { // 80 KiB, drained at the far end as it comes
        for (size_t i = 0; i < block.size(); ++i)
            block[i] = static_cast<char>('a' + (n + i / 64) % 26);
        ASSERT_EQ(bi_serial_ttl_write(block.data(), static_cast<int32_t>(block.size())), 4096);
        ASSERT_EQ(line->take_output(block.size(), 5000).size(), block.size());
        last = block;
    }
    const std::string now = kept_ending(kTtl, last);
    EXPECT_LE(now.size(), 64u * 1024);
    EXPECT_GE(now.size(), 32u * 1024);
    EXPECT_EQ(now.substr(now.size() - last.size()), last);
    bi_serial_ttl_close();
}

TEST_F(SerialFarEndTest, SendReachesTheOtherEndOfThatLineOnly)
{
    ASSERT_EQ(bi_serial_ttl_open(115200, 8, 1, 'N'), 0);
    ASSERT_TRUE(sim::serial_send(board(), kTtl, "ping\n"));
    char buf[16] = {};
    EXPECT_EQ(bi_serial_ttl_blocking_read(buf, sizeof buf, 5000), 5);
    EXPECT_EQ(std::string(buf, 5), "ping\n");

    // As the board: out at the far end, and kept as the board's output.
    ASSERT_TRUE(sim::serial_send(board(), kTtl, "pong\n", true));
    EXPECT_EQ(sim::serial_line(board(), kTtl)->take_output(5, 5000), "pong\n");
    EXPECT_EQ(kept_ending(kTtl, "pong\n"), "pong\n");
    EXPECT_EQ(sim::serial_line(board(), kTtl2)->take_output(), "");
    bi_serial_ttl_close();
}

TEST_F(SerialFarEndTest, SendRefusesTheMcuLineUnknownPathsAndLongTexts)
{
    EXPECT_FALSE(sim::serial_send(board(), "/dev/ttyS9", "x"));
    EXPECT_FALSE(sim::serial_send(board(), "/dev/ttyS77", "x"));
    EXPECT_FALSE(sim::serial_send(board(), "/dev/ttyS7\nfar /dev/ttyS8", "x"));
    EXPECT_FALSE(sim::serial_send(board(), kTtl, std::string(4097, 'x')));
    EXPECT_TRUE(sim::serial_send(board(), kTtl, std::string(4096, 'x')));
}

} // namespace
} // namespace vexa::test
