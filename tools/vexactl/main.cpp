// vexactl: the board's command-line front end for technicians and demos.
#include <unistd.h>

#include <cjson/cJSON.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "tools/vexactl/command.h"
#include "vexasdk/product_config.h"

namespace vexactl {

namespace {

std::map<std::string, Command> &registry()
{
    static std::map<std::string, Command> map;
    return map;
}

void print_usage(FILE *to)
{
    std::fprintf(to,
                 "usage: vexactl [--board DIR] [--json] COMMAND [ARGS...]\n"
                 "\n"
                 "Drives the board through libvexasdk. On a host the board is a virtual\n"
                 "board: a directory that holds its files and state. Without --board,\n"
                 "the default board is used: %s\n"
                 "(set VEXA_BOARD to choose another).\n"
                 "\n"
                 "Commands:\n",
                 vexa::sim::Board::default_root().c_str());
    for (auto &[name, command] : registry())
        std::fprintf(to, "  %-14s %s\n", name.c_str(), command.summary.c_str());
    std::fprintf(to, "\n'vexactl COMMAND --help' tells more.\n");
}

void print_command_help(FILE *to, const Command &command)
{
    std::fprintf(to, "usage: vexactl [--board DIR] %s %s\n\n%s\n", command.name.c_str(),
                 command.synopsis.c_str(), command.summary.c_str());
    if (!command.help.empty())
        std::fprintf(to, "\n%s\n", command.help.c_str());
}

} // namespace

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

bool register_command(Command command)
{
    std::string name = command.name;
    registry().emplace(std::move(name), std::move(command));
    return true;
}

const std::map<std::string, Command> &commands() { return registry(); }

const Command &command_named(const std::string &name) { return registry().at(name); }

int fail(const char *fmt, ...)
{
    std::fflush(stdout);
    std::fprintf(stderr, "vexactl: ");
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
    std::fprintf(stderr, "\n");
    return 1;
}

int usage_error(const Command &command, const std::string &message)
{
    std::fprintf(stderr, "vexactl %s: %s\nusage: vexactl [--board DIR] %s %s\n", command.name.c_str(),
                 message.c_str(), command.name.c_str(), command.synopsis.c_str());
    return 2;
}

bool parse_int(const std::string &text, long *value)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0')
        return false;
    *value = v;
    return true;
}

Table::Table(std::vector<std::string> columns) : columns_(std::move(columns)) {}

void Table::row(std::vector<std::string> cells)
{
    cells.resize(columns_.size());
    rows_.push_back(std::move(cells));
}

cJSON *Table::json() const
{
    cJSON *array = cJSON_CreateArray();
    for (auto &cells : rows_) {
        cJSON *object = cJSON_CreateObject();
        for (size_t i = 0; i < columns_.size(); ++i) {
            long number;
            if (parse_int(cells[i], &number) && cells[i].find_first_of("xX") == std::string::npos)
                cJSON_AddNumberToObject(object, columns_[i].c_str(), static_cast<double>(number));
            else
                cJSON_AddStringToObject(object, columns_[i].c_str(), cells[i].c_str());
        }
        cJSON_AddItemToArray(array, object);
    }
    return array;
}

void print_json(Context &ctx, cJSON *item)
{
    char *text = cJSON_Print(item);
    std::fprintf(ctx.out, "%s\n", text);
    cJSON_free(text);
    cJSON_Delete(item);
}

void Table::print(Context &ctx) const
{
    if (ctx.json) {
        print_json(ctx, json());
        return;
    }
    std::vector<size_t> widths(columns_.size());
    for (size_t i = 0; i < columns_.size(); ++i) {
        widths[i] = columns_[i].size();
        for (auto &cells : rows_)
            widths[i] = std::max(widths[i], cells[i].size());
    }
    auto line = [&](const std::vector<std::string> &cells) {
        std::string text;
        for (size_t i = 0; i < cells.size(); ++i) {
            text += cells[i];
            if (i + 1 < cells.size())
                text += std::string(widths[i] - cells[i].size() + 2, ' ');
        }
        while (!text.empty() && text.back() == ' ')
            text.pop_back();
        std::fprintf(ctx.out, "%s\n", text.c_str());
    };
    std::vector<std::string> header;
    for (auto &c : columns_) {
        std::string upper = c;
        for (auto &ch : upper)
            ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
        header.push_back(upper);
    }
    line(header);
    for (auto &cells : rows_)
        line(cells);
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

    Args args;
    bool help = false;
    std::string name;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--json") {
            ctx.json = true;
        } else if (arg == "--help" || arg == "-h") {
            help = true;
        } else if (name.empty() && arg == "--board") {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "vexactl: --board needs a directory\n");
                return 2;
            }
            ctx.board_dir = argv[++i];
        } else if (name.empty() && arg.rfind("--board=", 0) == 0) {
            ctx.board_dir = arg.substr(8);
        } else if (name.empty() && arg.size() > 1 && arg[0] == '-') {
            std::fprintf(stderr, "vexactl: unknown option %s\n", arg.c_str());
            print_usage(stderr);
            return 2;
        } else if (name.empty()) {
            name = arg;
        } else {
            args.push_back(arg);
        }
    }
    if (name.empty()) {
        print_usage(help ? ctx.out : stderr);
        std::fflush(ctx.out);
        return help ? 0 : 2;
    }
    auto it = commands().find(name);
    if (it == commands().end()) {
        std::fprintf(stderr, "vexactl: unknown command '%s'\n", name.c_str());
        print_usage(stderr);
        return 2;
    }
    if (help) {
        print_command_help(ctx.out, it->second);
        std::fflush(ctx.out);
        return 0;
    }
    int status;
    try {
        status = it->second.run(ctx, args);
    } catch (const std::exception &e) {
        status = fail("%s", e.what());
    }
    std::fflush(ctx.out);
    return status;
}
