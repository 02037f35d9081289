// vexactl: the board's command-line front end for technicians and demos.
#include <cerrno>
#include <cstring>

#include "tools/vexactl/command.h"
#include "tools/vexactl/parse.h"
#include "tools/vexactl/streams.h"

namespace {

// Parses the line and runs what it asks for; the exit code.
int run(vexactl::Context &ctx, int argc, char **argv)
{
    using namespace vexactl;
    CommandLine line;
    if (int rc = parse_command_line(argc, argv, &line))
        return rc;
    if (line.version) {
        if (line.json)
            std::fprintf(ctx.out, "{\"version\": \"%s\"}\n", VEXASDK_VERSION);
        else
            std::fprintf(ctx.out, "vexactl (vexasdk) %s\n", VEXASDK_VERSION);
        return 0;
    }
    if (!line.command) {
        print_usage(line.help ? ctx.out : errors());
        return line.help ? 0 : 2;
    }
    if (line.help) {
        print_command_help(ctx.out, *line.command);
        return 0;
    }
    route_library_text(line.verbose);
    ctx.json = line.json;
    ctx.quiet = line.quiet;
    ctx.verbose = line.verbose;
    if (ctx.quiet) {
        if (FILE *sink = std::fopen("/dev/null", "we"))
            ctx.out = sink;
    }
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

// Whether everything written to stream reached it; errno_out says why not
// (0 when no reason is known).
bool delivered(FILE *stream, int *errno_out)
{
    errno = 0;
    const bool flushed = std::fflush(stream) == 0;
    if (!flushed)
        *errno_out = errno;
    return flushed && !std::ferror(stream);
}

} // namespace

int main(int argc, char **argv)
{
    using namespace vexactl;
    Context ctx;
    // The library prints some of its own text on standard output and
    // standard error; vexactl's output and messages go to copies of the
    // original descriptors, and the library's text only with -v.
    ctx.out = ctx.std_out = take_standard_streams();

    int status = run(ctx, argc, argv);
    // Output that did not reach standard output fails the command, as for
    // any tool: a closed descriptor, a full disk, a reader that left.
    int error = 0;
    const bool out_ok = delivered(ctx.out, &error);
    const bool std_out_ok = ctx.std_out == ctx.out || delivered(ctx.std_out, &error);
    if ((!out_ok || !std_out_ok) && status == 0)
        status = error != 0 ? fail("cannot write standard output: %s", std::strerror(error))
                            : fail("cannot write standard output");
    return status;
}
