#include "sim/serial/pty.h"

#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace vexa::sim {

Pty::Pty()
{
    master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master_ < 0)
        throw std::system_error(errno, std::generic_category(), "posix_openpt");
    char name[128];
    if (::grantpt(master_) != 0 || ::unlockpt(master_) != 0 ||
        ::ptsname_r(master_, name, sizeof(name)) != 0) {
        const int err = errno;
        ::close(master_);
        throw std::system_error(err, std::generic_category(), "pty set-up");
    }
    slave_path_ = name;
    keeper_ = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (keeper_ < 0) {
        const int err = errno;
        ::close(master_);
        throw std::system_error(err, std::generic_category(), "open " + slave_path_);
    }
    struct termios tio;
    if (::tcgetattr(keeper_, &tio) == 0) {
        ::cfmakeraw(&tio);
        ::tcsetattr(keeper_, TCSANOW, &tio);
    }
    ::fcntl(master_, F_SETFL, ::fcntl(master_, F_GETFL) | O_NONBLOCK);
}

void Pty::reset_line()
{
    struct termios tio;
    if (::tcgetattr(keeper_, &tio) == 0) {
        ::cfmakeraw(&tio);
        tio.c_cflag &= ~CLOCAL;
        ::tcsetattr(keeper_, TCSANOW, &tio);
    }
}

Pty::~Pty()
{
    if (keeper_ >= 0)
        ::close(keeper_);
    if (master_ >= 0)
        ::close(master_);
}

} // namespace vexa::sim
