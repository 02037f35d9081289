// The FPGA model's knobs in the board's table ("fpga.KEY"): the model reads
// them whenever it needs them (FpgaModel::knobs), and `vexactl fpga knob` is
// another door to them.
#include "sim/fpga/fpga_model.h"

namespace {

struct FpgaKnob {
    const char *key;
    const char *initial;
    const char *help;
    vexa::sim::Knob::Check check;
};

} // namespace

VEXA_SIM_ATTACHER(fpga_knobs)
{
    using vexa::sim::Knob;
    const FpgaKnob knobs[] = {
        {"done", "normal", "never: the done pin never rises; stuck_high: it never falls", {}},
        {"spi", "ok", "fail: every SPI transfer fails (EIO)", {}},
        {"cards", "2", "receiving cards on each port (0: none answers)", Knob::number(0, 64)},
        {"silent_ports", "", "the cards of these ports never answer", Knob::list_of(Knob::number(0, 3))},
        {"sgmii_clock", "ok", "never: the SGMII clock state never reaches 1", {}},
        {"negotiation", "ok", "never: the PHY's auto-negotiation never completes", {}},
        {"phy_link", "auto", "up or down: the PHY's link text, whatever the link does", {}},
        {"tag_update", "ok", "stuck: an update leaves the old program and its tag running", {}},
        {"source_mode", "0x48", "the source mode byte (0x58 'X': no source)", Knob::number(0, 255)},
        {"source", "hdmi", "which input the UDP registers call stable", {}},
        {"ddr", "good", "bad: the DDR never calibrates; recovers: it does after a reset", {}},
        {"status", "ok", "never: the link status record never shows ready", {}},
        {"net_outputs", "ok", "stuck: the Ethernet outputs never come on", {}},
        {"udp", "ok", "silent: the UDP link never answers", {}},
        {"mtd_cut", "", "mtd_debug write stops after this many bytes, failing", Knob::number(0, 1LL << 40)},
    };
    for (const auto &[key, values] : vexa::sim::fpga_knob_keys()) {
        for (const FpgaKnob &k : knobs) {
            if (key != k.key)
                continue;
            board.add_knob({std::string("fpga.") + key, values, k.help, k.initial, k.check});
        }
    }
}
