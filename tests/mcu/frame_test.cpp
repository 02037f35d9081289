// Request frames: layout, labels, checksum and sending.
#include <unistd.h>

#include <cstring>
#include <numeric>

#include "mcu_fixture.h"
#include "vexasdk/mcu.h"
#include "vexasdk/peripherals.h"

namespace {

using vexa::sim::Fault;

class FrameTest : public vexa::test::McuTest {
protected:
    void SetUp() override
    {
        McuTest::SetUp();
        fd_ = sdk_uart_init("/dev/ttyS3", 115200);
        ASSERT_GT(fd_, 0);
        g_n_lable = 0;
    }
    void TearDown() override
    {
        sdk_uart_close(fd_);
        McuTest::TearDown();
    }
    std::string sent(size_t want) { return line("/dev/ttyS3")->take_output(want, 2000); }
    int fd_ = -1;
};

uint16_t le16(const std::string &s, size_t at)
{
    return static_cast<uint16_t>(static_cast<uint8_t>(s[at]) | (static_cast<uint8_t>(s[at + 1]) << 8));
}

TEST_F(FrameTest, MessageFrameLaysOutEveryField)
{
    const uint8_t data[3] = {0xA1, 0xB2, 0xC3};
    ASSERT_EQ(send_mcu_message(0x12345678, 1, data, 3, fd_), 35);
    const std::string f = sent(35);
    ASSERT_EQ(f.size(), 35u);
    const std::string expected_header("\x55\xBB\x00\x00\x00\x01\x01\x00\x19\x00\x61\x01\x00\x00"
                                      "\x00\x00\x00\x00\x00\x00\x00\x00\x78\x56\x34\x12\x00\x00\x00\x00",
                                      30);
    EXPECT_EQ(f.substr(0, 30), expected_header);
    EXPECT_EQ(f.substr(30, 3), "\xA1\xB2\xC3");
    const unsigned sum = std::accumulate(f.begin(), f.begin() + 33, 0u,
                                         [](unsigned a, char c) { return a + static_cast<uint8_t>(c); });
    EXPECT_EQ(le16(f, 33), sum & 0xFFFF);
}

TEST_F(FrameTest, EmptyRequestIsThirtyTwoBytesWithEvenWordFiveGivingControl41)
{
    ASSERT_EQ(send_mcu_message(7, 2, nullptr, 0, fd_), 32);
    const std::string f = sent(32);
    ASSERT_EQ(f.size(), 32u);
    EXPECT_EQ(le16(f, 8), 22);
    EXPECT_EQ(static_cast<uint8_t>(f[10]), 0x41);
    EXPECT_EQ(le16(f, 30), vexa_transfer_checksum(reinterpret_cast<const uint8_t *>(f.data()), 30));
}

TEST_F(FrameTest, LabelsWrapFrom65535ToOne)
{
    g_n_lable = 65533;
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(send_mcu_message(1, 0, nullptr, 0, fd_), 32);
    const std::string f = sent(96);
    ASSERT_EQ(f.size(), 96u);
    EXPECT_EQ(le16(f, 6), 65534);
    EXPECT_EQ(le16(f, 32 + 6), 65535);
    EXPECT_EQ(le16(f, 64 + 6), 1);
    EXPECT_EQ(g_n_lable, 1);
    const auto lines = log_of("vexa_system_hidl_service");
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "I/vexa_system_hidl_service: vexa_packet_add_frame_header: g_n_lable > 65534"),
              1);
}

TEST_F(FrameTest, LongFrameIsLoggedUpTo1024BytesAndSentWhole)
{
    std::vector<uint8_t> data(1100, 0xAB);
    ASSERT_EQ(send_mcu_message(1, 0, data.data(), 1100, fd_), 1132);
    EXPECT_EQ(sent(1132).size(), 1132u);
    std::string hex = "55BB000000010100620441010000";
    const auto lines = log_of("vexa_system_hidl_service");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("D/vexa_system_hidl_service: func:vexa_physical_send line:188 len=[1024], "
                             "data=[" + hex, 0), 0u);
    EXPECT_EQ(lines[0].size(), std::string("D/vexa_system_hidl_service: func:vexa_physical_send "
                                           "line:188 len=[1024], data=[]").size() + 2048);
}

TEST_F(FrameTest, DataBeyondTheFrameBufferIsRefused)
{
    std::vector<uint8_t> data(VEXA_PACKET_MAX_DATA + 1);
    EXPECT_EQ(send_mcu_message(1, 0, data.data(), static_cast<uint32_t>(data.size()), fd_), -1);
    EXPECT_EQ(sent(0), "");
    EXPECT_EQ(send_mcu_message(1, 0, data.data(), VEXA_PACKET_MAX_DATA, fd_),
              static_cast<int32_t>(VEXA_PACKET_BUFFER_SIZE));
}

TEST_F(FrameTest, FailedWriteIsLoggedAndReturned)
{
    board().inject(Fault::on("write").returns(-1, EIO));
    EXPECT_EQ(send_mcu_message(1, 0, nullptr, 0, fd_), -1);
    const auto lines = log_of("vexa_system_hidl_service");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "E/vexa_system_hidl_service: vexa_physical_send: write fd(" +
                            std::to_string(fd_) + ") err(Input/output error)");
    EXPECT_EQ(lines[2], "E/vexa_system_hidl_service: vexa_request: vexa_physical_send failed, "
                        "n_recv_len = 0");
}

TEST_F(FrameTest, MessageReachesTheMcuWhole)
{
    const int fd = serialInit();
    ASSERT_GT(fd, 0);
    const uint8_t data[5] = {1, 2, 3, 4, 5};
    ASSERT_EQ(send_mcu_message(0x42, 0, data, 5, fd), 37);
    std::vector<std::vector<uint8_t>> frames;
    for (int i = 0; i < 200 && frames.empty(); ++i) {
        frames = mcu().frames();
        usleep(1000);
    }
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].size(), 37u);
    EXPECT_EQ(frames[0][22], 0x42);
    EXPECT_EQ(std::vector<uint8_t>(frames[0].begin() + 30, frames[0].begin() + 35),
              std::vector<uint8_t>(data, data + 5));
    close(fd);
}

TEST_F(FrameTest, HelpersKeepTheirContracts)
{
    EXPECT_EQ(vexa_transfer_checksum(nullptr, 4), -1);
    EXPECT_TRUE(logged("E/vexa_system_hidl_service: error code -4004"));
    const uint8_t bytes[4] = {0xFF, 0xFF, 0x01, 0x02};
    EXPECT_EQ(vexa_transfer_checksum(bytes, 0), 0);
    EXPECT_EQ(vexa_transfer_checksum(bytes, 4), 0x201);
    EXPECT_EQ(transUcharArrayToU64(bytes), 0xFFFF0102u);
    EXPECT_EQ(vexa_get_packet_length(), 30);
    uint8_t frame[40] = {};
    g_n_lable = 9;
    EXPECT_EQ(vexa_packet_add_frame_header(frame), 0);
    EXPECT_EQ(vexa_packet_add_request_header(frame, 3, 1, 5, 0x1F, 0x0102), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(frame), 13),
              std::string("\x55\xBB\x00\x00\x00\x01\x0A\x00\x19\x00\x2F\x02\x01", 13));
    EXPECT_EQ(vexa_packet_data(nullptr, bytes, 4, VEXA_PACKET_HEAD, 1, 0x41, 1, 0, 0, 0), -1);
    uint8_t dst[4] = {};
    putDataToSendCach(bytes, dst, 4);
    EXPECT_EQ(std::memcmp(dst, bytes, 4), 0);
}

} // namespace
