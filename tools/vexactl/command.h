// vexactl's command registry and the helpers every command shares.
//
// A command group lives in its own file and registers itself:
//   VEXACTL_COMMAND(led, {"led", "NAME on|off|get", "Switch or read a lamp", help, run_led});
// run gets the words after the command's name, with --json, --help and
// --board already taken out.
#ifndef VEXACTL_COMMAND_H
#define VEXACTL_COMMAND_H

#include <cjson/cJSON.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/board.h"

namespace vexactl {

struct Context {
    FILE *out = stdout;   // the command's own output
    bool json = false;    // --json was given
    std::string board_dir;

    // The board, attached on first use (the default board unless --board).
    vexa::sim::Board &board();
    // Loads the product record once (bi_init_product_config).
    void load_config();

private:
    std::unique_ptr<vexa::sim::Board> board_;
    bool config_loaded_ = false;
};

using Args = std::vector<std::string>;

struct Command {
    std::string name;     // first word on the command line
    std::string synopsis; // arguments, for the usage line
    std::string summary;  // one line for the command list
    std::string help;     // further text for --help (may be empty)
    std::function<int(Context &, const Args &)> run;
};

bool register_command(Command command);
const std::map<std::string, Command> &commands();

// Prints "vexactl: MESSAGE" on standard error; returns 1.
int fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Prints the message and the command's usage on standard error; returns 2.
int usage_error(const Command &command, const std::string &message);
const Command &command_named(const std::string &name);

// Parses a whole decimal integer; false for anything else.
bool parse_int(const std::string &text, long *value);

// Prints a JSON value on ctx.out and deletes it.
void print_json(Context &ctx, cJSON *item);

// A table printed as aligned columns, or with --json as an array of objects
// keyed by the column names. Cells that hold whole numbers are JSON numbers.
class Table {
public:
    explicit Table(std::vector<std::string> columns);
    void row(std::vector<std::string> cells);
    void print(Context &ctx) const;
    // The rows as a JSON array of objects (the caller owns it).
    cJSON *json() const;

private:
    std::vector<std::string> columns_;
    std::vector<std::vector<std::string>> rows_;
};

} // namespace vexactl

#define VEXACTL_COMMAND(ident, ...)                                                                \
    static const bool vexactl_registered_##ident = ::vexactl::register_command(__VA_ARGS__)

#endif
