#include "tools/view/knobs.h"

#include <cerrno>
#include <cstring>
#include <sstream>

namespace vexa::view {

std::vector<Knob> read_knobs(const vexa::sim::Board &board)
{
    std::vector<Knob> knobs;
    for (const auto &row : board.knobs()) {
        Knob knob;
        knob.name = row.name;
        knob.value = row.value;
        knob.set = row.set;
        knob.takes = row.takes;
        knob.help = row.help;
        // "ok|silent|nack": a choice of words; anything else is typed.
        if (row.takes.find('|') != std::string::npos &&
            row.takes.find_first_of(",.@ ") == std::string::npos) {
            std::istringstream in(row.takes);
            std::string word;
            while (std::getline(in, word, '|'))
                knob.choices.push_back(word);
        }
        knobs.push_back(std::move(knob));
    }
    return knobs;
}

int set_knob(const vexa::sim::Board &board, const std::string &name, const std::string &value, std::string *error)
{
    if (board.set_knobs({{name, value}}) == 0)
        return 0;
    const int code = errno;
    if (code == ENOENT) {
        *error = "the board has no knob " + name;
        return 404;
    }
    if (code == EINVAL) {
        std::string takes;
        for (const auto &row : board.knobs())
            if (row.name == name)
                takes = row.takes;
        *error = name + " takes " + takes + ", not '" + value + "'";
        return 400;
    }
    *error = std::string("the board's host did not take the knob: ") + std::strerror(code);
    return 503;
}

} // namespace vexa::view
