// Bounded waits on the MCU's serial line.
#include "mcu/serial_wait.h"

#include <poll.h>

#include <cerrno>

#include "platform/os.h"

namespace vexa::mcu {

int wait_readable(int fd, int timeout_ms)
{
    struct pollfd pfd = {fd, POLLIN, 0};
    for (;;) {
        const int ready = vexa::os::poll(&pfd, 1, timeout_ms < 0 ? 0 : timeout_ms);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0)
            return -1;
        return ready > 0 ? 1 : 0;
    }
}

long read_for(int fd, uint8_t *buf, size_t want, size_t cap, int timeout_ms)
{
    const uint64_t deadline = vexa::os::monotonic_ns() + static_cast<uint64_t>(timeout_ms) * 1000000u;
    size_t got = 0;
    bool failed_first = false;
    while (got < want && got < cap) {
        const uint64_t now = vexa::os::monotonic_ns();
        if (now >= deadline)
            break;
        const int left_ms = static_cast<int>((deadline - now + 999999u) / 1000000u);
        const int ready = wait_readable(fd, left_ms);
        if (ready <= 0)
            break;
        const ssize_t n = vexa::os::read(fd, buf + got, cap - got);
        if (n < 0) {
            if (got == 0)
                failed_first = true;
            break;
        }
        if (n == 0)
            break; // readable but empty: a hung-up line, nothing more comes
        failed_first = false;
        got += static_cast<size_t>(n);
    }
    // Take what else is already waiting, without waiting for more.
    while (got < cap && wait_readable(fd, 0) == 1) {
        const ssize_t n = vexa::os::read(fd, buf + got, cap - got);
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    if (failed_first && got == 0)
        return -1;
    return static_cast<long>(got);
}

} // namespace vexa::mcu
