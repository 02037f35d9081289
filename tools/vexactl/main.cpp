// vexactl: the board's command-line front end for technicians and demos.
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

} // namespace

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
    // The library prints some of its chatter on standard output; keep that
    // apart from vexactl's own output, which goes to the original descriptor.
    const int out_fd = ::dup(STDOUT_FILENO);
    ctx.out = out_fd >= 0 ? ::fdopen(out_fd, "w") : stdout;
    std::fflush(stdout);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);

    CommandLine line;
    if (int rc = parse_command_line(argc, argv, &line))
        return rc;
    if (line.version) {
        std::fprintf(ctx.out, "vexactl (vexasdk) %s\n", VEXASDK_VERSION);
        std::fflush(ctx.out);
        return 0;
    }
    if (!line.command) {
        print_usage(line.help ? ctx.out : stderr);
        std::fflush(ctx.out);
        return line.help ? 0 : 2;
    }
    if (line.help) {
        print_command_help(ctx.out, *line.command);
        std::fflush(ctx.out);
        return 0;
    }
    ctx.json = line.json;
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
    if (std::fflush(ctx.out) != 0 && status == 0)
        status = fail("cannot write standard output");
    return status;
}
