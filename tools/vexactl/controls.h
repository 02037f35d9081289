// The lamps, relays, switches and inputs of the product record, as
// 'vexactl status' lists them and the board's view draws them.
#ifndef VEXACTL_CONTROLS_H
#define VEXACTL_CONTROLS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vexactl {

enum class Kind { led, relay, switch_line, fan, input };

// "led", "relay", "switch", "fan" or "input".
const char *kind_name(Kind kind);

using SetFn = int32_t (*)(int32_t);
using GetFn = int32_t (*)();

// A line of the product record that a lamp, relay or switch drives, with
// the library calls that drive and read it.
struct Control {
    const char *name;  // the INI key, as status prints it
    const char *alias; // a short name, or null
    Kind kind;
    size_t entry;      // offset of the GPIO entry in bi_product
    SetFn set;         // null: an input, or part of the tri-colour lamp
    GetFn get;
};

// Every control, in the order status lists them.
const std::vector<Control> &controls();

// The control's line id in the loaded product record (-1: unset).
int32_t line_id(const Control &control);

} // namespace vexactl

#endif
