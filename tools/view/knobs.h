// The board's fault knobs as the view shows and sets them: the board's one
// table of MODEL.KNOB, its value and a line of help.
#ifndef VEXA_VIEW_KNOBS_H
#define VEXA_VIEW_KNOBS_H

#include <string>
#include <vector>

#include "sim/board.h"

namespace vexa::view {

struct Knob {
    std::string name;                 // "fpga.done"
    std::string value;                // the value in force ("" for an empty list)
    bool set = false;                 // set on this board (not its initial value)
    std::string takes;                // the values it takes, for people
    std::string help;                 // what a value does
    std::vector<std::string> choices; // the values, when they are a fixed set of words
};

std::vector<Knob> read_knobs(const vexa::sim::Board &board);

// Sets a knob ("" clears it). 0; 404 when the board has no knob of the name;
// 400 when the knob does not take the value; 503 when the board's host did
// not answer (error says why).
int set_knob(const vexa::sim::Board &board, const std::string &name, const std::string &value, std::string *error);

} // namespace vexa::view

#endif
