// vexactl's command line, on arbitrary words: the input's NUL-separated
// parts are the words after "vexactl". The parser never reads past a word,
// a line it takes has a command and numbers inside their ranges, and the
// log filter and the command suggestions take any word.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/vexactl/command.h"
#include "tools/vexactl/log_filter.h"
#include "tools/vexactl/parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<std::string> words = {"vexactl"};
    std::string word;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '\0') {
            words.push_back(word);
            word.clear();
        } else {
            word += static_cast<char>(data[i]);
        }
    }
    words.push_back(word);
    if (words.size() > 64)
        words.resize(64);

    // getopt_long may permute argv: it gets copies it owns.
    std::vector<std::vector<char>> storage;
    for (auto &w : words)
        storage.emplace_back(w.c_str(), w.c_str() + w.size() + 1);
    std::vector<char *> argv;
    for (auto &s : storage)
        argv.push_back(s.data());
    argv.push_back(nullptr);

    vexactl::CommandLine line;
    if (vexactl::parse_command_line(static_cast<int>(words.size()), argv.data(), &line) == 0 && !line.help &&
        !line.version && line.command == nullptr && words.size() > 1 && !words[1].empty())
        std::abort(); // a line taken without a command to run

    vexactl::LogFilter filter;
    for (auto &w : words) {
        filter.add(w);
        filter.passes(w, 4);
        if (w.size() <= 64) // a mistyped command, not a paragraph
            vexactl::nearest_commands(w);
        long long value = 0;
        if (vexactl::parse_number(w, -1000, 1000, &value) && (value < -1000 || value > 1000))
            std::abort();
    }
    return 0;
}
