// vexactl's command line, parsed once for every command.
#ifndef VEXACTL_PARSE_H
#define VEXACTL_PARSE_H

#include <string>
#include <vector>

#include "tools/vexactl/command.h"

namespace vexactl {

struct CommandLine {
    const Command *command = nullptr; // null when the line names none
    Args operands;                    // the words after the command's name that are not options
    Options options;                  // the command's own options
    std::string board_dir;            // --board
    bool json = false;                // --json
    bool quiet = false;               // --quiet, -q
    bool verbose = false;             // --verbose, -v
    bool help = false;                // --help, -h
    bool version = false;             // --version
};

// Parses argv with getopt_long against the global options and those of the
// command named on the line. Returns 0, or 2 after printing what is wrong
// with the line on standard error.
int parse_command_line(int argc, char **argv, CommandLine *line);

// The options every command takes (--board, --json, --help, --version).
const std::vector<Option> &global_options();

// What the top of 'vexactl --help' says of the board and of file arguments,
// wrapped; default_board is where the default board lives.
std::string overview_text(const std::string &default_board);
std::string files_text();

// The commands a mistyped word most likely meant, in the registry's order:
// the one command it begins, or those fewest edits away (at most one edit in
// three letters); none when nothing is near.
std::vector<std::string> nearest_commands(const std::string &word);

// The usage line of a command, and its whole --help text.
std::string usage_line(const Command &command);
void print_command_help(FILE *to, const Command &command);
void print_usage(FILE *to);

} // namespace vexactl

#endif
