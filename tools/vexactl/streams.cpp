// vexactl's own standard output and standard error, kept apart from the
// library's printed text.
#include "tools/vexactl/streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tools/vexactl/command.h"

namespace vexactl {
namespace {

// vexactl's own standard output and standard error: copies of descriptors 1
// and 2 as the process got them (-1 when one was closed). Descriptors 1 and
// 2 themselves carry the library's printed text.
int g_out_fd = -1;
int g_err_fd = -1;
FILE *g_err = stderr;

// The command's output when vexactl was started with standard output
// closed: every write fails, as it would on the closed descriptor.
FILE *closed_output()
{
    cookie_io_functions_t io{};
    io.write = [](void *, const char *, size_t) -> ssize_t {
        errno = EBADF;
        return -1;
    };
    return ::fopencookie(nullptr, "w", io);
}

} // namespace

FILE *take_standard_streams()
{
    std::fflush(stdout);
    std::fflush(stderr);
    g_out_fd = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    g_err_fd = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (g_err_fd >= 0) {
        if (FILE *err = ::fdopen(g_err_fd, "w")) {
            std::setvbuf(err, nullptr, _IONBF, 0);
            g_err = err;
        }
    }
    // With standard output closed, what the command prints cannot be
    // written, and that fails the command.
    FILE *out = g_out_fd >= 0 ? ::fdopen(g_out_fd, "w") : closed_output();
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        if (null > STDERR_FILENO)
            ::close(null);
    }
    return out ? out : stdout;
}

void route_library_text(bool verbose)
{
    if (!verbose || g_err_fd < 0)
        return;
    std::fflush(stdout);
    std::fflush(stderr);
    ::dup2(g_err_fd, STDOUT_FILENO);
    ::dup2(g_err_fd, STDERR_FILENO);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

FILE *errors() { return g_err; }

void restore_standard_streams()
{
    std::fflush(stdout);
    std::fflush(stderr);
    if (g_out_fd >= 0)
        ::dup2(g_out_fd, STDOUT_FILENO);
    if (g_err_fd >= 0)
        ::dup2(g_err_fd, STDERR_FILENO);
}

} // namespace vexactl
