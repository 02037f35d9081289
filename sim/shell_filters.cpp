#include "sim/shell_filters.h"

#include <cstdlib>
#include <sstream>

namespace vexa::sim {
namespace {

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

std::vector<std::string> fields(const std::string &line)
{
    std::vector<std::string> out;
    std::istringstream in(line);
    std::string word;
    while (in >> word)
        out.push_back(word);
    return out;
}

std::optional<std::string> grep(const std::string &input, const std::vector<std::string> &argv)
{
    size_t after = 0;
    std::string pattern;
    for (size_t i = 1; i < argv.size(); ++i) {
        if (argv[i] == "-A" && i + 1 < argv.size())
            after = std::strtoul(argv[++i].c_str(), nullptr, 10);
        else if (pattern.empty())
            pattern = argv[i];
        else
            return std::nullopt;
    }
    std::string out;
    const auto lines = lines_of(input);
    size_t keep = 0;
    for (const auto &line : lines) {
        if (line.find(pattern) != std::string::npos)
            keep = after + 1;
        if (keep > 0) {
            out += line + "\n";
            --keep;
        }
    }
    return out;
}

std::optional<std::string> awk(const std::string &input, const std::vector<std::string> &argv)
{
    if (argv.size() != 2)
        return std::nullopt;
    std::string program;
    for (char c : argv[1])
        if (c != ' ')
            program += c;
    bool newline = true;
    std::string rest;
    if (program.rfind("{print$", 0) == 0) {
        rest = program.substr(7);
    } else if (program.rfind("{printf$", 0) == 0) {
        rest = program.substr(8);
        newline = false;
    } else {
        return std::nullopt;
    }
    if (rest.empty() || rest.back() != '}')
        return std::nullopt;
    const long n = std::strtol(rest.c_str(), nullptr, 10);
    std::string out;
    for (const auto &line : lines_of(input)) {
        const auto f = fields(line);
        const std::string value = n == 0 ? line : (n <= static_cast<long>(f.size()) ? f[n - 1] : "");
        out += value + (newline ? "\n" : "");
    }
    return out;
}

std::optional<std::string> cut(const std::string &input, const std::vector<std::string> &argv)
{
    char delim = '\t';
    long field = 0;
    for (size_t i = 1; i < argv.size(); ++i) {
        if (argv[i].rfind("-d", 0) == 0 && argv[i].size() == 3)
            delim = argv[i][2];
        else if (argv[i].rfind("-f", 0) == 0)
            field = std::strtol(argv[i].c_str() + 2, nullptr, 10);
        else
            return std::nullopt;
    }
    if (field < 1)
        return std::nullopt;
    std::string out;
    for (const auto &line : lines_of(input)) {
        if (line.find(delim) == std::string::npos) {
            out += line + "\n";
            continue;
        }
        std::istringstream in(line);
        std::string piece;
        for (long i = 0; i < field && std::getline(in, piece, delim); ++i) {
        }
        out += piece + "\n";
    }
    return out;
}

std::optional<std::string> head(const std::string &input, const std::vector<std::string> &argv)
{
    size_t n = 10;
    if (argv.size() == 3 && argv[1] == "-n")
        n = std::strtoul(argv[2].c_str(), nullptr, 10);
    else if (argv.size() != 1)
        return std::nullopt;
    std::string out;
    const auto lines = lines_of(input);
    for (size_t i = 0; i < lines.size() && i < n; ++i)
        out += lines[i] + "\n";
    return out;
}

} // namespace

std::vector<std::vector<std::string>> split_pipeline(const std::string &command)
{
    std::vector<std::vector<std::string>> stages(1);
    std::string word;
    bool in_word = false;
    char quote = 0;
    auto end_word = [&] {
        if (in_word)
            stages.back().push_back(word);
        word.clear();
        in_word = false;
    };
    for (char c : command) {
        if (quote) {
            if (c == quote)
                quote = 0;
            else
                word += c;
        } else if (c == '\'' || c == '"') {
            quote = c;
            in_word = true;
        } else if (c == '|') {
            end_word();
            stages.emplace_back();
        } else if (c == ' ' || c == '\t' || c == '\n') {
            end_word();
        } else {
            word += c;
            in_word = true;
        }
    }
    end_word();
    return stages;
}

std::optional<std::string> run_filters(const std::string &input,
                                       const std::vector<std::vector<std::string>> &stages)
{
    std::string text = input;
    for (size_t i = 1; i < stages.size(); ++i) {
        const auto &argv = stages[i];
        if (argv.empty())
            return std::nullopt;
        std::optional<std::string> out;
        if (argv[0] == "grep")
            out = grep(text, argv);
        else if (argv[0] == "awk")
            out = awk(text, argv);
        else if (argv[0] == "cut")
            out = cut(text, argv);
        else if (argv[0] == "head")
            out = head(text, argv);
        if (!out)
            return std::nullopt;
        text = *out;
    }
    return text;
}

} // namespace vexa::sim
