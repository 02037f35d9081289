#include "sim/serial/serial_line.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace vexa::sim {

namespace {

// Reads what a blocking descriptor holds now, without waiting.
ssize_t read_now(int fd, void *buf, size_t count)
{
    struct pollfd pfd = {fd, POLLIN, 0};
    if (::poll(&pfd, 1, 0) <= 0 || !(pfd.revents & POLLIN))
        return 0;
    return ::read(fd, buf, count);
}

} // namespace

SerialLine::SerialLine(std::string board_path, bool far_end) : board_path_(std::move(board_path))
{
    if (far_end)
        far_ = std::make_unique<Pty>();
}

SerialLine::~SerialLine() = default;

int SerialLine::open(const Folder &, const std::string &, int flags, mode_t)
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
    // A plain line's bytes come out at its far end (a raw, non-blocking
    // read of the far end's slave); the MCU line's at its master.
    const int fd = far_ ? far_->keeper() : pty_.master();
    std::string out;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
    for (;;) {
        char buf[4096];
        const ssize_t n = far_ ? read_now(fd, buf, sizeof buf) : ::read(fd, buf, sizeof(buf));
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
        struct pollfd pfd = {fd, POLLIN, 0};
        ::poll(&pfd, 1, static_cast<int>(left.count()));
    }
    return out;
}

void SerialLine::inject(const std::string &bytes)
{
    write_all(far_ ? far_->keeper() : pty_.master(), bytes);
}

void SerialLine::emit(const std::string &bytes)
{
    write_all(pty_.keeper(), bytes);
}

void SerialLine::write_all(int fd, const std::string &bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return;
        } else {
            struct pollfd pfd = {fd, POLLOUT, 0};
            ::poll(&pfd, 1, 100);
        }
    }
}

} // namespace vexa::sim
