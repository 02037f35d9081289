// The board's network: interfaces with their state and IPv4 address, the
// Wi-Fi access point's channel, the FORWARD chain of the packet filter, and
// the PHYs behind the product's PHY state commands.
//
//   ROOT/.board/network   "IFACE up|down ADDRESS/PREFIX|- MAC" a line
//   ROOT/.board/iptables  the FORWARD chain, "TARGET PROT SOURCE DESTINATION" a rule
//   ROOT/.board/network.conf  ap_channel=N
// An interface's cable is its file /sys/class/net/IFACE/carrier ("1" or "0",
// which set_carrier writes), unless the knob network.link_down names it. A
// read of the file through the board is the kernel's: the cable's level
// while the interface is up, EINVAL while it is administratively down; a
// write is refused (EINVAL). A PHY's link is its interface's carrier. The commands ifconfig,
// ip, iw, iptables and /vendor/bin/phytool (with the filters of a pipeline
// after them) are answered from this state, and ifconfig and iptables change
// it.
#ifndef VEXA_SIM_NETWORK_MODEL_H
#define VEXA_SIM_NETWORK_MODEL_H

#include <optional>
#include <string>
#include <vector>

#include "sim/board.h"

namespace vexa::sim {

struct NetInterface {
    std::string name;
    bool up = false;
    std::string address; // "A.B.C.D/PREFIX", empty when none
    std::string mac;
};

std::vector<NetInterface> net_interfaces(const Board &board);
std::optional<NetInterface> net_interface(const Board &board, const std::string &name);
// Adds or replaces an interface.
void set_net_interface(const Board &board, const NetInterface &iface);
// Removes an interface (a Wi-Fi radio that is off).
void remove_net_interface(const Board &board, const std::string &name);
// Sets an interface's carrier file.
void set_carrier(const Board &board, const std::string &name, bool link);
// The FORWARD chain's rules, "TARGET PROT SOURCE DESTINATION" each.
std::vector<std::string> forward_rules(const Board &board);

} // namespace vexa::sim

#endif
