// vexactl: the board's command-line front end for technicians and demos.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/vexactl/command.h"
#include "tools/vexactl/parse.h"

namespace {

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

// Parses the line and runs what it asks for; the exit code.
int run(vexactl::Context &ctx, int argc, char **argv)
{
    using namespace vexactl;
    CommandLine line;
    if (int rc = parse_command_line(argc, argv, &line))
        return rc;
    if (line.version) {
        std::fprintf(ctx.out, "vexactl (vexasdk) %s\n", VEXASDK_VERSION);
        return 0;
    }
    if (!line.command) {
        print_usage(line.help ? ctx.out : stderr);
        return line.help ? 0 : 2;
    }
    if (line.help) {
        print_command_help(ctx.out, *line.command);
        return 0;
    }
    ctx.json = line.json;
    ctx.board_dir = line.board_dir;
    ctx.command = line.command;
    ctx.options = line.options;
    try {
        return line.command->run(ctx, line.operands);
    } catch (const UsageError &e) {
        return usage_error(*line.command, e.what());
    } catch (const std::exception &e) {
        return fail("%s", e.what());
    }
}

} // namespace

int main(int argc, char **argv)
{
    vexactl::Context ctx;
    // The library prints some of its chatter on standard output; keep that
    // apart from vexactl's own output, which goes to the original descriptor.
    // Descriptor 1 then carries standard error, so that no file the board
    // opens takes its place when standard output was closed.
    const int out_fd = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    ctx.out = out_fd >= 0 ? ::fdopen(out_fd, "w") : closed_output();
    std::fflush(stdout);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);

    int status = run(ctx, argc, argv);
    // Output that did not reach standard output fails the command, as for
    // any tool: a closed descriptor, a full disk, a reader that left.
    errno = 0;
    const bool flushed = std::fflush(ctx.out) == 0;
    const int error = errno;
    const bool failed = !flushed || std::ferror(ctx.out);
    if (std::fclose(ctx.out) != 0 || failed) {
        if (status == 0)
            status = error != 0 ? vexactl::fail("cannot write standard output: %s", std::strerror(error))
                                : vexactl::fail("cannot write standard output");
    }
    return status;
}
