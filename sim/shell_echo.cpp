// The shell's echo on the board: "echo WORDS" prints them; "echo WORDS > PATH"
// and ">> PATH" write them to a board file, whose watchers (models that
// follow lines and registers kept as files) then see the new contents.
#include <fcntl.h>

#include "sim/board.h"
#include "sim/state.h"

namespace vexa::sim {
namespace {

// The words (quotes taken off) and, for "> PATH" or ">> PATH", where they go.
struct Echo {
    std::string text;
    std::string path; // empty: standard output
    bool append = false;
};

Echo parse_echo(const std::vector<std::string> &argv)
{
    Echo echo;
    for (size_t i = 1; i < argv.size(); ++i) {
        if ((argv[i] == ">" || argv[i] == ">>") && i + 1 < argv.size()) {
            echo.append = argv[i] == ">>";
            echo.path = argv[i + 1];
            break;
        }
        std::string word = argv[i];
        if (word.size() >= 2 && (word.front() == '"' || word.front() == '\'') && word.back() == word.front())
            word = word.substr(1, word.size() - 2);
        echo.text += (echo.text.empty() ? "" : " ") + word;
    }
    return echo;
}

} // namespace
} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_ATTACHER(shell_echo)
{
    auto state = attached();
    std::weak_ptr<Board::State> weak = state;
    board.on_command("echo", [weak](const std::vector<std::string> &argv,
                                    const std::string &) -> CommandResult {
        auto s = weak.lock();
        const Echo echo = parse_echo(argv);
        if (echo.path.empty())
            return {0, echo.text + "\n"};
        if (!s || echo.path.rfind("/", 0) != 0)
            return {1 << 8, ""};
        std::shared_ptr<DeviceModel> model;
        {
            std::lock_guard<std::mutex> lock(s->mu);
            if (auto it = s->models.find(echo.path); it != s->models.end())
                model = it->second;
        }
        if (model) {
            // A node with a model (a sysfs attribute) takes the write as its
            // driver does, or refuses it: "echo: write error: Invalid argument".
            const int fd = model->open(s->folder(), echo.path, O_WRONLY | (echo.append ? O_APPEND : O_TRUNC), 0);
            if (fd < 0)
                return {1 << 8, ""};
            const std::string line = echo.text + "\n";
            const ssize_t n = model->write(fd, line.data(), line.size());
            model->close(fd);
            if (n != ssize_t(line.size()))
                return {1 << 8, ""};
        } else if (s->folder().write(echo.path, echo.text + "\n", echo.append) != 0) {
            return {1 << 8, ""};
        }
        file_written(*s, echo.path);
        return {};
    });
}
