// The one option parser of vexactl: getopt_long over the global options and
// those the command declares.
#include "tools/vexactl/parse.h"

#include <getopt.h>

#include <algorithm>
#include <cstring>

namespace vexactl {

namespace {

bool takes_value(const Option &option) { return option.kind != Option::Kind::flag; }

// Whether an option written before the command's name takes the next word as
// its value: the first pass, which finds that name, knows every command's
// options. A long option may be abbreviated, as getopt_long allows.
bool long_takes_value(const std::string &written)
{
    const size_t eq = written.find('=');
    if (eq != std::string::npos)
        return false;
    int with = 0, without = 0;
    auto consider = [&](const Option &option) {
        if (option.name == written) {
            with += takes_value(option) ? 1000 : 0;
            without += takes_value(option) ? 0 : 1000;
        } else if (option.name.compare(0, written.size(), written) == 0) {
            ++(takes_value(option) ? with : without);
        }
    };
    for (auto &option : global_options())
        consider(option);
    for (auto &[name, command] : commands())
        for (auto &option : command.options)
            consider(option);
    return with > without;
}

bool short_takes_value(char c)
{
    for (auto &option : global_options())
        if (option.short_name == c)
            return takes_value(option);
    for (auto &[name, command] : commands())
        for (auto &option : command.options)
            if (option.short_name == c)
                return takes_value(option);
    return false;
}

// The index of the command's name in argv, or argc when there is none.
int find_command(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        const char *arg = argv[i];
        if (std::strcmp(arg, "--") == 0)
            return i + 1 < argc ? i + 1 : argc;
        if (arg[0] != '-' || arg[1] == '\0')
            return i;
        if (arg[1] == '-') {
            if (long_takes_value(arg + 2))
                ++i;
            continue;
        }
        for (const char *c = arg + 1; *c; ++c) {
            if (short_takes_value(*c)) {
                if (c[1] == '\0')
                    ++i;
                break;
            }
        }
    }
    return argc;
}

std::string spelled(const Option &option)
{
    return "--" + option.name;
}

// Text broken at blanks into lines of at most 79 characters.
std::string wrapped(const std::string &text)
{
    std::string out;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(start, end - start);
        while (line.size() > 79) {
            size_t cut = line.rfind(' ', 79);
            if (cut == std::string::npos || cut == 0)
                break;
            out += line.substr(0, cut) + "\n";
            line = line.substr(cut + 1);
        }
        out += line;
        if (end < text.size())
            out += "\n";
        start = end + 1;
    }
    return out;
}

// The edits that turn a into b: inserting, deleting or changing a character,
// or swapping two neighbours (the optimal string alignment distance).
size_t edit_distance(const std::string &a, const std::string &b)
{
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i)
        d[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j)
        d[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + change});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}

std::string range_text(const Option &option)
{
    return "a number from " + std::to_string(option.min) + " to " + std::to_string(option.max);
}

} // namespace

const std::vector<Option> &global_options()
{
    static const std::vector<Option> options = {
        text("board", "DIR", "the virtual board to act on (laid out on first use)"),
        flag("json", "print tables and records as one JSON document"),
        flag("quiet", "print nothing but errors").letter('q'),
        flag("verbose", "show the library's own printed text (on standard error)").letter('v'),
        flag("help", "print this help and exit").letter('h'),
        flag("version", "print the version and exit"),
    };
    return options;
}

std::string overview_text(const std::string &default_board)
{
    return "Drives the board through libvexasdk. On a host the board is a virtual\n"
           "board: a directory that holds its files and state. Without --board,\n"
           "the default board is used: " +
           default_board +
           "\n"
           "(set VEXA_BOARD to choose another). A board directory that does not\n"
           "exist yet is laid out, and a line on standard error says so.";
}

std::string files_text()
{
    return "Every FILE, DIR or ARCHIVE argument is a path of this machine, relative to\n"
           "the working directory ('-': standard input or output). The board is a\n"
           "directory here, so its files lie under it (BOARD/vendor/etc/mcu/mcu_fw.bin).\n"
           "An absolute path that this machine lacks (its directory, for a file to\n"
           "write) is the board's when the board has it: /vendor/etc/mcu/mcu_fw.bin,\n"
           "/syslog/logs, /sdcard/logs.tgz.";
}

Option flag(std::string name, std::string help)
{
    Option option;
    option.name = std::move(name);
    option.help = std::move(help);
    return option;
}

Option number(std::string name, std::string value, long long min, long long max, std::string help)
{
    Option option;
    option.name = std::move(name);
    option.kind = Option::Kind::number;
    option.value = std::move(value);
    option.min = min;
    option.max = max;
    option.help = std::move(help);
    return option;
}

Option text(std::string name, std::string value, std::string help)
{
    Option option;
    option.name = std::move(name);
    option.kind = Option::Kind::text;
    option.value = std::move(value);
    option.help = std::move(help);
    return option;
}

std::string usage_line(const Command &command)
{
    std::string line = "usage: vexactl [--board DIR] [--json] " + command.name;
    if (!command.synopsis.empty())
        line += " " + command.synopsis;
    return line;
}

void print_command_help(FILE *to, const Command &command)
{
    std::fprintf(to, "%s\n\n%s\n", usage_line(command).c_str(), command.summary.c_str());
    if (!command.help.empty())
        std::fprintf(to, "\n%s\n", wrapped(command.help).c_str());
    std::vector<std::pair<std::string, std::string>> rows;
    auto add = [&](const Option &option) {
        std::string left = option.short_name ? std::string("-") + option.short_name + ", " : "";
        left += spelled(option);
        if (takes_value(option))
            left += " " + option.value;
        std::string right = option.help;
        if (option.kind == Option::Kind::number)
            right += "; " + option.value + " is " + std::to_string(option.min) + " to " + std::to_string(option.max);
        rows.emplace_back(left, right);
    };
    for (auto &option : command.options)
        add(option);
    for (auto &option : global_options())
        add(option);
    size_t width = 0;
    for (auto &[left, right] : rows)
        width = std::max(width, left.size());
    std::fprintf(to, "\nOptions:\n");
    for (auto &[left, right] : rows)
        std::fprintf(to, "  %-*s  %s\n", static_cast<int>(width), left.c_str(), right.c_str());
    std::fprintf(to, "\nOptions may stand anywhere before \"--\"; numbers are decimal unless written 0x.\n");
}

void print_usage(FILE *to)
{
    std::fprintf(to,
                 "usage: vexactl [--board DIR] [--json] COMMAND [OPTIONS] [ARGS...]\n"
                 "       vexactl --version\n"
                 "\n"
                 "%s\n"
                 "\n"
                 "Commands:\n",
                 overview_text(vexa::sim::Board::default_root()).c_str());
    for (auto &[name, command] : commands())
        std::fprintf(to, "  %-14s %s\n", name.c_str(), command.summary.c_str());
    std::fprintf(to, "\nFiles:\n%s\n", files_text().c_str());
    std::fprintf(to, "\n'vexactl COMMAND --help' tells more.\n");
}

std::vector<std::string> nearest_commands(const std::string &word)
{
    // The one command the word begins (2 letters at least: "fact" is
    // factory-reset).
    std::vector<std::string> found;
    if (word.size() >= 2)
        for (auto &[name, command] : commands())
            if (name.compare(0, word.size(), word) == 0)
                found.push_back(name);
    if (found.size() == 1)
        return found;
    // Else those fewest edits away, a slip of the fingers: one edit in a
    // short word, one in three in a longer one.
    found.clear();
    const size_t most = std::max<size_t>(1, word.size() / 3);
    size_t best = most;
    for (auto &[name, command] : commands()) {
        const size_t distance = edit_distance(word, name);
        if (distance > most)
            continue;
        if (distance < best) {
            best = distance;
            found.clear();
        }
        if (distance == best)
            found.push_back(name);
    }
    return found;
}

int parse_command_line(int argc, char **argv, CommandLine *line)
{
    const int at = find_command(argc, argv);
    std::string prefix = "vexactl";
    if (at < argc) {
        auto it = commands().find(argv[at]);
        if (it == commands().end()) {
            const std::vector<std::string> near = nearest_commands(argv[at]);
            std::string guess;
            for (size_t i = 0; i < near.size(); ++i)
                guess += (i == 0 ? "" : i + 1 == near.size() ? " or " : ", ") + ("'" + near[i] + "'");
            std::fprintf(errors(), "vexactl: unknown command '%s'%s\n'vexactl --help' lists the commands.\n",
                         argv[at], near.empty() ? "" : ("; did you mean " + guess + "?").c_str());
            return 2;
        }
        line->command = &it->second;
        prefix += " " + line->command->name;
    }
    auto bad_line = [&](const std::string &message) {
        std::fprintf(errors(), "%s: %s\n", prefix.c_str(), message.c_str());
        if (line->command)
            std::fprintf(errors(), "%s\n", usage_line(*line->command).c_str());
        else
            std::fprintf(errors(), "usage: vexactl [--board DIR] [--json] COMMAND [OPTIONS] [ARGS...]\n");
        return 2;
    };

    // The table getopt_long works from: the global options, then the
    // command's. An option's code is 256 plus its place in `all`, or its
    // letter.
    std::vector<const Option *> all;
    for (auto &option : global_options())
        all.push_back(&option);
    if (line->command)
        for (auto &option : line->command->options)
            all.push_back(&option);
    std::vector<struct option> table;
    std::string shorts = "-:"; // operands in order; ':' for a missing value
    for (size_t i = 0; i < all.size(); ++i) {
        const int has_arg = takes_value(*all[i]) ? required_argument : no_argument;
        table.push_back({all[i]->name.c_str(), has_arg, nullptr, static_cast<int>(256 + i)});
        if (all[i]->short_name) {
            shorts += all[i]->short_name;
            if (has_arg == required_argument)
                shorts += ':';
        }
    }
    table.push_back({nullptr, 0, nullptr, 0});
    auto by_code = [&](int code) -> const Option * {
        if (code >= 256 && code < 256 + static_cast<int>(all.size()))
            return all[static_cast<size_t>(code - 256)];
        for (auto *option : all)
            if (option->short_name == code)
                return option;
        return nullptr;
    };

    opterr = 0;
    optind = 0; // a full start, as glibc wants for a second parse
    bool took_name = false;
    auto operand = [&](char *word) {
        if (at < argc && word == argv[at] && !took_name)
            took_name = true;
        else
            line->operands.push_back(word);
    };
    int code;
    while ((code = getopt_long(argc, argv, shorts.c_str(), table.data(), nullptr)) != -1) {
        const char *written = argv[optind - 1];
        if (code == 1) {
            operand(optarg);
            continue;
        }
        if (code == '?') {
            if (optopt > 0 && optopt < 256)
                return bad_line(std::string("unknown option '-") + static_cast<char>(optopt) + "'");
            const std::string word = written;
            const size_t eq = word.find('=');
            if (eq != std::string::npos) {
                // A flag given a value, or an unknown option with one.
                const std::string name = word.substr(2, eq - 2);
                for (auto *option : all)
                    if (option->name == name)
                        return bad_line(spelled(*option) + " takes no value");
                return bad_line("unknown option '" + word.substr(0, eq) + "'");
            }
            for (auto *option : all)
                if (word.size() > 2 && option->name.compare(0, word.size() - 2, word.substr(2)) == 0)
                    return bad_line("option '" + word + "' is ambiguous");
            return bad_line("unknown option '" + word + "'");
        }
        if (code == ':') {
            const Option *option = by_code(optopt);
            if (!option)
                for (auto *o : all)
                    if (spelled(*o).compare(0, std::strlen(written), written) == 0)
                        option = o;
            return bad_line((option ? spelled(*option) : std::string(written)) + " needs a value" +
                            (option ? " (" + option->value + ")" : ""));
        }
        const Option *option = by_code(code);
        if (!option)
            return bad_line(std::string("unknown option '") + written + "'");
        const std::string value = optarg ? optarg : "";
        if (option->kind == Option::Kind::number) {
            long long parsed;
            if (!parse_number(value, option->min, option->max, &parsed))
                return bad_line(spelled(*option) + " takes " + range_text(*option) + ", not '" + value + "'");
        }
        if (option == all[0]) {
            line->board_dir = value;
        } else if (option == all[1]) {
            line->json = true;
        } else if (option == all[2]) {
            line->quiet = true;
        } else if (option == all[3]) {
            line->verbose = true;
        } else if (option == all[4]) {
            line->help = true;
        } else if (option == all[5]) {
            line->version = true;
        } else {
            line->options.add(option->name, value);
        }
    }
    // After "--": every word is an operand.
    for (int i = optind; i < argc; ++i)
        operand(argv[i]);
    if (line->quiet && line->verbose)
        return bad_line("--quiet and --verbose do not go together");
    return 0;
}

} // namespace vexactl
