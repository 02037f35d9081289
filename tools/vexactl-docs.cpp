// vexactl-docs: writes vexactl's man page and its bash completion from the
// commands' own help, when vexactl is built.
//
//   vexactl-docs man FILE              the man page, vexactl.1
//   vexactl-docs bash-completion FILE  the completion script
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tools/vexactl/command.h"
#include "tools/vexactl/parse.h"

namespace vexactl {
namespace {

// Text as roff prints it literally: a backslash is \e, a minus is \- (an
// option stays "--board" when copied from the page), and a line that would
// start with a request is guarded with \&.
std::string roff(const std::string &text)
{
    std::string out;
    bool line_start = true;
    for (char c : text) {
        if (line_start && (c == '.' || c == '\''))
            out += "\\&";
        if (c == '\\')
            out += "\\e";
        else if (c == '-')
            out += "\\-";
        else
            out += c;
        line_start = c == '\n';
    }
    return out;
}

std::string option_spelling(const Option &option)
{
    std::string text;
    if (option.short_name)
        text += "\\fB\\-" + std::string(1, option.short_name) + "\\fR, ";
    text += "\\fB" + roff("--" + option.name) + "\\fR";
    if (option.kind != Option::Kind::flag)
        text += " \\fI" + roff(option.value) + "\\fR";
    return text;
}

std::string option_help(const Option &option)
{
    std::string help = option.help;
    if (option.kind == Option::Kind::number)
        help += "; " + option.value + " is " + std::to_string(option.min) + " to " + std::to_string(option.max);
    return roff(help);
}

std::string man_page()
{
    std::ostringstream m;
    m << ".\\\" Made by vexactl-docs from vexactl's help. DO NOT EDIT.\n"
      << ".TH VEXACTL 1 \"\" \"vexasdk " << VEXASDK_VERSION << "\" \"User Commands\"\n"
      << ".SH NAME\nvexactl \\- drive the Vexa board through libvexasdk\n"
      << ".SH SYNOPSIS\n"
      << ".B vexactl\n[\\fB\\-\\-board\\fR \\fIDIR\\fR] [\\fB\\-\\-json\\fR] \\fICOMMAND\\fR "
         "[\\fIOPTIONS\\fR] [\\fIARGS\\fR...]\n.br\n"
      << ".B vexactl \\-\\-version\n"
      << ".SH DESCRIPTION\n"
      << roff(overview_text("$VEXA_BOARD, else $XDG_STATE_HOME/vexasdk/board, else\n"
                            "~/.local/state/vexasdk/board"))
      << "\n.PP\n"
      << roff("Options may stand anywhere before \"--\", which ends them; numbers are decimal unless "
              "written 0x. Every command takes --help.")
      << "\n.SH OPTIONS\nEvery command takes these:\n";
    for (const Option &option : global_options())
        m << ".TP\n" << option_spelling(option) << "\n" << option_help(option) << "\n";
    m << ".SH COMMANDS\n";
    for (auto &[name, command] : commands()) {
        m << ".SS " << roff(name) << "\n"
          << ".B vexactl " << roff(name) << "\n"
          << roff(command.synopsis) << "\n.PP\n"
          << roff(command.summary) << ".\n";
        if (!command.help.empty())
            m << ".PP\n.nf\n" << roff(command.help) << "\n.fi\n";
        if (!command.options.empty()) {
            m << ".PP\nOptions:\n.RS\n";
            for (const Option &option : command.options)
                m << ".TP\n" << option_spelling(option) << "\n" << option_help(option) << "\n";
            m << ".RE\n";
        }
    }
    m << ".SH FILES\n" << roff(files_text()) << "\n"
      << ".SH ENVIRONMENT\n"
      << ".TP\n.B VEXA_BOARD\nThe default board's directory.\n"
      << ".TP\n.B XDG_STATE_HOME\nWithout VEXA_BOARD, the default board is "
         "\\fI$XDG_STATE_HOME/vexasdk/board\\fR.\n"
      << ".TP\n.B VEXA_BOARD_HOST\nThe board's host program to start, instead of the one installed "
         "beside the library.\n"
      << ".TP\n.B VEXA_BOARD_HOST_IDLE\nThe seconds a board's host stays without use (60).\n"
      << ".SH EXIT STATUS\n"
      << ".TP\n.B 0\nThe command did what it was asked.\n"
      << ".TP\n.B 1\nThe job failed, or its output could not be written; standard error says why.\n"
      << ".TP\n.B 2\nThe command line is wrong: an unknown command or option, a bad value.\n"
      << ".SH SEE ALSO\n"
      << ".BR gpioget (1),\n.BR fw_printenv (8),\n.BR logcat (1),\n.BR edid\\-decode (1),\n"
      << ".BR stm32flash (1)\n";
    return m.str();
}

bool is_word(const std::string &text)
{
    if (text.empty() || !std::islower(static_cast<unsigned char>(text[0])))
        return false;
    for (char c : text)
        if (!std::islower(static_cast<unsigned char>(c)) && !std::isdigit(static_cast<unsigned char>(c)) &&
            c != '-')
            return false;
    return true;
}

// The words a command's first operand may be, read from its synopsis: the
// first word of each alternative ("list | get NAME | dump": list, get,
// dump; "[boot|wake on|off | ...]": boot, wake). Metavariables (NAME, PORT)
// are not words.
std::vector<std::string> first_words(const Command &command)
{
    std::set<std::string> seen;
    std::vector<std::string> words;
    std::string synopsis = command.synopsis;
    size_t start = 0;
    while (start <= synopsis.size()) {
        size_t bar = synopsis.find(" | ", start);
        size_t wide = synopsis.find("  |  ", start);
        if (wide != std::string::npos && wide <= bar)
            bar = wide;
        const std::string alternative =
            synopsis.substr(start, bar == std::string::npos ? std::string::npos : bar - start);
        std::istringstream in(alternative);
        std::string token;
        in >> token;
        if (token == command.name)
            in >> token; // "led tri ...": the alternative repeats the command
        std::string cleaned;
        for (char c : token)
            if (c != '[' && c != ']')
                cleaned += c;
        std::istringstream choices(cleaned);
        std::string choice;
        while (std::getline(choices, choice, '|'))
            if (is_word(choice) && seen.insert(choice).second)
                words.push_back(choice);
        if (bar == std::string::npos)
            break;
        start = bar + (bar == wide ? 5 : 3);
    }
    return words;
}

std::string joined(const std::vector<std::string> &words)
{
    std::string text;
    for (auto &w : words)
        text += (text.empty() ? "" : " ") + w;
    return text;
}

std::vector<std::string> spellings(const std::vector<Option> &options, bool with_value)
{
    std::vector<std::string> out;
    for (const Option &option : options) {
        if ((option.kind != Option::Kind::flag) != with_value)
            continue;
        out.push_back("--" + option.name);
        if (option.short_name)
            out.push_back(std::string("-") + option.short_name);
    }
    return out;
}

std::string bash_completion()
{
    std::vector<std::string> names, valued = spellings(global_options(), true);
    for (auto &[name, command] : commands()) {
        names.push_back(name);
        for (auto &spelling : spellings(command.options, true))
            if (std::find(valued.begin(), valued.end(), spelling) == valued.end())
                valued.push_back(spelling);
    }
    std::ostringstream b;
    b << "# bash completion for vexactl. Made by vexactl-docs from vexactl's help. DO NOT EDIT.\n"
      << "_vexactl()\n{\n"
      << "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
      << "    local i word command= operands=0 value=0 ended=0\n"
      << "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
      << "        word=${COMP_WORDS[i]}\n"
      << "        # A value, also after \"=\", which bash takes for a word of its own.\n"
      << "        if ((value)); then [[ $word == = ]] || value=0; continue; fi\n"
      << "        case $word in\n"
      << "        --) ended=1 ;;\n"
      << "        " << [&] {
             std::string alternatives;
             for (auto &v : valued)
                 alternatives += (alternatives.empty() ? "" : "|") + v;
             return alternatives;
         }() << ") ((ended)) || value=1 ;;&\n"
      << "        -*) ((ended)) || continue ;;&\n"
      << "        *) if [[ -z $command ]]; then command=$word; else ((operands++)); fi ;;\n"
      << "        esac\n"
      << "    done\n"
      << "    # The value of an option: a directory for --board, a file or nothing\n"
      << "    # else (bash then completes file names).\n"
      << "    case $prev in\n"
      << "    --board) ((ended)) || { COMPREPLY=($(compgen -d -- \"$cur\")); return; } ;;\n"
      << "    esac\n"
      << "    local options='" << joined(spellings(global_options(), false)) << " --board'\n"
      << "    local words=\n"
      << "    case $command in\n";
    for (auto &[name, command] : commands()) {
        std::vector<std::string> own = spellings(command.options, false);
        for (auto &v : spellings(command.options, true))
            own.push_back(v);
        const std::vector<std::string> words = first_words(command);
        if (own.empty() && words.empty())
            continue;
        b << "    " << name << ")";
        if (!own.empty())
            b << " options+=' " << joined(own) << "'";
        if (!words.empty())
            b << " words='" << joined(words) << "'";
        b << " ;;\n";
    }
    b << "    esac\n"
      << "    if [[ $cur == -* ]] && ((!ended)); then\n"
      << "        COMPREPLY=($(compgen -W \"$options\" -- \"$cur\"))\n"
      << "    elif [[ -z $command ]]; then\n"
      << "        COMPREPLY=($(compgen -W '" << joined(names) << "' -- \"$cur\"))\n"
      << "    elif ((operands == 0)) && [[ -n $words ]]; then\n"
      << "        COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
      << "    fi\n"
      << "}\n"
      << "complete -o default -F _vexactl vexactl\n";
    return b.str();
}

} // namespace
} // namespace vexactl

int main(int argc, char **argv)
{
    const std::string what = argc == 3 ? argv[1] : "";
    if (what != "man" && what != "bash-completion") {
        std::fprintf(stderr, "usage: vexactl-docs man|bash-completion FILE\n");
        return 2;
    }
    const std::string text = what == "man" ? vexactl::man_page() : vexactl::bash_completion();
    FILE *out = std::fopen(argv[2], "w");
    if (!out || std::fwrite(text.data(), 1, text.size(), out) != text.size() || std::fclose(out) != 0) {
        std::perror(argv[2]);
        return 1;
    }
    return 0;
}
