// vexactl's command registry, its one option parser and the helpers every
// command shares.
//
// A command group lives in its own file (cmd_<group>.cpp) and registers each
// command with VEXACTL_COMMAND:
//
//   int run_resolution(Context &ctx, const Args &args);
//   VEXACTL_COMMAND(resolution, {"resolution", "set W H [--fps F] [--save] | get | list",
//                                "Set, read back or list the output resolution",
//                                "further text for --help (may be empty)",
//                                run_resolution,
//                                {number("fps", "F", 1, 240, "the refresh rate in Hz"),
//                                 flag("save", "keep the resolution for the next boot")}});
//
// How a command declares its options. The last member of Command lists them:
//   flag("NAME", HELP)                       --NAME, given or not
//   number("NAME", "N", MIN, MAX, HELP)      --NAME N, a number from MIN to MAX
//   text("NAME", "VALUE", HELP)              --NAME VALUE, any text
// and .letter('c') gives one a short form (-c). A command without the member
// takes no options of its own. The parser (getopt_long) takes them anywhere
// on the line before "--" ("--" ends the options; the words after it are
// operands even when they begin with '-'), as --NAME VALUE or --NAME=VALUE.
// It refuses an option the command does not declare, a value the option's
// kind does not take and a number outside the declared range, with a message
// and exit code 2, before run is called. Numbers are decimal unless written
// with 0x (hexadecimal): "010" is ten.
//
// Every command also takes the global options --board DIR, --json, --quiet
// (-q), --verbose (-v), --help (-h) and --version; --help prints the
// command's usage, its options and its help text without running it.
//
// run gets the operands (the words that are not options), in order, and
// reads its options from the context: ctx.flag("save"),
// ctx.number("fps") (empty when not given; already range-checked),
// ctx.text("engine"), ctx.texts("tag") (every value of a repeated option).
//
// Operands are parsed with the helpers below: number_operand() and
// one_of() throw UsageError, which ends the command with its message and
// usage and exit code 2. Failures of the board or the library go through
// fail(): "vexactl: MESSAGE" on standard error and exit code 1. A job that
// did not happen is a failure, whatever the library returned: a command
// checks what it can see of the result (the file written, the entries left,
// the state read back) before it reports success.
//
// Output: plain text on ctx.out, or with --json (ctx.json) one JSON document
// and nothing else on standard output. Table and print_json keep types: a
// cell made from a number is a JSON number, one made from text is a JSON
// string even when it reads like a number ("0777" stays "0777"). Across
// commands one set of types holds: numbers are numbers (the module id too),
// flags are true or false, a missing value is null, a unit goes in the
// field's name ("temperature_c", "size_mb"), never in the value, and reals
// are rounded to what the quantity means (Cell::real, rounded()).
//
// Standard error is vexactl's own: write messages to errors() (fail() and
// say() do), never to stderr. The library's printed text (what it writes to
// standard output and standard error itself) is dropped unless -v is given,
// and then goes to vexactl's standard error; what the library logs reaches
// the board's log either way. -q (ctx.quiet) silences everything but
// errors: ctx.out is then a sink, say() and the progress bar print nothing;
// a file written to "-" (write_output) still goes to standard output.
// Jobs longer than a second show the progress bar of progress.h.
//
// File arguments are paths of the host, "-" standard input or output, and
// absolute paths the host lacks but the board has are the board's
// (input_file, output_file, read_input, write_output).
#ifndef VEXACTL_COMMAND_H
#define VEXACTL_COMMAND_H

#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "sim/board.h"

namespace vexactl {

// One option a command declares (see the top of this file).
struct Option {
    enum class Kind { flag, number, text };
    std::string name;    // the long form, without the dashes
    Kind kind = Kind::flag;
    std::string value;   // the value's name in the usage ("N", "FILE")
    std::string help;    // one line for --help
    long long min = 0;   // the range of a number
    long long max = 0;
    char short_name = 0; // the short form (-c), or 0

    Option letter(char c) const
    {
        Option copy = *this;
        copy.short_name = c;
        return copy;
    }
};

Option flag(std::string name, std::string help);
Option number(std::string name, std::string value, long long min, long long max, std::string help);
Option text(std::string name, std::string value, std::string help);

struct Command;

// What the parser found for the options of one run.
class Options {
public:
    void add(const std::string &name, std::string value) { given_.emplace_back(name, std::move(value)); }
    bool has(const std::string &name) const;
    // The last value given, or none.
    std::optional<std::string> last(const std::string &name) const;
    std::vector<std::string> all(const std::string &name) const;

private:
    std::vector<std::pair<std::string, std::string>> given_;
};

class Context {
public:
    FILE *out = stdout;   // the command's own output (standard output; a sink under -q)
    FILE *std_out = stdout; // standard output itself, for a file written to "-"
    bool json = false;    // --json was given
    bool quiet = false;   // -q: nothing but errors
    bool verbose = false; // -v: the library's printed text on standard error
    std::string board_dir;
    const Command *command = nullptr; // the command being run
    Options options;      // the command's own options, as given

    // The board, attached on first use (the default board unless --board).
    vexa::sim::Board &board();
    // The board's directory, without attaching it.
    std::string board_root() const;
    // Loads the product record once (bi_init_product_config).
    void load_config();

    // The command's options. Asking for a name the command does not declare
    // is a programming error (std::logic_error).
    bool flag(const std::string &name) const;
    std::optional<long long> number(const std::string &name) const;
    std::optional<std::string> text(const std::string &name) const;
    std::vector<std::string> texts(const std::string &name) const;

private:
    const Option &declared(const std::string &name, Option::Kind kind) const;
    std::unique_ptr<vexa::sim::Board> board_;
    bool config_loaded_ = false;
};

using Args = std::vector<std::string>;

struct Command {
    std::string name;     // first word on the command line
    std::string synopsis; // operands and options, for the usage line
    std::string summary;  // one line for the command list
    std::string help;     // further text for --help (may be empty)
    std::function<int(Context &, const Args &)> run;
    std::vector<Option> options = {}; // the command's own options
};

bool register_command(Command command);
const std::map<std::string, Command> &commands();
const Command &command_named(const std::string &name);

// A bad command line: the message, then the command's usage, exit code 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// vexactl's standard error. The process's own standard error (stderr) is
// where the library's printed text goes.
FILE *errors();
// Points standard output and standard error back at vexactl's own, for a
// program it runs in its place (exec).
void restore_standard_streams();

// Prints "vexactl: MESSAGE" on standard error; returns 1.
int fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Prints MESSAGE and a newline on standard error unless -q was given: what a
// command tells while it works ("telling the tools to stop (2 s)...").
void say(const Context &ctx, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// Prints "vexactl COMMAND: MESSAGE" and the command's usage on standard
// error; returns 2.
int usage_error(const Command &command, const std::string &message);

// Parses a whole number: decimal, or hexadecimal after 0x or 0X, with an
// optional '-'. Leading zeros are decimal ("010" is ten). False for anything
// else, for values outside [min, max] and for overflow.
bool parse_number(const std::string &text, long long min, long long max, long long *value);
// The same for operands: throws UsageError "WHAT is a number from MIN to
// MAX, not 'TEXT'".
long long number_operand(const std::string &text, const std::string &what, long long min, long long max);
// The index of text in choices; throws UsageError "WHAT is one of A, B or C,
// not 'TEXT'".
size_t one_of(const std::string &text, const std::string &what, const std::vector<std::string> &choices);

// Where a file argument lies. Every FILE, DIR or ARCHIVE is a path of the
// host (the machine vexactl runs on), relative to the working directory, and
// "-" is standard input or output; the board is a directory of the host, so
// its files are host paths too. An absolute path the host lacks (for a file
// to write: whose directory it lacks) is the board's when the board has it
// (/vendor/etc/mcu/mcu_fw.bin, /syslog/logs). files_text() in parse.h says
// so in the help.
struct FileArg {
    enum class Where { standard, host, board };
    Where where = Where::host;
    std::string path; // a path of the host, or of the board
    // The path on the board: a board path as it is, a host path inside the
    // board's directory as the board names it; empty for anything else.
    std::string board_path;
};
// A file or directory to read.
FileArg input_file(Context &ctx, const std::string &arg);
// A file to write.
FileArg output_file(Context &ctx, const std::string &arg);

// Reads a whole file argument (input_file), or standard input for "-". False
// (and "vexactl: cannot read PATH: REASON" on standard error) on failure.
bool read_input(Context &ctx, const std::string &arg, std::string *bytes);
// Writes bytes to a file argument (output_file), or to the command's output
// for "-".
bool write_output(Context &ctx, const std::string &arg, const std::string &bytes);

// The error records (priority E) this process logs under a tag from now on:
// how a command learns that a job the library reports as done failed, where
// the library's only report is its log (a tar that failed).
class ErrorWatch {
public:
    ErrorWatch(vexa::sim::Board &board, std::string tag);
    // The records logged since the watch began, oldest first.
    std::vector<vexa::sim::LogRecord> seen() const;

private:
    vexa::sim::Board &board_;
    std::string tag_;
};

// Prints a JSON value on ctx.out and deletes it.
void print_json(Context &ctx, cJSON *item);

// value rounded to the given number of decimals (a reading of 11.999999046
// volts is 12.0 at 2 decimals).
double rounded(double value, int decimals);
// A whole number as a JSON number with all its digits, also past 2^53 (a
// 64-bit word), which a double would round.
cJSON *exact_number(unsigned long long value);

// One cell of a table: text, a whole number, a real, a truth value or
// nothing (printed as "-", null in JSON). A number may be shown in
// hexadecimal in the text table (Cell::hex) and stays a number in JSON; a
// truth value may be shown as two words of its own ("on"/"off") and stays
// true or false in JSON.
class Cell {
public:
    Cell(const char *text) : kind_(Kind::text), text_(text ? text : "") {}
    Cell(std::string text) : kind_(Kind::text), text_(std::move(text)) {}
    template <typename T, typename = std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>>
    Cell(T value) : kind_(Kind::number), number_(static_cast<long long>(value)), text_(std::to_string(value))
    {
    }
    static Cell truth(bool value, const char *yes = "yes", const char *no = "no");
    // A real rounded to `decimals`, shown with that many.
    static Cell real(double value, int decimals);
    static Cell hex(unsigned long long value, int digits);
    static Cell none();

    const std::string &shown() const { return text_; }
    cJSON *json() const;

private:
    enum class Kind { text, number, real, truth, none };
    Cell(Kind kind, std::string shown) : kind_(kind), text_(std::move(shown)) {}
    Kind kind_;
    long long number_ = 0;
    double real_ = 0;
    std::string text_;
};

// A table printed as aligned columns under upper-case headings, or with
// --json as an array of objects keyed by the column names.
class Table {
public:
    explicit Table(std::vector<std::string> columns);
    void row(std::vector<Cell> cells);
    void print(Context &ctx) const;
    // The rows as a JSON array of objects (the caller owns it).
    cJSON *json() const;

private:
    std::vector<std::string> columns_;
    std::vector<std::vector<Cell>> rows_;
};

} // namespace vexactl

#define VEXACTL_COMMAND(ident, ...)                                                                \
    static const bool vexactl_registered_##ident = ::vexactl::register_command(__VA_ARGS__)

#endif
