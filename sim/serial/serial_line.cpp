#include "sim/serial/serial_line.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace vexa::sim {

SerialLine::SerialLine(std::string board_path) : board_path_(std::move(board_path)) {}

SerialLine::~SerialLine() = default;

int SerialLine::open(const std::string &, int flags, mode_t)
{
    pty_.reset_line();
    return ::open(pty_.slave_path().c_str(), flags | O_NOCTTY | O_CLOEXEC);
}

void SerialLine::reset_line()
{
    pty_.reset_line();
}

int SerialLine::ioctl(int fd, unsigned long request, void *arg)
{
    return ::ioctl(fd, request, arg);
}

std::string SerialLine::take_output(size_t want, int wait_ms)
{
    std::string out;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
    for (;;) {
        char buf[4096];
        const ssize_t n = ::read(pty_.master(), buf, sizeof(buf));
        if (n > 0) {
            out.append(buf, static_cast<size_t>(n));
            continue;
        }
        if (out.size() >= want)
            break;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            break;
        struct pollfd pfd = {pty_.master(), POLLIN, 0};
        ::poll(&pfd, 1, static_cast<int>(left.count()));
    }
    return out;
}

void SerialLine::inject(const std::string &bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(pty_.master(), bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return;
        } else {
            struct pollfd pfd = {pty_.master(), POLLOUT, 0};
            ::poll(&pfd, 1, 100);
        }
    }
}

} // namespace vexa::sim
