// The raw serial layer of the bootloader flasher: one module-wide descriptor.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "mcu/mcu_internal.h"
#include "mcu/serial_wait.h"
#include "platform/log.h"
#include "platform/os.h"
#include "vexasdk/mcu.h"

namespace {

constexpr const char *kTag = "vexa_system_fw_update";
// mcu_serial_read: 100 empty waits of 10 ms.
constexpr int kEmptyRounds = 100;
constexpr int kRoundMs = 10;
// A descriptor that fails this many reads in a row delivers nothing more.
constexpr int kMaxReadErrors = 1000;

int g_mcu_fd = -1;

speed_t speed_of(uint32_t baudrate, bool *ok)
{
    *ok = true;
    switch (baudrate) {
    case 50: return B50;
    case 75: return B75;
    case 110: return B110;
    case 134: return B134;
    case 150: return B150;
    case 200: return B200;
    case 300: return B300;
    case 600: return B600;
    case 1200: return B1200;
    case 1800: return B1800;
    case 2400: return B2400;
    case 4800: return B4800;
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    case 230400: return B230400;
    case 1000000: return B1000000;
    default: *ok = false; return B0;
    }
}

} // namespace

namespace vexa::mcu {

int serial_fd()
{
    return g_mcu_fd;
}

} // namespace vexa::mcu

extern "C" {

VEXA_API int32_t mcu_set_baudrate(int32_t fd, uint32_t baudrate)
{
    VEXA_LOGD(kTag, "%s: set baudrate: %u.\n", __func__, baudrate);
    struct termios tio;
    if (tcgetattr(fd, &tio) != 0) {
        VEXA_LOGE(kTag, "%s: Error getting attribute (baudrate) of tty.\n", __func__);
        return -1;
    }
    bool ok;
    const speed_t speed = speed_of(baudrate, &ok);
    if (!ok) {
        VEXA_LOGE(kTag, "%s: Invalid baudrate value: %u.\n", __func__, baudrate);
        return -1;
    }
    tcflush(fd, TCIOFLUSH);
    cfsetispeed(&tio, speed);
    cfsetospeed(&tio, speed);
    if (tcsetattr(fd, TCSANOW, &tio) != 0) {
        VEXA_LOGE(kTag, "%s: set baudrate failed.\n", __func__);
        return -1;
    }
    tcflush(fd, TCIOFLUSH);
    return 0;
}

VEXA_API int32_t mcu_set_parity(int32_t fd, int32_t databits, int32_t stopbits, char parity)
{
    struct termios tio;
    if (tcgetattr(fd, &tio) != 0) {
        VEXA_LOGE(kTag, "TTY: Error getting attribute (parity) of tty.\n");
        return -1;
    }
    tio.c_cflag &= ~CSIZE;
    if (databits == 8) {
        tio.c_cflag |= CS8;
    } else if (databits == 7) {
        tio.c_cflag |= CS7;
    } else {
        VEXA_LOGE(kTag, "TTY: Invalid databits value %d.\n", databits);
        return -1;
    }
    switch (parity) {
    case 'n': case 'N':
        tio.c_cflag &= ~PARENB;
        tio.c_iflag &= ~INPCK;
        break;
    case 'e': case 'E':
        tio.c_cflag |= PARENB;
        tio.c_cflag &= ~PARODD;
        tio.c_iflag |= INPCK;
        break;
    case 'o': case 'O':
        tio.c_cflag |= PARENB | PARODD;
        tio.c_iflag |= INPCK;
        break;
    case 's': case 'S':
        tio.c_cflag &= ~PARENB;
        tio.c_iflag |= INPCK;
        break;
    default:
        VEXA_LOGE(kTag, "TTY: Invalid parity value %c.\n", parity);
        return -2;
    }
    if (stopbits == 1) {
        tio.c_cflag &= ~CSTOPB;
    } else if (stopbits == 2) {
        tio.c_cflag |= CSTOPB;
    } else {
        VEXA_LOGE(kTag, "TTY: Invalid stopbits value %d.\n", stopbits);
        return -3;
    }
    tio.c_cflag &= ~CRTSCTS;
    tio.c_cflag |= CREAD | CLOCAL;
    tio.c_lflag &= ~(ICANON | ECHO | ECHOE | ISIG);
    tio.c_oflag &= ~OPOST;
    tio.c_iflag &= ~(IXON | IXOFF | IXANY | ICRNL | INLCR | IGNCR);
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &tio) != 0) {
        VEXA_LOGE(kTag, "TTY: Error setting attribute (databits, parity, stopbits) of tty.\n");
        return -4;
    }
    return 0;
}

VEXA_API int32_t mcu_serial_init(const char *path, uint32_t baudrate, int32_t databits,
                                 int32_t stopbits, char parity)
{
    const int fd = path ? vexa::os::open(path, O_RDWR | O_NOCTTY | O_NONBLOCK) : -1;
    g_mcu_fd = fd;
    if (fd < 0) {
        VEXA_LOGE(kTag, "%s: Open serial port %s failed.\n", __func__, path ? path : "(null)");
        return -1;
    }
    if (mcu_set_baudrate(fd, baudrate) != 0) {
        VEXA_LOGE(kTag, "%s: mcu_set_baudrate failed.\n", __func__);
        return -1;
    }
    if (mcu_set_parity(fd, databits, stopbits, parity) != 0) {
        VEXA_LOGE(kTag, "%s: mcu_set_parity failed.\n", __func__);
        return -1;
    }
    return 0;
}

VEXA_API int32_t mcu_serial_write(const uint8_t *buf, uint32_t count)
{
    const ssize_t n = buf ? vexa::os::write(g_mcu_fd, buf, count) : -1;
    if (n < 0) {
        VEXA_LOGE(kTag, "%s: write error. \n", __func__);
        return 2;
    }
    return static_cast<int32_t>(n);
}

VEXA_API int32_t mcu_serial_read(uint8_t *buf, uint32_t count)
{
    if (count == 0)
        return 0;
    if (!buf)
        return 3;
    // The time-out is 100 empty rounds of 10 ms. Instead of sleeping a round
    // after each empty read, the read waits for input with what is left of
    // that second, so a byte that arrives is taken at once.
    constexpr uint64_t kRoundNs = kRoundMs * 1000000ull;
    uint64_t budget_ns = kEmptyRounds * kRoundNs;
    uint32_t got = 0;
    int errors = 0;
    bool woke_readable = false;
    while (got < count) {
        const ssize_t n = vexa::os::read(g_mcu_fd, buf + got, count - got);
        if (n > 0) {
            got += static_cast<uint32_t>(n);
            errors = 0;
            woke_readable = false;
            continue;
        }
        if (n < 0) {
            // Repeated at once; an error is not an empty round.
            if (++errors < kMaxReadErrors)
                continue;
            VEXA_LOGE(kTag, "%s: read fd(%d) failed %d times in a row: %s\n", __func__, g_mcu_fd,
                      errors, std::strerror(errno));
            return 3;
        }
        errors = 0;
        // Readable yet empty (a hung-up line) costs a whole round.
        if (woke_readable)
            budget_ns -= budget_ns < kRoundNs ? budget_ns : kRoundNs;
        if (budget_ns == 0) {
            VEXA_LOGE(kTag, "%s: read fd(%d) %d Bytes  %d times! \n", __func__, g_mcu_fd,
                      static_cast<int>(got), kEmptyRounds);
            return 3;
        }
        const uint64_t start = vexa::os::monotonic_ns();
        const int ready = vexa::mcu::wait_readable(g_mcu_fd,
                                                   static_cast<int>((budget_ns + 999999u) / 1000000u));
        const uint64_t waited = vexa::os::monotonic_ns() - start;
        budget_ns -= waited < budget_ns ? waited : budget_ns;
        woke_readable = ready != 0; // an error counts like a hung-up line
    }
    return 0;
}

VEXA_API int32_t mcu_serial_read_select(uint8_t *buf, uint32_t count)
{
    const int ready = vexa::mcu::wait_readable(g_mcu_fd, 1000);
    if (ready < 0) {
        VEXA_LOGD(kTag, "mcu_serial_read select error.\n");
        return 4;
    }
    if (ready == 0) {
        VEXA_LOGD(kTag, "mcu_serial_read select timeout error.\n");
        return 5;
    }
    uint32_t got = 0;
    int empty = 0;
    while (buf && got < count) {
        const ssize_t n = vexa::os::read(g_mcu_fd, buf + got, count - got);
        if (n > 0) {
            got += static_cast<uint32_t>(n);
            continue;
        }
        // A read that fails counts as an empty one: a line whose reads keep
        // failing ends with 3 like a silent one, never spins for ever.
        if (++empty >= 10) {
            VEXA_LOGD(kTag, "read fd(%d) 0 Bytes  %d times! \n", g_mcu_fd, empty);
            return 3;
        }
    }
    return ready;
}

VEXA_API int32_t mcu_serial_close(void)
{
    return vexa::os::close(g_mcu_fd);
}

} // extern "C"
