// The board's fault knobs as the view shows and sets them: MODEL.KNOB, its
// value and a line of help.
#ifndef VEXA_VIEW_KNOBS_H
#define VEXA_VIEW_KNOBS_H

#include <string>
#include <vector>

#include "sim/board.h"

namespace vexa::view {

struct Knob {
    std::string name;                 // "fpga.done"
    std::string value;                // "" when not set (the model's default holds)
    std::string help;                 // the values it takes
    std::vector<std::string> choices; // the values, when they are a fixed set
};

std::vector<Knob> read_knobs(const vexa::sim::Board &board);

// Sets a knob ("" clears it). 0; 404 when no knob has the name; 400 when the
// value is not one the knob takes (error says why).
int set_knob(const vexa::sim::Board &board, const std::string &name, const std::string &value, std::string *error);

} // namespace vexa::view

#endif
