// vexactl: the board's command-line front end for technicians and demos.
#include <fcntl.h>
#include <unistd.h>

#include "tools/vexactl/command.h"
#include "tools/vexactl/parse.h"
#include "vexasdk/product_config.h"

namespace vexactl {

namespace {

std::map<std::string, Command> &registry()
{
    static std::map<std::string, Command> map;
    return map;
}

// vexactl's own standard output and standard error: copies of descriptors 1
// and 2 as the process got them (-1 when one was closed). Descriptors 1 and
// 2 themselves carry the library's printed text.
int g_out_fd = -1;
int g_err_fd = -1;
FILE *g_err = stderr;

// Takes vexactl's own streams apart from the library's and drops the
// library's text until route_library_text says otherwise.
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
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        if (null > STDERR_FILENO)
            ::close(null);
    }
    // With standard output closed, what the command prints cannot be
    // written: /dev/full (opened now that descriptors 1 and 2 are taken)
    // makes that a failure the exit code shows.
    FILE *out = g_out_fd >= 0 ? ::fdopen(g_out_fd, "w") : std::fopen("/dev/full", "we");
    return out ? out : stdout;
}

// With -v the library's printed text goes to vexactl's standard error, a
// line at a time so that it keeps its place among vexactl's own lines.
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

} // namespace

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

bool register_command(Command command)
{
    std::string name = command.name;
    registry().emplace(std::move(name), std::move(command));
    return true;
}

const std::map<std::string, Command> &commands() { return registry(); }

const Command &command_named(const std::string &name) { return registry().at(name); }

bool Options::has(const std::string &name) const
{
    for (auto &[given, value] : given_)
        if (given == name)
            return true;
    return false;
}

std::optional<std::string> Options::last(const std::string &name) const
{
    std::optional<std::string> found;
    for (auto &[given, value] : given_)
        if (given == name)
            found = value;
    return found;
}

std::vector<std::string> Options::all(const std::string &name) const
{
    std::vector<std::string> found;
    for (auto &[given, value] : given_)
        if (given == name)
            found.push_back(value);
    return found;
}

vexa::sim::Board &Context::board()
{
    if (!board_) {
        const std::string dir = board_dir.empty() ? vexa::sim::Board::default_root() : board_dir;
        board_ = std::make_unique<vexa::sim::Board>(vexa::sim::Board::open(dir));
    }
    return *board_;
}

void Context::load_config()
{
    board();
    if (!config_loaded_) {
        bi_init_product_config();
        config_loaded_ = true;
    }
}

const Option &Context::declared(const std::string &name, Option::Kind kind) const
{
    if (command)
        for (auto &option : command->options)
            if (option.name == name && option.kind == kind)
                return option;
    throw std::logic_error("vexactl " + (command ? command->name : std::string("?")) +
                           " asks for an option it does not declare: --" + name);
}

bool Context::flag(const std::string &name) const
{
    declared(name, Option::Kind::flag);
    return options.has(name);
}

std::optional<long long> Context::number(const std::string &name) const
{
    const Option &option = declared(name, Option::Kind::number);
    const auto given = options.last(name);
    long long value;
    if (!given || !parse_number(*given, option.min, option.max, &value))
        return std::nullopt; // the parser has refused a bad value already
    return value;
}

std::optional<std::string> Context::text(const std::string &name) const
{
    declared(name, Option::Kind::text);
    return options.last(name);
}

std::vector<std::string> Context::texts(const std::string &name) const
{
    declared(name, Option::Kind::text);
    return options.all(name);
}

} // namespace vexactl

int main(int argc, char **argv)
{
    using namespace vexactl;
    Context ctx;
    // The library prints some of its own text on standard output and
    // standard error; vexactl's output and messages go to copies of the
    // original descriptors, and the library's text only with -v.
    ctx.out = ctx.std_out = take_standard_streams();

    CommandLine line;
    if (int rc = parse_command_line(argc, argv, &line))
        return rc;
    if (line.version) {
        if (line.json)
            std::fprintf(ctx.out, "{\"version\": \"%s\"}\n", VEXASDK_VERSION);
        else
            std::fprintf(ctx.out, "vexactl (vexasdk) %s\n", VEXASDK_VERSION);
        return std::fflush(ctx.out) == 0 ? 0 : fail("cannot write standard output");
    }
    if (!line.command) {
        print_usage(line.help ? ctx.out : errors());
        std::fflush(ctx.out);
        return line.help ? 0 : 2;
    }
    if (line.help) {
        print_command_help(ctx.out, *line.command);
        return std::fflush(ctx.out) == 0 ? 0 : fail("cannot write standard output");
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
    int status;
    try {
        status = line.command->run(ctx, line.operands);
    } catch (const UsageError &e) {
        status = usage_error(*line.command, e.what());
    } catch (const std::exception &e) {
        status = fail("%s", e.what());
    }
    // A write that failed before the last flush leaves the stream's error
    // mark: that is a failure too.
    const bool out_failed = std::fflush(ctx.out) != 0 || std::ferror(ctx.out) || std::fflush(ctx.std_out) != 0 ||
                            std::ferror(ctx.std_out);
    if (out_failed && status == 0)
        status = fail("cannot write standard output");
    return status;
}
