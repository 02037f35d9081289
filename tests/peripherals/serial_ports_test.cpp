// Named serial ports and the raw termios layer, on the board's pty lines.
#include <fcntl.h>
#include <termios.h>

#include "sim/serial/serial_line.h"
#include "support/board_fixture.h"
#include "support/ini_text.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace {

using vexa::sim::Fault;

class SerialPortTest : public vexa::test::BoardTest {
protected:
    void SetUp() override
    {
        BoardTest::SetUp();
        bi_init_product_config();
        board().clear_log();
    }
    void reload(const std::string &ini)
    {
        rebuild(vexa::sim::Board::Builder().ini(ini));
        bi_init_product_config();
        board().clear_log();
    }
    std::shared_ptr<vexa::sim::SerialLine> line(const char *path)
    {
        return vexa::sim::serial_line(board(), path);
    }
};

TEST_F(SerialPortTest, NamedPortCarriesBytesBothWays)
{
    ASSERT_EQ(bi_serial_232_open(115200, 8, 1, 'N'), 0);
    auto far = line("/dev/ttyS3");
    ASSERT_TRUE(far);
    EXPECT_EQ(bi_serial_232_write("hello", 5), 5);
    EXPECT_EQ(far->take_output(5, 2000), "hello");
    far->inject("abc");
    char buf[8] = {};
    EXPECT_EQ(bi_serial_232_blocking_read(buf, sizeof(buf), 2000), 3);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(bi_serial_232_nonblocking_read(buf, sizeof(buf)), 0);
    EXPECT_EQ(bi_serial_232_close(), 0);
    EXPECT_THAT(board().log_lines(),
                ::testing::ElementsAre(
                    "D/vexa_system_bi_serial: bi_serial_232_open:baudrate = 115200, databits = 8, "
                    "stopbits = 1, parity = N",
                    "D/vexa_system_bi_serial: bi_serial_232_open:device:/dev/ttyS3",
                    "D/vexa_system_bi_serial: bi_serial_232_write",
                    "D/vexa_system_bi_serial: bi_serial_232_close"));
}

TEST_F(SerialPortTest, FirstRs485PortLogsNothingOnWriteAndClose)
{
    ASSERT_EQ(bi_serial_485_open(9600, 8, 1, 'E'), 0);
    board().clear_log();
    EXPECT_EQ(bi_serial_485_write("x", 1), 1);
    EXPECT_EQ(line("/dev/ttyS5")->take_output(1, 2000), "x");
    EXPECT_EQ(bi_serial_485_close(), 0);
    EXPECT_TRUE(board().log_lines().empty());
}

TEST_F(SerialPortTest, UnsetPathIsRefused)
{
    reload(vexa::test::ini_with("serial_ttl_1", "UNDEF"));
    EXPECT_EQ(bi_serial_ttl_open(115200, 8, 1, 'N'), -1);
    EXPECT_TRUE(logged("E/vexa_system_bi_serial: bi_serial_ttl_open:bi_product is NULL or path is "
                       "not set, need to check ini file."));
    reload(vexa::test::ini_with("serial_lora_1", std::nullopt));
    EXPECT_EQ(bi_serial_lora_open(115200, 8, 1, 'N'), -1);
}

TEST_F(SerialPortTest, PlatformOpenOfZeroIsAFailureNamedAfterThePort)
{
    board().inject(Fault::on("hal_serial_open").returns(0));
    EXPECT_EQ(bi_serial_ttl_open(115200, 8, 1, 'N'), -1);
    EXPECT_TRUE(logged("E/vexa_system_bi_serial: bi_serial_ttl_open:fd_ttl(/dev/ttyS7) is invalid!"));
    // The second RS-485 port reports under the first one's name.
    EXPECT_EQ(bi_serial_485_2_open(115200, 8, 1, 'N'), -1);
    EXPECT_TRUE(
        logged("E/vexa_system_bi_serial: bi_serial_485_2_open:fd_485(/dev/ttyS6) is invalid!"));
}

TEST_F(SerialPortTest, OverlongPathIsRefusedBeforeTheCopy)
{
    reload(vexa::test::ini_with("serial_hdmi_1", "/dev/" + std::string(130, 'x')));
    EXPECT_EQ(bi_serial_hdmi_open(115200, 8, 1, 'N'), -1);
}

class SdkUartTest : public SerialPortTest {
protected:
    void SetUp() override
    {
        SerialPortTest::SetUp();
        fd_ = sdk_uart_init("/dev/ttyS3", 115200);
        ASSERT_GT(fd_, 0);
    }
    void TearDown() override
    {
        sdk_uart_close(fd_);
        SerialPortTest::TearDown();
    }
    termios attrs()
    {
        termios tio{};
        tcgetattr(fd_, &tio);
        return tio;
    }
    int fd_ = -1;
};

TEST_F(SdkUartTest, InitConfiguresRawEightNoneOneAndBlocking)
{
    const termios tio = attrs();
    EXPECT_EQ(cfgetospeed(&tio), B115200);
    EXPECT_EQ(tio.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(tio.c_cflag & (PARENB | CSTOPB | CRTSCTS), 0u);
    EXPECT_EQ(tio.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(tio.c_cc[VMIN], 0);
    EXPECT_EQ(fcntl(fd_, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(SdkUartTest, UnlistedRateKeepsTheSpeed)
{
    EXPECT_EQ(sdk_uart_cfg(fd_, 38400, 0, 8, 1, 'N'), 0);
    EXPECT_EQ(cfgetospeed(&(const termios &)attrs()), B115200);
    EXPECT_EQ(sdk_uart_cfg(fd_, 9600, 0, 8, 1, 'N'), 0);
    const termios tio = attrs();
    EXPECT_EQ(cfgetospeed(&tio), B9600);
}

TEST_F(SdkUartTest, BadParametersApplyNothing)
{
    const termios before = attrs();
    EXPECT_EQ(sdk_uart_cfg(fd_, 9600, 0, 9, 1, 'N'), -1);
    EXPECT_EQ(sdk_uart_cfg(fd_, 9600, 0, 8, 3, 'N'), -1);
    EXPECT_EQ(sdk_uart_cfg(fd_, 9600, 0, 8, 1, 'X'), -1);
    const termios after = attrs();
    EXPECT_EQ(cfgetospeed(&after), cfgetospeed(&before));
    EXPECT_EQ(after.c_cflag, before.c_cflag);
}

// A pty keeps CS8 and no parity whatever is asked (the kernel's rule), so
// only the other flags of a parity setting can be seen here.
TEST_F(SdkUartTest, EvenParityLeavesInpckClearAndSetsTwoStopBits)
{
    ASSERT_EQ(sdk_uart_cfg(fd_, 115200, 0, 7, 2, 'e'), 0);
    termios tio = attrs();
    EXPECT_EQ(tio.c_iflag & INPCK, 0u);
    EXPECT_NE(tio.c_cflag & CSTOPB, 0u);
    // Mode 2 puts the software flow-control bits into the control flags.
    ASSERT_EQ(sdk_uart_cfg(fd_, 115200, 2, 8, 1, 'N'), 0);
    tio = attrs();
    EXPECT_EQ(tio.c_iflag & (IXON | IXANY | IXOFF), 0u);
    EXPECT_EQ(tio.c_cflag & CSTOPB, 0u);
}

TEST_F(SdkUartTest, NullBuffersGiveMinusFive)
{
    EXPECT_EQ(sdk_uart_read(fd_, nullptr, 10), -5);
    EXPECT_EQ(sdk_uart_write(fd_, nullptr, 10), -5);
    EXPECT_EQ(sdk_uart_write(fd_, "ab", 2), 2);
    EXPECT_EQ(line("/dev/ttyS3")->take_output(2, 2000), "ab");
}

TEST_F(SerialPortTest, RawOpenOfAMissingNodeFails)
{
    EXPECT_EQ(sdk_uart_open("/dev/ttyNOPE"), -1);
    EXPECT_EQ(sdk_uart_init("/dev/ttyNOPE", 115200), -1);
}

} // namespace
