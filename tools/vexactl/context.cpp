// vexactl's command registry and the context a command runs in.
#include <filesystem>

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

std::string Context::board_root() const
{
    return board_dir.empty() ? vexa::sim::Board::default_root() : board_dir;
}

vexa::sim::Board &Context::board()
{
    if (!board_) {
        const std::string dir = board_root();
        // A mistyped --board would otherwise lay out a new board unnoticed.
        std::error_code ec;
        if (!std::filesystem::exists(dir + "/.board", ec)) {
            if (!std::filesystem::exists(dir, ec))
                say(*this, "vexactl: %s does not exist: laying out a new board there", dir.c_str());
            else if (std::filesystem::is_directory(dir, ec) && std::filesystem::is_empty(dir, ec))
                say(*this, "vexactl: %s is empty: laying out a new board there", dir.c_str());
        }
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
