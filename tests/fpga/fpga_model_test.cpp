// The board's FPGA as strict as the device: what it refuses, with the
// kernel's errno, and how long it takes, on the board's clock.
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "fpga_fixture.h"
#include "platform/hal.h"
#include "platform/os.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kControl = 60, kConfig = 61, kDone = 62;
constexpr uint64_t kMs = 1'000'000;
constexpr const char *kPhyReg = "/sys/class/ethernet/phyreg";

class FpgaModelTest : public FpgaTest {
protected:
    // Board times at which the done pin was driven, with its level.
    std::vector<std::pair<int, uint64_t>> &watch_done()
    {
        board().watch_lines([this](int id, int level, uint64_t now) {
            if (id == kDone)
                done_drives_.emplace_back(level, now);
        });
        return done_drives_;
    }
    // The whole text of a shell step, as the library runs it.
    int shell(const std::string &command) { return os::system(command.c_str()); }
    std::string phy_read(const std::string &reg)
    {
        EXPECT_EQ(shell("echo r " + reg + " > " + kPhyReg), 0);
        return board().read_file(kPhyReg);
    }
    void phy_write(const std::string &reg, const std::string &value)
    {
        EXPECT_EQ(shell("echo w " + reg + " " + value + " > " + kPhyReg), 0);
    }
    // Writes the default board's newer program to the flash.
    void flash_program_2()
    {
        ASSERT_EQ(shell("mtd_debug erase /dev/mtd0 0 0x10000"), 0);
        ASSERT_EQ(shell("mtd_debug write /dev/mtd0 0 50176 /vendor/etc/fpga/fpga_fw.bin"), 0);
    }

private:
    std::vector<std::pair<int, uint64_t>> done_drives_;
};

// ---- configuration ----

TEST_F(FpgaModelTest, TheConfigPulseConfiguresFromTheFlashInTheConfigurationTime)
{
    flash_program_2();
    auto &done = watch_done();
    board().set_line(kConfig, 0);
    EXPECT_EQ(board().line(kDone), 0) << "config low holds the FPGA in reset";
    EXPECT_FALSE(fpga().configured());
    const uint64_t released = board().now_ns();
    board().set_line(kConfig, 1);
    board().advance_clock(400 * kMs);
    EXPECT_EQ(board().line(kDone), 0) << "still configuring 400 ms on";
    EXPECT_THAT(board().call("fpga.state", ""), testing::Optional(testing::HasSubstr("configuring=1\n")));
    board().advance_clock(100 * kMs);
    EXPECT_EQ(board().line(kDone), 1);
    EXPECT_EQ(running_tag(), tag_of(2)) << "the program in the flash";
    ASSERT_EQ(done.size(), 2u);
    EXPECT_EQ(done[0].first, 0);
    EXPECT_EQ(done[1].first, 1);
    // A Kintex-7 XC7K325T's bitstream in master SPI x4 at 50 MHz: 458 ms.
    EXPECT_GE(done[1].second - released, 458 * kMs);
    EXPECT_LT(done[1].second - released, 500 * kMs);

    knobs("config_ms=20\n");
    board().set_line(kConfig, 0);
    board().set_line(kConfig, 1);
    board().advance_clock(19 * kMs);
    EXPECT_EQ(board().line(kDone), 0);
    board().advance_clock(2 * kMs);
    EXPECT_EQ(board().line(kDone), 1) << "the knob sets the configuration time";
}

TEST_F(FpgaModelTest, ReleasingTheControlPinAloneConfiguresNothing)
{
    flash_program_2();
    board().set_line(kControl, 0);
    board().advance_clock(1000 * kMs);
    EXPECT_EQ(board().line(kDone), 1) << "off its flash, a configured FPGA runs on";
    EXPECT_EQ(running_tag(), tag_of(1));

    // A pulse while the FPGA is off its flash finds no program.
    board().set_line(kConfig, 0);
    board().set_line(kConfig, 1);
    board().advance_clock(1000 * kMs);
    EXPECT_EQ(board().line(kDone), 0);
    board().set_line(kControl, 1);
    board().advance_clock(10'000 * kMs);
    EXPECT_EQ(board().line(kDone), 0) << "releasing control is no config pulse";
    EXPECT_FALSE(fpga().configured());

    board().set_line(kConfig, 0);
    board().set_line(kConfig, 1);
    board().advance_clock(500 * kMs);
    EXPECT_EQ(board().line(kDone), 1) << "the pulse is";
    EXPECT_EQ(running_tag(), tag_of(2));

    // Taken off its flash while it reads its program, the FPGA ends up
    // unconfigured.
    board().set_line(kConfig, 0);
    board().set_line(kConfig, 1);
    board().advance_clock(200 * kMs);
    board().set_line(kControl, 0);
    board().set_line(kControl, 1);
    board().advance_clock(1000 * kMs);
    EXPECT_EQ(board().line(kDone), 0);
}

TEST_F(FpgaModelTest, TheLastLoadIsBoardState)
{
    auto state = [&] { return board().call("fpga.state", "").value_or(""); };
    EXPECT_THAT(state(), testing::HasSubstr("last_load=power-on\nlast_load_result=0\n"));
    ASSERT_EQ(bi_fpga_load_program(), 0);
    EXPECT_THAT(state(), testing::HasSubstr("last_load=hal\nlast_load_result=0\n"));
    board().write_file("/data/bad.bin", std::string(2048, 'x'));
    std::strcpy(bi_product->fpga_fw.path, "/data/bad.bin");
    EXPECT_NE(bi_fpga_load_program(), 0);
    EXPECT_THAT(state(), testing::HasSubstr("last_load=hal\nlast_load_result=-22\n")) << "EINVAL: no program";
    board().set_line(kConfig, 0);
    board().set_line(kConfig, 1);
    board().advance_clock(500 * kMs);
    EXPECT_THAT(state(), testing::HasSubstr("last_load=flash\nlast_load_result=0\n"));
}

// ---- SPI ----

TEST_F(FpgaModelTest, TransfersAboveTheDriversBufferFailWithEmsgsize)
{
    // The board's kernel gives spidev a 53248-byte buffer: room for the
    // longest frame the library sends (a 51200-byte parameter record).
    for (const char *node : {kSpi, kFpgaSpi}) {
        const int fd = os::open(node, O_RDWR);
        ASSERT_GE(fd, 0) << node;
        std::vector<uint8_t> bytes(60000, 0);
        bytes[0] = 0x45;
        errno = 0;
        EXPECT_EQ(os::write(fd, bytes.data(), 60000), -1) << node;
        EXPECT_EQ(errno, EMSGSIZE) << node;
        errno = 0;
        EXPECT_EQ(os::write(fd, bytes.data(), 53249), -1) << node;
        EXPECT_EQ(errno, EMSGSIZE) << node;
        EXPECT_EQ(os::write(fd, bytes.data(), 53248), 53248) << node;
        bytes[0] = 0x0B;
        errno = 0;
        EXPECT_EQ(os::read(fd, bytes.data(), 53249), -1) << node << ": a read request too";
        EXPECT_EQ(errno, EMSGSIZE) << node;
        os::close(fd);
    }
    std::vector<uint8_t> big(60000, 0x45);
    errno = 0;
    EXPECT_EQ(hal_spi_write(kSpi, big.data(), 60000), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(hal_spi_write_read(kSpi, big.data(), 53249), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(sent(kSpi).size(), 1u) << "refused transfers never reach the bus";
    EXPECT_EQ(sent(kFpgaSpi).size(), 1u);

    // A kernel with spidev's own 4096 bytes.
    knobs("spi_bufsiz=4096\n");
    const int fd = os::open(kSpi, O_RDWR);
    EXPECT_EQ(os::write(fd, big.data(), 4096), 4096);
    errno = 0;
    EXPECT_EQ(os::write(fd, big.data(), 4097), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    os::close(fd);
}

TEST_F(FpgaModelTest, TheLibrarysLongestFramesFitTheBoardsBuffer)
{
    // A 51200-byte parameter record goes as one 51204-byte frame.
    std::string record = {0, 0, 0, 0x30, 0, 0, char(0xC8), 0};
    record += std::string(51200, 'p');
    board().write_file("/dev/block/by-name/screen", record);
    knobs("source_mode=0x58\n");
    EXPECT_EQ(bi_fpga_load_parameter(), 0);
    ASSERT_FALSE(sent(kSpi, 'w').empty());
    EXPECT_EQ(sent(kSpi, 'w')[0].size(), 51204u);

    // On a kernel with spidev's 4096 bytes the same load fails.
    knobs("source_mode=0x58\nspi_bufsiz=4096\n");
    board().clear_log();
    EXPECT_EQ(bi_fpga_load_parameter(), -6);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: write fpga program failed, -1"));
}

// ---- PHY ----

TEST_F(FpgaModelTest, PhyRegistersReadBackTheirValues)
{
    // Every register the board's PHY family uses, at power-on: the page to
    // select, the register, the value "r" shows.
    struct Reg {
        const char *page, *reg, *shown;
    };
    const Reg power_on[] = {
        {"0", "0x0", "page 0x0 reg 0x0: 0x1140\n"},     {"0", "0x1", "page 0x0 reg 0x1: 0x7949\n"},
        {"0", "0x2", "page 0x0 reg 0x2: 0x001c\n"},     {"0", "0x3", "page 0x0 reg 0x3: 0xc916\n"},
        {"0", "0x4", "page 0x0 reg 0x4: 0x01e1\n"},     {"0", "0x5", "page 0x0 reg 0x5: 0x0000\n"},
        {"0", "0x9", "page 0x0 reg 0x9: 0x0200\n"},     {"0", "0xa", "page 0x0 reg 0xa: 0x0000\n"},
        {"0", "0xf", "page 0x0 reg 0xf: 0x3000\n"},     {"0xa43", "0x1a", "page 0xa43 reg 0x1a: 0x0000\n"},
        {"0xd08", "0x10", "page 0xd08 reg 0x10: 0x0040\n"}, {"0xd08", "0x11", "page 0xd08 reg 0x11: 0x0109\n"},
        {"0xd08", "0x15", "page 0xd08 reg 0x15: 0x0319\n"}, {"0xd08", "0x1f", "page 0xd08 reg 0x1f: 0x0d08\n"},
        {"0xd08", "0x2", "page 0xd08 reg 0x2: 0x001c\n"},
    };
    for (const Reg &r : power_on) {
        phy_write("0x1f", r.page);
        EXPECT_EQ(phy_read(r.reg), r.shown);
    }
    // Read-only registers keep their value.
    phy_write("0x1f", "0");
    phy_write("0x2", "0x1234");
    EXPECT_EQ(phy_read("0x2"), "page 0x0 reg 0x2: 0x001c\n");

    // The board's set-up: SGMII mode, then the link.
    testing::internal::CaptureStdout();
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(phy_read("0x10"), "page 0xd08 reg 0x10: 0x005e\n");
    phy_write("0x1f", "0");
    EXPECT_EQ(phy_read("0x1"), "page 0x0 reg 0x1: 0x796d\n") << "link up, negotiation complete";
    EXPECT_EQ(phy_read("0xa"), "page 0x0 reg 0xa: 0x3c00\n");
    phy_write("0x1f", "0xa43");
    EXPECT_EQ(phy_read("0x1a"), "page 0xa43 reg 0x1a: 0x002c\n") << "1000 Mb/s, full duplex, link";

    // In reset the PHY does not answer: the bus reads all ones. Out of it,
    // its registers are back at their power-on values.
    board().write_file("/sys/class/vexagpios/RTL8211FS_RSTN/value", "0\n");
    EXPECT_EQ(phy_read("0x1"), "page 0x0 reg 0x1: 0xffff\n");
    board().write_file("/sys/class/vexagpios/RTL8211FS_RSTN/value", "1\n");
    EXPECT_EQ(phy_read("0x1f"), "page 0x0 reg 0x1f: 0x0000\n");
    phy_write("0x1f", "0xd08");
    EXPECT_EQ(phy_read("0x10"), "page 0xd08 reg 0x10: 0x0040\n");
    EXPECT_EQ(board().read_file("/sys/class/ethernet/vexaphyreg"), "0x902\n");
}

// ---- receiving cards ----

TEST_F(FpgaModelTest, EachPortHasItsOwnCardsAndItsFirstCardAnswers)
{
    PRODUCT_NUM = 2;
    knobs("cards=3,0,1,2\n");
    uint8_t data[] = {0x11, 0x22};
    for (uint8_t port = 0; port < 4; ++port)
        ASSERT_EQ(bi_fpga_receive_card_test(port, 1, 0x40, data, 2), 20);
    EXPECT_EQ(fpga().card_registers(0, 2, 0x40, 2), Bytes(data, data + 2)) << "the third card of port 0";
    EXPECT_EQ(fpga().card_registers(0, 3, 0x40, 2), Bytes(2, 0)) << "port 0 has three";
    EXPECT_EQ(fpga().card_registers(1, 0, 0x40, 2), Bytes(2, 0)) << "port 1 has none";
    EXPECT_EQ(fpga().card_registers(2, 0, 0x40, 2), Bytes(data, data + 2));

    // A read is answered where a first card is there to answer: ports 0, 2
    // and 3 show their reply ready, port 1 (no card) and port 9 (no port)
    // never do.
    const int ports[] = {0, 1, 2, 3, 9};
    const bool answers[] = {true, false, true, true, false};
    for (size_t i = 0; i < 5; ++i) {
        board().clear_log();
        uint8_t back[2] = {0xEE, 0xEE};
        const double ms = elapsed_ms([&] { bi_fpga_receive_card_test(uint8_t(ports[i]), 0, 0x40, back, 2); });
        const bool ready =
            logged("D/vexa_system_bi_fpga: <bi_fpga_receive_card_test>, read data is ok");
        EXPECT_EQ(ready, answers[i]) << "port " << ports[i];
        EXPECT_EQ(Bytes(back, back + 2), answers[i] ? Bytes(data, data + 2) : Bytes(2, 0)) << "port " << ports[i];
        EXPECT_GE(ms, answers[i] ? 40.0 : 200.0) << "port " << ports[i];
    }
    EXPECT_THAT(board().call("fpga.state", ""), testing::Optional(testing::HasSubstr("ports=4\ncards=3,0,1,2\n")));
}

TEST_F(FpgaModelTest, ACardAnswersInItsReplyTime)
{
    PRODUCT_NUM = 2;
    uint8_t back[1];
    // 33 ms: busy at the first poll (20 ms), ready at the second (40 ms).
    // At 90 ms: four busy polls, ready at the fifth.
    for (const auto &[knob, busy] : {std::pair<std::string, int>{"", 1}, {"card_reply_ms=90\n", 4},
                                     {"card_reply_ms=5\n", 0}}) {
        knobs(knob);
        board().clear_log();
        ASSERT_GE(bi_fpga_receive_card_test(1, 0, 0x40, back, 1), 0);
        std::vector<std::string> expected(size_t(busy),
                                          "D/vexa_system_bi_fpga: <bi_fpga_receive_card_test>, read data: 04");
        expected.push_back("D/vexa_system_bi_fpga: <bi_fpga_receive_card_test>, read data: 84");
        expected.push_back("D/vexa_system_bi_fpga: <bi_fpga_receive_card_test>, read data is ok");
        EXPECT_EQ(bi_log(), expected) << knob;
    }
}

// ---- timing ----

TEST_F(FpgaModelTest, FlashEraseAndWriteTakeTheDatasheetsTime)
{
    // Winbond W25Q128JV: 150 ms a 64 KiB block, 0.4 ms a 256-byte page.
    struct Case {
        std::string knobs, command;
        double ms;
    };
    const Case cases[] = {
        {"", "mtd_debug erase /dev/mtd0 0 0xD00000", 208 * 150.0},
        {"", "mtd_debug erase /dev/mtd0 0x10000 0x10000", 150.0},
        {"", "mtd_debug write /dev/mtd0 0 50176 /vendor/etc/fpga/fpga_fw.bin", 196 * 0.4},
        {"", "mtd_debug write /dev/mtd0 128 256 /vendor/etc/fpga/fpga_fw.bin", 2 * 0.4},
        {"erase_ms=2\n", "mtd_debug erase /dev/mtd0 0 0xD00000", 208 * 2.0},
        {"page_program_ms=3\n", "mtd_debug write /dev/mtd0 0 1024 /vendor/etc/fpga/fpga_fw.bin", 4 * 3.0},
    };
    for (const Case &c : cases) {
        knobs(c.knobs);
        const double ms = elapsed_ms([&] { EXPECT_EQ(shell(c.command), 0) << c.command; });
        EXPECT_GE(ms, c.ms) << c.knobs << c.command;
        EXPECT_LT(ms, c.ms * 1.02 + 200) << c.knobs << c.command;
    }

    // The MTD node's own erase takes the same time.
    knobs("");
    const int fd = os::open("/dev/mtd0", O_RDWR);
    ASSERT_GE(fd, 0);
    erase_info_user erase{0x20000, 0x20000};
    EXPECT_GE(elapsed_ms([&] { EXPECT_EQ(os::ioctl(fd, MEMERASE, &erase), 0); }), 300.0);
    erase = {0x1000, 0x10000};
    errno = 0;
    EXPECT_EQ(os::ioctl(fd, MEMERASE, &erase), -1) << "not a whole block";
    EXPECT_EQ(errno, EINVAL);
    os::close(fd);
}

TEST_F(FpgaModelTest, AnEraseShowsItsProgressToOtherProcesses)
{
    // One second into the 13 MiB erase, six blocks of 150 ms are done.
    std::string seen;
    board().set_timer(board().now_ns() + 1000 * kMs,
                      [&] { seen = board().call("fpga.state", "").value_or(""); });
    ASSERT_EQ(shell("mtd_debug erase /dev/mtd0 0 0xD00000"), 0);
    EXPECT_THAT(seen, testing::HasSubstr("flash_op=erase\nflash_done=6\nflash_total=208\n"));
    EXPECT_THAT(board().call("fpga.state", ""), testing::Optional(testing::HasSubstr("flash_op=\n")));
}

TEST_F(FpgaModelTest, SgmiiNegotiationTakesTwoLinkTimerPeriods)
{
    // Released at the end of sendFpgaTxRxReset, negotiated 3.2 ms later:
    // the bring-up's poll reads 0, 0 (2 ms on), then 1 (4 ms on).
    testing::internal::CaptureStdout();
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0);
    const std::string f = "I/vexa_system_fw_update: fpgaPhySgmiiConfig,readFpgaSgmiiNegotiationState state = ";
    std::vector<std::string> polls;
    for (auto &line : fw_log())
        if (line.rfind(f, 0) == 0)
            polls.push_back(line.substr(f.size()));
    EXPECT_THAT(polls, ElementsAre("0x00", "0x00", "0x01"));

    // Negotiation slower than the poll's ten rounds of 2 ms: the link check
    // comes too early and the bring-up fails.
    knobs("negotiation_ms=30\n");
    board().clear_log();
    EXPECT_EQ(fpgaPhySgmiiConfig(), -1);
    EXPECT_THAT(fw_log(), testing::Not(Contains(f + "0x01")));
    EXPECT_EQ(errors(), std::vector<std::string>{
                            "E/vexa_system_fw_update: fpgaPhySgmiiConfig: readRtl8211fsPhyLink failed"});
    testing::internal::GetCapturedStdout();
}

} // namespace
} // namespace vexa::test
