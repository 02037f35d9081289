// Named serial ports and the raw termios layer, on the board's pty lines.
// What the raw layer asks of a line is read where it asks it: tcsetattr and
// tcgetattr are interposed here, since a pty keeps neither the parity nor the
// character size it is asked for. (The library's objects are linked into this
// program, so its calls reach these definitions before libc's.)
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>

#include <cerrno>
#include <map>
#include <vector>

#include "sim/serial/serial_line.h"
#include "support/board_fixture.h"
#include "support/ini_text.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace {

struct Applied {
    int fd;
    int when;
    termios tio;
};
std::vector<Applied> g_applied;  // every tcsetattr of this process, oldest first
bool g_refuse = false;           // tcsetattr fails with EIO
std::map<int, termios> g_lines; // descriptors whose settings stay here, as asked

} // namespace

extern "C" int tcsetattr(int fd, int when, const struct termios *tio)
{
    using Real = int (*)(int, int, const struct termios *);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "tcsetattr"));
    g_applied.push_back({fd, when, *tio});
    if (g_refuse) {
        errno = EIO;
        return -1;
    }
    if (auto line = g_lines.find(fd); line != g_lines.end()) {
        line->second = *tio;
        return 0;
    }
    return real(fd, when, tio);
}

extern "C" int tcgetattr(int fd, struct termios *tio)
{
    using Real = int (*)(int, struct termios *);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "tcgetattr"));
    if (auto line = g_lines.find(fd); line != g_lines.end()) {
        *tio = line->second;
        return 0;
    }
    return real(fd, tio);
}

namespace vexa::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using sim::Fault;

using SerialPortTest = ProductTest;

// One named port: its operations, the INI key of its tty, the name its open
// failure reports, and whether write and close log.
struct Port {
    const char *name;
    const char *key;
    const char *fd_name;
    bool logs_io;
    int32_t (*open)(int32_t, uint32_t, uint32_t, char);
    int32_t (*write)(const void *, int32_t);
    int32_t (*blocking_read)(void *, int32_t, int32_t);
    int32_t (*nonblocking_read)(void *, int32_t);
    int32_t (*close)();
};

#define PORT(p, key, fd_name, logs)                                                                  \
    {#p, key, fd_name, logs, bi_serial_##p##_open, bi_serial_##p##_write, bi_serial_##p##_blocking_read, \
     bi_serial_##p##_nonblocking_read, bi_serial_##p##_close}

const Port kPorts[] = {
    PORT(485, "serial_485_1", "fd_485", false), PORT(485_2, "serial_485_2", "fd_485", true),
    PORT(232, "serial_232_1", "fd_232", true),  PORT(hdmi, "serial_hdmi_1", "fd_hdmi", true),
    PORT(lora, "serial_lora_1", "fd_lora", true), PORT(ttl, "serial_ttl_1", "fd_ttl", true),
    PORT(ttl_2, "serial_ttl_2", "fd_ttl_2", true),
};

std::string func(const Port &p, const char *op) { return std::string("bi_serial_") + p.name + "_" + op; }

TEST_F(SerialPortTest, EveryPortOpensItsOwnTty)
{
    for (const Port &p : kPorts) {
        SCOPED_TRACE(p.name);
        // Only its own tty fails to open, and the failure names both.
        const std::string tty = ini_value(p.key);
        board().inject(Fault::on("hal_serial_open").at(tty).returns(0));
        board().clear_log();
        EXPECT_EQ(p.open(9600, 8, 1, 'N'), -1);
        EXPECT_THAT(board().log_lines(),
                    ElementsAre("D/vexa_system_bi_serial: " + func(p, "open") +
                                    ":baudrate = 9600, databits = 8, stopbits = 1, parity = N",
                                "D/vexa_system_bi_serial: " + func(p, "open") + ":device:" + tty,
                                "E/vexa_system_bi_serial: " + func(p, "open") + ":" + p.fd_name + "(" + tty +
                                    ") is invalid!"));
        board().clear_faults();

        board().write_file("/vendor/etc/product.ini", ini_with(p.key, "UNDEF"));
        load();
        EXPECT_EQ(p.open(9600, 8, 1, 'N'), -1);
        EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_serial: " + func(p, "open") +
                                                  ":bi_product is NULL or path is not set, need to check ini file.");
        board().write_file("/vendor/etc/product.ini", sim::default_product_ini());
        load();
    }
}

TEST_F(SerialPortTest, EveryPortWritesReadsAndClosesItsOwnDescriptor)
{
    for (const Port &p : kPorts)
        ASSERT_EQ(p.open(115200, 8, 1, 'N'), 0) << p.name;
    // Closing the ports one by one: a port whose calls use another port's
    // descriptor fails too early or too late.
    std::vector<const Port *> closed;
    char buf[4];
    for (const Port &p : kPorts) {
        board().clear_log();
        EXPECT_EQ(p.close(), 0) << p.name;
        EXPECT_EQ(board().log_lines(), p.logs_io ? std::vector<std::string>{"D/vexa_system_bi_serial: " +
                                                                            func(p, "close")}
                                                 : std::vector<std::string>{});
        closed.push_back(&p);
        for (const Port &q : kPorts) {
            const bool shut = std::find(closed.begin(), closed.end(), &q) != closed.end();
            SCOPED_TRACE(std::string(q.name) + (shut ? " closed" : " open"));
            board().clear_log();
            EXPECT_EQ(q.write("x", 1), shut ? -1 : 1);
            EXPECT_EQ(board().log_lines(), q.logs_io ? std::vector<std::string>{"D/vexa_system_bi_serial: " +
                                                                                func(q, "write")}
                                                     : std::vector<std::string>{});
            EXPECT_EQ(q.blocking_read(buf, sizeof buf, 0), shut ? -1 : 0);
            EXPECT_EQ(q.nonblocking_read(buf, sizeof buf), shut ? -1 : 0);
        }
    }
}

TEST_F(SerialPortTest, OverlongPathIsRefusedBeforeTheCopy)
{
    board().write_file("/vendor/etc/product.ini", ini_with("serial_hdmi_1", "/dev/" + std::string(130, 'x')));
    load();
    EXPECT_EQ(bi_serial_hdmi_open(115200, 8, 1, 'N'), -1);
}

class SdkUartTest : public SerialPortTest {
protected:
    void SetUp() override
    {
        SerialPortTest::SetUp();
        fd_ = sdk_uart_open("/dev/ttyS3");
        ASSERT_GT(fd_, 0);
        EXPECT_EQ(fcntl(fd_, F_GETFL) & O_NONBLOCK, 0);
        // The line starts cooked, so that raw mode has something to undo.
        termios &line = g_lines[fd_];
        ASSERT_EQ(tcgetattr(fd_, &line), 0);
        line.c_iflag |= BRKINT | INPCK | ISTRIP | ICRNL | IXON;
        line.c_oflag |= OPOST;
        line.c_lflag |= ICANON | ECHO | ECHOE | ISIG;
        line.c_cc[VMIN] = 1;
        line.c_cc[VTIME] = 5;
        g_applied.clear();
    }
    void TearDown() override
    {
        g_refuse = false;
        g_lines.clear();
        sdk_uart_close(fd_);
        SerialPortTest::TearDown();
    }
    // The settings one sdk_uart_cfg applied, or nothing.
    std::optional<termios> applied(int32_t baud, int32_t flow, int32_t data, int32_t stop, char parity)
    {
        g_applied.clear();
        if (sdk_uart_cfg(fd_, baud, flow, data, stop, parity) != 0) {
            EXPECT_THAT(g_applied, IsEmpty());
            return std::nullopt;
        }
        EXPECT_EQ(g_applied.size(), 1u);
        if (g_applied.empty())
            return std::nullopt;
        EXPECT_EQ(g_applied.back().fd, fd_);
        EXPECT_EQ(g_applied.back().when, TCSANOW);
        return g_applied.back().tio;
    }
    int fd_ = -1;
};

TEST_F(SdkUartTest, EveryRateOfTheTableSetsItsSpeed)
{
    const std::pair<int32_t, speed_t> rates[] = {
        {300, B300},       {1200, B1200},       {2400, B2400},    {4800, B4800},     {9600, B9600},
        {19200, B19200},   {57600, B57600},     {115200, B115200}, {1000000, B1000000}, {4000000, B4000000},
    };
    for (const auto &[rate, speed] : rates) {
        auto tio = applied(rate, 0, 8, 1, 'N');
        ASSERT_TRUE(tio) << rate;
        EXPECT_EQ(cfgetospeed(&*tio), speed) << rate;
        EXPECT_EQ(cfgetispeed(&*tio), speed) << rate;
    }
    // A rate not in the table keeps the speed the line has.
    ASSERT_TRUE(applied(9600, 0, 8, 1, 'N'));
    for (int32_t rate : {0, 38400, 230400, 3000000, 115201}) {
        auto tio = applied(rate, 0, 8, 1, 'N');
        ASSERT_TRUE(tio) << rate;
        EXPECT_EQ(cfgetospeed(&*tio), B9600) << rate;
    }
}

TEST_F(SdkUartTest, EveryFrameSettingOfTheTables)
{
    const std::pair<int32_t, tcflag_t> sizes[] = {{5, CS5}, {6, CS6}, {7, CS7}, {8, CS8}};
    for (const auto &[bits, size] : sizes)
        EXPECT_EQ(applied(9600, 0, bits, 1, 'N').value_or(termios{}).c_cflag & CSIZE, size) << bits;

    struct Parity {
        char c;
        int32_t stop;
        tcflag_t set, clear;
    };
    const Parity parities[] = {
        {'N', 1, 0, PARENB | CSTOPB}, {'n', 2, CSTOPB, PARENB},
        {'E', 1, PARENB, PARODD | CSTOPB}, {'e', 2, PARENB | CSTOPB, PARODD},
        {'O', 1, PARENB | PARODD, CSTOPB}, {'o', 2, PARENB | PARODD | CSTOPB, 0},
        {'S', 1, 0, PARENB | CSTOPB}, {'s', 2, CSTOPB, PARENB},
    };
    for (const Parity &p : parities) {
        ASSERT_TRUE(applied(9600, 0, 8, 1, 'O')); // from odd parity each time
        auto tio = applied(9600, 0, 7, p.stop, p.c);
        ASSERT_TRUE(tio) << p.c;
        EXPECT_EQ(tio->c_cflag & p.set, p.set) << p.c;
        EXPECT_EQ(tio->c_cflag & p.clear, 0u) << p.c;
        // Raw input drops the parity check again, as it always has.
        EXPECT_EQ(tio->c_iflag & INPCK, 0u) << p.c;
    }

    // Flow control: 1 and 0 set and clear CRTSCTS, 2 puts the software
    // flow-control bits into the control flags, others change nothing.
    EXPECT_NE(applied(9600, 1, 8, 1, 'N').value_or(termios{}).c_cflag & CRTSCTS, 0u);
    EXPECT_NE(applied(9600, 3, 8, 1, 'N').value_or(termios{}).c_cflag & CRTSCTS, 0u);
    EXPECT_EQ(applied(9600, 0, 8, 1, 'N').value_or(termios{}).c_cflag & CRTSCTS, 0u);
    const termios two = applied(9600, 2, 8, 1, 'N').value_or(termios{});
    EXPECT_EQ(two.c_cflag & (IXON | IXANY | IXOFF), static_cast<tcflag_t>(IXON | IXANY | IXOFF));
    EXPECT_EQ(two.c_iflag & IXON, 0u);

    // Raw mode, whatever the line had.
    EXPECT_EQ(two.c_cflag & (CLOCAL | CREAD), static_cast<tcflag_t>(CLOCAL | CREAD));
    EXPECT_EQ(two.c_iflag & (BRKINT | INPCK | ISTRIP | ICRNL | IXON), 0u);
    EXPECT_EQ(two.c_oflag & OPOST, 0u);
    EXPECT_EQ(two.c_lflag & (ICANON | ECHO | ECHOE | ISIG), 0u);
    EXPECT_EQ(two.c_cc[VMIN], 0);
    EXPECT_EQ(two.c_cc[VTIME], 0);
}

TEST_F(SdkUartTest, BadSettingsAndAFailedApplyAreFailures)
{
    EXPECT_FALSE(applied(9600, 0, 9, 1, 'N'));
    EXPECT_FALSE(applied(9600, 0, 4, 1, 'N'));
    EXPECT_FALSE(applied(9600, 0, 8, 3, 'N'));
    EXPECT_FALSE(applied(9600, 0, 8, 0, 'N'));
    EXPECT_FALSE(applied(9600, 0, 8, 1, 'X'));

    g_refuse = true;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(sdk_uart_cfg(fd_, 9600, 0, 8, 1, 'N'), -1);
    EXPECT_EQ(sdk_uart_init("/dev/ttyS5", 115200), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "com set error!com set error!uart set fail /dev/ttyS5 \n");
}

TEST_F(SdkUartTest, InitIsRawEightNoneOneAt115200)
{
    const int fd = sdk_uart_init("/dev/ttyS5", 115200);
    ASSERT_GT(fd, 0);
    ASSERT_EQ(g_applied.back().fd, fd);
    const termios &tio = g_applied.back().tio;
    EXPECT_EQ(cfgetospeed(&tio), B115200);
    EXPECT_EQ(tio.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS), static_cast<tcflag_t>(CS8));
    sdk_uart_close(fd);

    ::testing::internal::CaptureStdout();
    EXPECT_EQ(sdk_uart_init("/dev/ttyNOPE", 115200), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "uart open failed /dev/ttyNOPE \n");
}

// A line whose far end is unplugged (the board's knob): what the board
// writes goes nowhere, and nothing comes from there.
TEST_F(SdkUartTest, AFarEndThatIsGoneTakesNothingAndSendsNothing)
{
    auto line = sim::serial_line(board(), "/dev/ttyS3");
    ASSERT_TRUE(line);
    ASSERT_EQ(board().set_knob("serial.far_end_gone", "/dev/ttyS3"), 0);
    EXPECT_EQ(sdk_uart_write(fd_, "lost", 4), 4) << "the UART sends into the void";
    line->inject("noise");
    EXPECT_EQ(line->take_output(1, 300), "");
    struct pollfd pfd = {fd_, POLLIN, 0};
    EXPECT_EQ(::poll(&pfd, 1, 0), 0) << "the board side got what the far end sent";
    EXPECT_EQ(board().set_knob("serial.far_end_gone", "/dev/ttyS9"), -1) << "the MCU's line has no far end";
    ASSERT_EQ(board().set_knob("serial.far_end_gone", ""), 0);
    EXPECT_EQ(sdk_uart_write(fd_, "ab", 2), 2);
    EXPECT_EQ(line->take_output(2, 2000), "ab");
}

TEST_F(SdkUartTest, NullBuffersGiveMinusFive)
{
    EXPECT_EQ(sdk_uart_read(fd_, nullptr, 10), -5);
    EXPECT_EQ(sdk_uart_write(fd_, nullptr, 10), -5);
    EXPECT_EQ(sdk_uart_write(fd_, "ab", 2), 2);
    EXPECT_EQ(sim::serial_line(board(), "/dev/ttyS3")->take_output(2, 2000), "ab");
}

} // namespace
} // namespace vexa::test
