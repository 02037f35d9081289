// The knobs of the FPGA model, kept in its settings file.
#include "tools/view/knobs.h"

#include <sstream>

#include "sim/fpga/fpga_model.h"

namespace vexa::view {
namespace {

constexpr const char *kFile = "/.board/fpga.conf";

// What each knob of the FPGA model does.
const std::pair<const char *, const char *> kHelp[] = {
    {"done", "the done pin never rises, or never falls"},
    {"spi", "every SPI transfer fails (EIO)"},
    {"cards", "receiving cards on each port (0: none answers)"},
    {"silent_ports", "the cards of these ports never answer"},
    {"sgmii_clock", "the SGMII clock state never reaches 1"},
    {"negotiation", "auto-negotiation never completes"},
    {"phy_link", "forces the PHY's link text"},
    {"tag_update", "an update leaves the old program and tag"},
    {"source_mode", "the source mode byte (0x58: no source)"},
    {"source", "which input the UDP registers call stable"},
    {"ddr", "bad: never calibrates; recovers: after a reset"},
    {"status", "the link status record never shows ready"},
    {"net_outputs", "the Ethernet outputs never come on"},
    {"udp", "the UDP link never answers"},
    {"mtd_cut", "mtd_debug write stops after N bytes, failing"},
};
constexpr const char *kModel = "fpga.";

std::vector<std::string> split(const std::string &text, char by)
{
    std::vector<std::string> parts;
    std::istringstream in(text);
    std::string part;
    while (std::getline(in, part, by))
        parts.push_back(part);
    return parts;
}

bool digits(const std::string &text, bool hex)
{
    if (text.empty())
        return false;
    for (char c : text)
        if (!(c >= '0' && c <= '9') && !(hex && ((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))))
            return false;
    return true;
}

// Whether value is one that a knob described by `values` takes
// ("normal|never|stuck_high", "N", "BYTES", "0xNN", "P,P,...").
bool takes(const std::string &values, const std::string &value)
{
    if (values.find('|') != std::string::npos) {
        for (const std::string &choice : split(values, '|'))
            if (choice == value)
                return true;
        return false;
    }
    if (values == "0xNN")
        return value.size() == 4 && value.compare(0, 2, "0x") == 0 && digits(value.substr(2), true);
    if (values == "P,P,...") {
        for (const std::string &port : split(value, ','))
            if (!digits(port, false) || port.size() > 3)
                return false;
        return true;
    }
    return digits(value, false) && value.size() <= 12;
}

std::vector<std::string> file_lines(const vexa::sim::Board &board)
{
    return board.exists(kFile) ? split(board.read_file(kFile), '\n') : std::vector<std::string>{};
}

} // namespace

std::vector<Knob> read_knobs(const vexa::sim::Board &board)
{
    const std::vector<std::string> lines = file_lines(board);
    std::vector<Knob> knobs;
    for (const auto &[key, values] : vexa::sim::fpga_knob_keys()) {
        Knob knob;
        knob.name = kModel + key;
        knob.help = values;
        for (auto &[name, help] : kHelp)
            if (key == name)
                knob.help = values + ": " + help;
        if (values.find('|') != std::string::npos)
            knob.choices = split(values, '|');
        for (const std::string &line : lines)
            if (line.compare(0, key.size() + 1, key + "=") == 0)
                knob.value = line.substr(key.size() + 1);
        knobs.push_back(std::move(knob));
    }
    return knobs;
}

int set_knob(const vexa::sim::Board &board, const std::string &name, const std::string &value, std::string *error)
{
    const std::string *values = nullptr;
    std::string key;
    for (const auto &[k, v] : vexa::sim::fpga_knob_keys())
        if (name == kModel + k) {
            key = k;
            values = &v;
        }
    if (!values) {
        *error = "no knob is named " + name;
        return 404;
    }
    if (!value.empty() && !takes(*values, value)) {
        *error = name + " takes " + *values + ", not '" + value + "'";
        return 400;
    }
    std::string text;
    for (const std::string &line : file_lines(board))
        if (line.compare(0, key.size() + 1, key + "=") != 0)
            text += line + "\n";
    if (!value.empty())
        text += key + "=" + value + "\n";
    board.write_file(kFile, text);
    return 0;
}

} // namespace vexa::view
