// The raw serial layer: any tty opened and configured with termios in raw
// mode.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/os.h"
#include "vexasdk/peripherals.h"

namespace {

bool speed_of(int32_t baudrate, speed_t *speed)
{
    switch (baudrate) {
    case 300: *speed = B300; return true;
    case 1200: *speed = B1200; return true;
    case 2400: *speed = B2400; return true;
    case 4800: *speed = B4800; return true;
    case 9600: *speed = B9600; return true;
    case 19200: *speed = B19200; return true;
    case 57600: *speed = B57600; return true;
    case 115200: *speed = B115200; return true;
    case 1000000: *speed = B1000000; return true;
    case 4000000: *speed = B4000000; return true;
    default: return false;
    }
}

} // namespace

extern "C" {

VEXA_API int32_t sdk_uart_open(const char *path)
{
    if (!path)
        return -1;
    const int fd = vexa::os::open(path, O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return -1;
    // Later reads and writes block. On failure the descriptor stays open.
    if (fcntl(fd, F_SETFL, 0) < 0)
        return -1;
    return fd;
}

VEXA_API int32_t sdk_uart_cfg(int32_t fd, int32_t baudrate, int32_t flow_ctrl, int32_t databits,
                              int32_t stopbits, char parity)
{
    struct termios tio;
    if (tcgetattr(fd, &tio) != 0)
        return -1;
    speed_t speed;
    if (speed_of(baudrate, &speed)) {
        cfsetispeed(&tio, speed);
        cfsetospeed(&tio, speed);
    }
    tio.c_cflag |= CLOCAL | CREAD;
    switch (flow_ctrl) {
    case 0: tio.c_cflag &= ~CRTSCTS; break;
    case 1: tio.c_cflag |= CRTSCTS; break;
    // The software flow-control bits land in the control flags, as the
    // boards have always had them.
    case 2: tio.c_cflag |= IXON | IXANY | IXOFF | CLOCAL | CREAD; break;
    default: break;
    }
    tio.c_cflag &= ~CSIZE;
    switch (databits) {
    case 5: tio.c_cflag |= CS5; break;
    case 6: tio.c_cflag |= CS6; break;
    case 7: tio.c_cflag |= CS7; break;
    case 8: tio.c_cflag |= CS8; break;
    default: return -1;
    }
    switch (parity) {
    case 'e': case 'E':
        tio.c_cflag |= PARENB;
        tio.c_cflag &= ~PARODD;
        tio.c_iflag |= INPCK;
        break;
    case 'n': case 'N':
        tio.c_cflag &= ~PARENB;
        break;
    case 'o': case 'O':
        tio.c_cflag |= PARENB | PARODD;
        tio.c_iflag |= INPCK;
        break;
    case 's': case 'S':
        tio.c_cflag &= ~(PARENB | CSTOPB);
        break;
    default:
        return -1;
    }
    switch (stopbits) {
    case 1: tio.c_cflag &= ~CSTOPB; break;
    case 2: tio.c_cflag |= CSTOPB; break;
    default: return -1;
    }
    tio.c_cc[VTIME] = 0;
    tio.c_cc[VMIN] = 0;
    // Raw input: this also drops the INPCK set for parity above.
    tio.c_iflag &= ~(BRKINT | INPCK | ISTRIP | ICRNL | IXON);
    tio.c_oflag &= ~OPOST;
    tio.c_lflag &= ~(ICANON | ECHO | ECHOE | ISIG);
    tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &tio) != 0) {
        std::printf("com set error!");
        std::fflush(stdout);
        return -1;
    }
    return 0;
}

VEXA_API int32_t sdk_uart_init(const char *path, int32_t baudrate)
{
    const int fd = sdk_uart_open(path);
    if (fd < 0) {
        std::printf("uart open failed %s \n", path ? path : "(null)");
        std::fflush(stdout);
        return -1;
    }
    if (sdk_uart_cfg(fd, baudrate, 0, 8, 1, 'N') != 0) {
        std::printf("uart set fail %s \n", path);
        std::fflush(stdout);
        vexa::os::close(fd);
        return -1;
    }
    return fd;
}

VEXA_API int32_t sdk_uart_write(int32_t fd, const void *buf, uint32_t count)
{
    if (!buf)
        return -5;
    const ssize_t n = vexa::os::write(fd, buf, count);
    if (n < 0) {
        std::printf("uart write error(%d) err(%s)\n", static_cast<int>(n), std::strerror(errno));
        std::fflush(stdout);
        return -1;
    }
    return static_cast<int32_t>(n);
}

VEXA_API int32_t sdk_uart_read(int32_t fd, void *buf, uint32_t count)
{
    if (!buf)
        return -5;
    return static_cast<int32_t>(vexa::os::read(fd, buf, count));
}

VEXA_API int32_t sdk_uart_close(int32_t fd)
{
    vexa::os::close(fd);
    return 0;
}

} // extern "C"
