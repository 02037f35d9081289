// Judging the output of the network commands: pure functions over text, so
// that they can be tested and fuzzed without a board.
#ifndef VEXA_NETWORK_COMMAND_OUTPUT_H
#define VEXA_NETWORK_COMMAND_OUTPUT_H

#include <optional>

namespace vexa::net {

// The value of a PHY state command's register line,
// "read phy addr: 0x1d  reg: 0x1f04   value : 0x<hex>"; nothing for another line.
std::optional<unsigned> phy_register_value(const char *line);

// True when a line of "iptables -nL FORWARD --line-number" is the rule that
// drops the access point's clients' traffic ("DROP", "all", "192.168.41.0/24").
bool isolation_rule(const char *line);

// The link-status word's property text: only a whole decimal number of at
// most 20 digits that fits 64 bits.
std::optional<unsigned long long> link_word(const char *text);

} // namespace vexa::net

#endif
