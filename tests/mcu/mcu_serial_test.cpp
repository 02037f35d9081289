// The raw serial layer of the flasher and the update flow's UART helpers.
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>

#include "mcu_fixture.h"
#include "support/ini_text.h"
#include "vexasdk/mcu.h"

namespace {

using vexa::sim::Fault;

class McuSerialTest : public vexa::test::McuTest {
protected:
    void SetUp() override
    {
        McuTest::SetUp();
        ASSERT_EQ(mcu_serial_init("/dev/ttyS3", 115200, 8, 1, 'N'), 0);
        board().clear_log();
    }
    void TearDown() override
    {
        mcu_serial_close();
        McuTest::TearDown();
    }
    // The layer's descriptor: the newest one open on the line's pty.
    int fd()
    {
        const std::string pty = line("/dev/ttyS3")->pty_path();
        int found = -1;
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ec;
            if (std::filesystem::read_symlink(entry.path(), ec) == pty)
                found = std::max(found, std::stoi(entry.path().filename().string()));
        }
        return found;
    }
};

TEST_F(McuSerialTest, UnlistedBaudRateFailsAndLeavesThePortAlone)
{
    const int fd = this->fd();
    termios before{};
    tcgetattr(fd, &before);
    EXPECT_EQ(mcu_set_baudrate(fd, 460800), -1);
    termios after{};
    tcgetattr(fd, &after);
    EXPECT_EQ(cfgetospeed(&after), cfgetospeed(&before));
    EXPECT_THAT(fw_log(), ::testing::ElementsAre(
                              "D/vexa_system_fw_update: mcu_set_baudrate: set baudrate: 460800.",
                              "E/vexa_system_fw_update: mcu_set_baudrate: Invalid baudrate value: 460800."));
    EXPECT_EQ(mcu_set_baudrate(fd, 230400), 0);
    tcgetattr(fd, &after);
    EXPECT_EQ(cfgetospeed(&after), B230400);
}

TEST_F(McuSerialTest, ParityErrorsHaveTheirOwnCodes)
{
    const int fd = this->fd();
    EXPECT_EQ(mcu_set_parity(fd, 9, 1, 'N'), -1);
    EXPECT_EQ(mcu_set_parity(fd, 8, 1, 'X'), -2);
    EXPECT_EQ(mcu_set_parity(fd, 8, 3, 'N'), -3);
    EXPECT_EQ(mcu_set_parity(-1, 8, 1, 'N'), -1);
    EXPECT_EQ(mcu_set_parity(fd, 7, 2, 'o'), 0);
    EXPECT_THAT(fw_log(), ::testing::ElementsAre(
                              "E/vexa_system_fw_update: TTY: Invalid databits value 9.",
                              "E/vexa_system_fw_update: TTY: Invalid parity value X.",
                              "E/vexa_system_fw_update: TTY: Invalid stopbits value 3.",
                              "E/vexa_system_fw_update: TTY: Error getting attribute (parity) of tty."));
}

TEST_F(McuSerialTest, ReadTakesBytesAsSoonAsTheyArrive)
{
    line("/dev/ttyS3")->inject("xyz");
    const uint64_t start = board().now_ns();
    uint8_t buf[3] = {};
    EXPECT_EQ(mcu_serial_read(buf, 3), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), 3), "xyz");
    EXPECT_LT(board().now_ns() - start, 100000000u);
    EXPECT_EQ(mcu_serial_read(buf, 0), 0);
}

TEST_F(McuSerialTest, SilenceEndsAfterOneSecondWithCodeThree)
{
    line("/dev/ttyS3")->inject("a");
    const uint64_t start = board().now_ns();
    uint8_t buf[4] = {};
    EXPECT_EQ(mcu_serial_read(buf, 4), 3);
    const uint64_t waited = board().now_ns() - start;
    EXPECT_GE(waited, 1000000000u);
    EXPECT_LT(waited, 1300000000u);
    EXPECT_THAT(fw_log(), ::testing::ElementsAre("E/vexa_system_fw_update: mcu_serial_read: read fd(" +
                                                 std::to_string(fd()) + ") 1 Bytes  100 times! "));
}

TEST_F(McuSerialTest, ReadErrorsAreRetriedWithoutCountingAsEmptyRounds)
{
    Fault fault = Fault::on("read");
    fault.times = 50;
    board().inject(fault);
    line("/dev/ttyS3")->inject("ok");
    uint8_t buf[2] = {};
    EXPECT_EQ(mcu_serial_read(buf, 2), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), 2), "ok");
}

TEST_F(McuSerialTest, SelectReadCodes)
{
    uint8_t buf[2] = {};
    EXPECT_EQ(mcu_serial_read_select(buf, 2), 5);
    line("/dev/ttyS3")->inject("ab");
    EXPECT_EQ(mcu_serial_read_select(buf, 2), 1);
    line("/dev/ttyS3")->inject("c");
    EXPECT_EQ(mcu_serial_read_select(buf, 2), 3);
    EXPECT_THAT(fw_log(), ::testing::ElementsAre(
                              "D/vexa_system_fw_update: mcu_serial_read select timeout error.",
                              "D/vexa_system_fw_update: read fd(" + std::to_string(fd()) +
                                  ") 0 Bytes  10 times! "));
}

TEST_F(McuSerialTest, SelectReadGivesUpOnALineWhoseReadsFail)
{
    line("/dev/ttyS3")->inject("c");
    board().inject(Fault::on("read").always());
    uint8_t buf[2] = {};
    EXPECT_EQ(mcu_serial_read_select(buf, 2), 3);
    EXPECT_THAT(fw_log(), ::testing::ElementsAre("D/vexa_system_fw_update: read fd(" + std::to_string(fd()) +
                                                 ") 0 Bytes  10 times! "));
}

TEST_F(McuSerialTest, WriteErrorIsThePositiveCodeTwo)
{
    const uint8_t byte = 0x7F;
    EXPECT_EQ(mcu_serial_write(&byte, 1), 1);
    board().inject(Fault::on("write").once());
    EXPECT_EQ(mcu_serial_write(&byte, 1), 2);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: mcu_serial_write: write error. "));
}

TEST_F(McuSerialTest, InitReportsAMissingPort)
{
    EXPECT_EQ(mcu_serial_init("/dev/ttyNONE", 115200, 8, 1, 'N'), -1);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: mcu_serial_init: Open serial port /dev/ttyNONE failed."));
    EXPECT_EQ(mcu_serial_init("/dev/ttyS3", 7, 8, 1, 'N'), -1);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: mcu_serial_init: mcu_set_baudrate failed."));
    EXPECT_EQ(mcu_serial_init("/dev/ttyS3", 115200, 8, 1, 'Q'), -1);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: mcu_serial_init: mcu_set_parity failed."));
}

class UpdateUartTest : public vexa::test::McuTest {};

TEST_F(UpdateUartTest, SerialInitOpensTheConfiguredLineBlocking)
{
    const int fd = serialInit();
    ASSERT_GT(fd, 0);
    EXPECT_TRUE(logged("I/vexa_system_fw_update: serialInit: open /dev/ttyS9 _fd = " +
                       std::to_string(fd)));
    EXPECT_EQ(clearSerialBuffer(fd), 0);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: clearSerialBuffer: cleared 0 bytes from serial buffer"));
    close(fd);
}

TEST_F(UpdateUartTest, ClearSerialBufferDiscardsWhatWaits)
{
    const int fd = serialInit();
    ASSERT_GT(fd, 0);
    std::string junk(700, 'j');
    line("/dev/ttyS9")->inject(junk);
    // The pty hands the bytes over at once; wait until all are there.
    for (int i = 0; i < 200; ++i) {
        int waiting = 0;
        ioctl(fd, FIONREAD, &waiting);
        if (waiting == 700)
            break;
        usleep(1000);
    }
    EXPECT_EQ(clearSerialBuffer(fd), 700);
    EXPECT_EQ(clearSerialBuffer(-1), -1);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: clearSerialBuffer: invalid file descriptor"));
    close(fd);
}

TEST_F(UpdateUartTest, SerialInitNeedsTheConfiguredPath)
{
    reload(vexa::sim::Board::Builder().ini(vexa::test::ini_with("mcu_uart_path", "UNDEF")));
    EXPECT_EQ(serialInit(), -1);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: serialInit:config_info->mcu_uart_path is not set, "
                       "need to check ini file."));
}

} // namespace
