// The FPGA model's knobs in the board's table ("fpga.KEY"): the model reads
// them whenever it needs them (FpgaModel::knobs), and `vexactl fpga knob` is
// another door to them.
#include "sim/fpga/fpga_model.h"

namespace vexa::sim {

const std::vector<FpgaKnob> &fpga_knobs()
{
    const Knob::Check ms = [](const std::string &value) {
        uint64_t ns;
        return parse_fpga_ms(value, &ns);
    };
    const Knob::Check cards = [](const std::string &value) {
        // One count for every port, or one for each of the four.
        const Knob::Check count = Knob::number(0, 64);
        if (count(value))
            return true;
        size_t commas = 0;
        for (char c : value)
            commas += c == ',';
        return commas == FpgaKnobs::kPorts - 1 && Knob::list_of(count)(value);
    };
    static const std::vector<FpgaKnob> knobs = {
        {"done", "normal|never|stuck_high", "normal", "never: the done pin never rises; stuck_high: it never falls",
         {}},
        {"spi", "ok|fail", "ok", "fail: every SPI transfer fails (EIO)", {}},
        {"spi_bufsiz", "BYTES", "53248",
         "the SPI drivers' buffer (spidev's bufsiz; 4096 on a stock kernel): longer transfers fail with EMSGSIZE",
         Knob::number(1, 1 << 24)},
        {"cards", "N|N,N,N,N", "2", "receiving cards on every port, or on ports 0-3 (0: the port's cards absent)",
         cards},
        {"silent_ports", "P,...", "", "the cards of these ports never answer", Knob::list_of(Knob::number(0, 3))},
        {"sgmii_clock", "ok|never", "ok", "never: the SGMII clock state never reaches 1", {}},
        {"negotiation", "ok|never", "ok", "never: the SGMII auto-negotiation never completes", {}},
        {"phy_link", "auto|up|down", "auto", "up or down: the PHY's link, whatever the set-up does", {}},
        {"tag_update", "ok|stuck", "ok", "stuck: an SPI update leaves the old program and its tag running", {}},
        {"source_mode", "0xNN", "0x48", "the source mode byte (0x58 'X': no source)", Knob::number(0, 255)},
        {"source", "hdmi|dvi|none", "hdmi", "which input the UDP registers call stable", {}},
        {"ddr", "good|bad|recovers", "good", "bad: the DDR never calibrates; recovers: it does after a reset", {}},
        {"status", "ok|never", "ok", "never: the link status record never shows ready", {}},
        {"net_outputs", "ok|stuck", "ok", "stuck: the Ethernet outputs never come on", {}},
        {"udp", "ok|silent", "ok", "silent: the UDP link never answers", {}},
        {"mtd_cut", "BYTES", "", "mtd_debug write stops after this many bytes, failing", Knob::number(0, 1LL << 40)},
        {"config_ms", "MS", "458",
         "configuration from the flash (Kintex-7 XC7K325T, master SPI x4 at 50 MHz)", ms},
        {"erase_ms", "MS", "150", "a 64 KiB flash block erase (Winbond W25Q128JV)", ms},
        {"page_program_ms", "MS", "0.4", "a 256-byte flash page program (Winbond W25Q128JV)", ms},
        {"negotiation_ms", "MS", "3.2", "SGMII auto-negotiation (two 1.6 ms link timer periods)", ms},
        {"card_reply_ms", "MS", "33", "a receiving card's reply to a read (the next frame at 60 Hz)", ms},
    };
    return knobs;
}

} // namespace vexa::sim

VEXA_SIM_ATTACHER(fpga_knobs)
{
    for (const vexa::sim::FpgaKnob &k : vexa::sim::fpga_knobs())
        board.add_knob({"fpga." + k.key, k.takes, k.help, k.initial, k.check});
}
