// The platform's serial operations on the virtual board: the board path of a
// line leads to its pty, configured raw at the given speed.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>

#include <cerrno>

#include "platform/hal.h"
#include "platform/os.h"
#include "sim/state.h"

namespace {

speed_t speed_of(int baudrate)
{
    switch (baudrate) {
    case 1200: return B1200;
    case 2400: return B2400;
    case 4800: return B4800;
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 230400: return B230400;
    case 460800: return B460800;
    case 921600: return B921600;
    case 1000000: return B1000000;
    default: return B115200;
    }
}

} // namespace

// The timeout of the blocking read is in milliseconds; a negative timeout
// waits for ever.
extern "C" int hal_serial_open(const char *path, int baudrate, unsigned int databits,
                               unsigned int stopbits, char parity)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_serial_open", path ? path : "", int);
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    const int fd = vexa::os::open(path, O_RDWR | O_NOCTTY);
    if (fd < 0)
        return -1;
    struct termios tio;
    if (tcgetattr(fd, &tio) == 0) {
        cfmakeraw(&tio);
        cfsetispeed(&tio, speed_of(baudrate));
        cfsetospeed(&tio, speed_of(baudrate));
        tio.c_cflag &= ~(CSIZE | CSTOPB | PARENB | PARODD);
        tio.c_cflag |= databits == 7 ? CS7 : databits == 6 ? CS6 : databits == 5 ? CS5 : CS8;
        if (stopbits == 2)
            tio.c_cflag |= CSTOPB;
        if (parity == 'E' || parity == 'e')
            tio.c_cflag |= PARENB;
        if (parity == 'O' || parity == 'o')
            tio.c_cflag |= PARENB | PARODD;
        tio.c_cflag |= CLOCAL | CREAD;
        tio.c_cc[VMIN] = 0;
        tio.c_cc[VTIME] = 0;
        tcsetattr(fd, TCSANOW, &tio);
    }
    return fd;
}

extern "C" int hal_serial_write(int fd, const void *buf, int len)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_serial_write", "", int);
    if (!buf || len < 0) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(vexa::os::write(fd, buf, static_cast<size_t>(len)));
}

extern "C" int hal_serial_blocking_read(int fd, void *buf, int len, int timeout)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_serial_blocking_read", "", int);
    if (!buf || len < 0) {
        errno = EINVAL;
        return -1;
    }
    struct pollfd pfd = {fd, POLLIN, 0};
    const int ready = vexa::os::poll(&pfd, 1, timeout);
    if (ready <= 0)
        return ready;
    return static_cast<int>(vexa::os::read(fd, buf, static_cast<size_t>(len)));
}

extern "C" int hal_serial_nonblocking_read(int fd, void *buf, int len)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_serial_nonblocking_read", "", int);
    if (!buf || len < 0) {
        errno = EINVAL;
        return -1;
    }
    struct pollfd pfd = {fd, POLLIN, 0};
    const int ready = vexa::os::poll(&pfd, 1, 0);
    if (ready <= 0)
        return ready;
    return static_cast<int>(vexa::os::read(fd, buf, static_cast<size_t>(len)));
}

extern "C" int hal_serial_close(int fd)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_serial_close", "", int);
    return vexa::os::close(fd);
}
