// What the network queries make of their commands' output, on arbitrary
// bytes: the input's NUL-separated parts are what `iw`, `ip`, `ifconfig` and
// a PHY state command print. The board's own pipeline filters (grep, awk,
// cut) run over them as a shell's would; the queries must never read past
// what they got or copy more than their records hold.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "nul_parts.h"
#include "sim/board.h"
#include "vexasdk/network.h"
#include "vexasdk/product_config.h"

namespace {

std::vector<std::string> g_parts(4);

vexa::sim::CommandHandler prints(size_t part)
{
    return [part](const std::vector<std::string> &, const std::string &) {
        return vexa::sim::CommandResult{0, g_parts[part]};
    };
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = [] {
        auto b = vexa::sim::Board::Builder().build();
        b.on_command("iw", prints(0));
        b.on_command("ip", prints(1));
        b.on_command("ifconfig", prints(2));
        b.on_command("phystate", prints(3));
        bi_init_product_config();
        return b;
    }();
    g_parts = vexa::fuzz::nul_parts(data, size, g_parts.size());

    bi_network_get_ap_channel();
    bi_ip_address_t record;
    std::memset(&record, 0x5a, sizeof record);
    if (bi_network_get_ip_address("wlan0", &record) == 0 &&
        (strnlen(record.ip, sizeof record.ip) == sizeof record.ip ||
         strnlen(record.name, sizeof record.name) == sizeof record.name))
        std::abort(); // an address copied without its end
    bi_network_get_ap_state();
    bi_network_get_sta_state();
    const int32_t value = bi_network_get_link_status_detail("phystate 0x1d");
    if (value > 0 && g_parts[3].find("value") == std::string::npos)
        std::abort(); // a register value read from a line without one
    board.clear_log();
    board.clear_commands();
    return 0;
}
