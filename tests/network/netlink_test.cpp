// The netlink link monitor against the MCU model's link replies.
#include <unistd.h>

#include "sim/serial/mcu_model.h"
#include "support/board_fixture.h"
#include "vexasdk/mcu.h"
#include "vexasdk/network.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/selftest.h"

namespace {

using Quirk = vexa::sim::McuModel::Quirk;
using vexa::sim::Fault;

class NetlinkTest : public vexa::test::BoardTest {
protected:
    void SetUp() override
    {
        BoardTest::SetUp();
        ASSERT_EQ(parseConfigInfo(), 0);
        fd_ = serialInit();
        ASSERT_GT(fd_, 0);
        mcu_ = vexa::sim::mcu_model(board());
        ASSERT_TRUE(mcu_);
        board().clear_log();
    }
    void TearDown() override
    {
        close(fd_);
        BoardTest::TearDown();
    }
    std::vector<uint8_t> request(int port)
    {
        std::vector<uint8_t> r(33);
        EXPECT_EQ(generate_net_request_exact(port, r.data()), 0);
        return r;
    }
    int count(const std::string &line)
    {
        const auto lines = board().log_lines();
        return static_cast<int>(std::count(lines.begin(), lines.end(), line));
    }
    int fd_ = -1;
    std::shared_ptr<vexa::sim::McuModel> mcu_;
};

TEST_F(NetlinkTest, RequestsCarryThePortRegisterAndSequence)
{
    const std::vector<uint8_t> first = {0x55, 0xBB, 0, 0, 0, 0x01, 0xFC, 0x00, 0x17, 0x00, 0x41,
                                        0x01, 0,    0, 0, 0, 0,    0,    0,    0,    0,    0,
                                        0x00, 0x00, 0x02, 0x01, 0, 0, 0x01, 0, 0x00, 0x6A, 0x02};
    EXPECT_EQ(request(0), first);
    const auto third = request(3);
    EXPECT_EQ(third[30], 3);
    EXPECT_EQ(third[31], 0x70);
    EXPECT_EQ(third[32], 0x02);
    const auto last = request(39);
    EXPECT_EQ(last[6], 0x23); // 252 + 39 = 291
    EXPECT_EQ(last[7], 0x01);
    EXPECT_EQ(last[31], 0xB9);
    EXPECT_EQ(last[32], 0x01);
    EXPECT_EQ(request(4)[31], 0x73);
    uint8_t buf[33];
    EXPECT_EQ(generate_net_request_exact(40, buf), -1);
    EXPECT_EQ(generate_net_request_exact(-1, buf), -1);
    EXPECT_EQ(generate_net_request_exact(0, nullptr), -1);
}

TEST_F(NetlinkTest, LoopReadsTheWholeMask)
{
    const uint64_t links = 0xA5ull << 32 | 0x0F0F00F1ull;
    mcu_->set_link_mask(links);
    uint64_t mask = ~0ull;
    EXPECT_EQ(getNetlinkStatusLoop(fd_, &mask), 0);
    // Bits 40..63 are no port's and keep what they held.
    EXPECT_EQ(mask, links | 0xFFFFFF0000000000ull);
    EXPECT_EQ(mcu_->link_requests(), 40);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: sendNetlinkRequest: set bit 39, link_status = "
                       "0xffffffa50f0f00f1"));
    EXPECT_EQ(getNetlinkStatusLoop(fd_, nullptr), -1);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: getNetlinkStatusLoop: link_status is NULL"));
}

TEST_F(NetlinkTest, ReplyForAnotherPortSetsThatPortsBit)
{
    mcu_->set_link_mask(1ull << 9);
    mcu_->add_quirk(Quirk::other_port, 1, 9);
    uint64_t mask = 0;
    EXPECT_EQ(sendNetlinkRequest(fd_, &mask, request(2).data()), 0);
    EXPECT_EQ(mask, 1ull << 9);
    mask = ~0ull;
    mcu_->add_quirk(Quirk::other_port, 1, 5);
    EXPECT_EQ(sendNetlinkRequest(fd_, &mask, request(2).data()), 0);
    EXPECT_EQ(mask, ~(1ull << 5));
}

TEST_F(NetlinkTest, ShortReplyIsRefusedAndTheInputDrained)
{
    mcu_->set_link_mask(1ull << 6);
    mcu_->add_quirk(Quirk::short_reply);
    uint64_t mask = 0;
    EXPECT_EQ(sendNetlinkRequest(fd_, &mask, request(6).data()), 0);
    EXPECT_EQ(mask, 1ull << 6);
    EXPECT_EQ(mcu_->link_requests(), 2);
    EXPECT_EQ(count("D/vexa_system_fw_update: sendNetlinkRequest: mcu_fd = " + std::to_string(fd_) +
                    ", data received(36):"),
              1);
    EXPECT_EQ(count("E/vexa_system_fw_update: sendNetlinkRequest: frame header [0xbb 0x55] not 0xBB "
                    "0x55 or length != 37"),
              1);
    EXPECT_EQ(count("D/vexa_system_fw_update: clearSerialBuffer: cleared 0 bytes from serial buffer"), 1);
    EXPECT_EQ(count("E/vexa_system_fw_update: sendNetlinkRequest: 0 sendAndValidateHeader check failed!"),
              1);
}

TEST_F(NetlinkTest, EachKindOfBadReplyCountsAsOneFailedAttempt)
{
    mcu_->set_link_mask(0);
    mcu_->add_quirk(Quirk::garble);
    mcu_->add_quirk(Quirk::bad_tag);
    mcu_->add_quirk(Quirk::bad_status);
    mcu_->add_quirk(Quirk::silent);
    uint64_t mask = ~0ull;
    EXPECT_EQ(sendNetlinkRequest(fd_, &mask, request(1).data()), 0);
    EXPECT_EQ(mask, ~2ull);
    EXPECT_EQ(mcu_->link_requests(), 5);
    EXPECT_THAT(log_of("vexa_system_fw_update"),
                ::testing::IsSupersetOf({
                    "E/vexa_system_fw_update: sendNetlinkRequest: frame header [0x44 0xaa] not 0xBB "
                    "0x55 or length != 37",
                    "E/vexa_system_fw_update: sendNetlinkRequest: invalid tag = 0x07020000, expected "
                    "0x01020000",
                    "E/vexa_system_fw_update: sendNetlinkRequest: 1 validateResponseData failed!",
                    "E/vexa_system_fw_update: sendNetlinkRequest: Invalid status value = 0x2 at index 32 "
                    "for port 1",
                    "E/vexa_system_fw_update: sendNetlinkRequest: 2 processLinkStatus failed!",
                    "E/vexa_system_fw_update: sendNetlinkRequest: read returned 0 bytes",
                    "E/vexa_system_fw_update: sendNetlinkRequest: 3 sendAndValidateHeader failed!",
                    "D/vexa_system_fw_update: sendNetlinkRequest: clear bit 1, link_status = "
                    "0xfffffffffffffffd",
                }));
}

TEST_F(NetlinkTest, LateReplyIsASequenceMismatchThenRecovers)
{
    mcu_->set_link_mask(1ull << 7);
    uint64_t mask = 0;
    // The reply to port 6 comes late, in front of the reply to port 7.
    mcu_->add_quirk(Quirk::late);
    EXPECT_EQ(sendNetlinkRequest(fd_, &mask, request(6).data()), 0);
    EXPECT_EQ(sendNetlinkRequest(fd_, &mask, request(7).data()), 0);
    EXPECT_EQ(mask, 1ull << 7);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: sendNetlinkRequest: read returned 0 bytes"));
}

TEST_F(NetlinkTest, ReplyAheadOfTheRequestIsReported)
{
    // A line whose far end the test plays.
    const int fd = sdk_uart_init("/dev/ttyS3", 115200);
    ASSERT_GT(fd, 0);
    std::string reply(37, '\0');
    reply[0] = '\xBB';
    reply[1] = '\x55';
    reply[6] = '\x02'; // request 5 carries 0x0101
    reply[7] = '\x01';
    reply[24] = '\x02';
    reply[25] = '\x01';
    reply[30] = 5;
    reply[32] = 1;
    vexa::sim::serial_line(board(), "/dev/ttyS3")->inject(reply);
    uint64_t mask = 0;
    EXPECT_EQ(sendNetlinkRequest(fd, &mask, request(5).data()), -1);
    EXPECT_EQ(mask, 0u);
    EXPECT_EQ(count("E/vexa_system_fw_update: sendNetlinkRequest: sequence number mismatch. Expected: "
                    "0x0101, Got: 0x0102"),
              1);
    EXPECT_EQ(count("E/vexa_system_fw_update: sendNetlinkRequest: received sequence is ahead, may need "
                    "to resend missing packet"),
              1);
    EXPECT_EQ(count("E/vexa_system_fw_update: sendNetlinkRequest: read returned 0 bytes"), 9);
    sdk_uart_close(fd);
}

TEST_F(NetlinkTest, TenBadRepliesEndTheLoop)
{
    mcu_->add_quirk(Quirk::garble, 10);
    uint64_t mask = 0;
    EXPECT_EQ(getNetlinkStatusLoop(fd_, &mask), -1);
    EXPECT_EQ(mcu_->link_requests(), 10);
    EXPECT_EQ(count("E/vexa_system_fw_update: sendNetlinkRequest: maximum retries (10) exceeded"), 1);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: getNetlinkStatusLoop: sendNetlinkRequest error for port 0"));
}

TEST_F(NetlinkTest, WriteErrorsCountToo)
{
    board().inject(Fault::on("write").at("/dev/ttyS9"));
    uint64_t mask = 0;
    EXPECT_EQ(sendNetlinkRequest(fd_, &mask, request(0).data()), -1);
    EXPECT_EQ(count("E/vexa_system_fw_update: sendNetlinkRequest: write request error, ret = -1"), 10);
}

} // namespace
