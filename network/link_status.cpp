// Ethernet carrier, the PHY link bits behind the product's PHY state
// commands, the module-id dispatch of the link check, and the stored
// link-status word.
#include <fcntl.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "network/command_output.h"
#include "platform/android.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/unique.h"
#include "vexasdk/network.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace {

constexpr const char *kTag = "vexa_system_bi_network";
constexpr const char *kMiscTag = "vexa_system_bi_misc";
constexpr const char *kLinkProperty = "vexa.netport_link_status";
constexpr const char *kCarrier = "/sys/class/net/eth0/carrier";

struct PipeCloser {
    void operator()(FILE *f) const { vexa::os::pclose(f); }
};
using UniquePipe = std::unique_ptr<FILE, PipeCloser>;

// Which link check a module id uses.
enum class LinkCheck { Carrier, PhyMask };
struct ModuleRange {
    int32_t first, last;
    LinkCheck check;
};
const ModuleRange kModules[] = {
    {38409, 38409, LinkCheck::Carrier}, {38427, 38429, LinkCheck::Carrier},
    {38432, 38437, LinkCheck::Carrier}, {38441, 38444, LinkCheck::Carrier},
    {38448, 38449, LinkCheck::Carrier}, {38456, 38458, LinkCheck::Carrier},
    {38462, 38463, LinkCheck::Carrier}, {8454, 8454, LinkCheck::Carrier},
    {8456, 8460, LinkCheck::Carrier},   {8462, 8463, LinkCheck::Carrier},
    {8470, 8470, LinkCheck::Carrier},   {8475, 8476, LinkCheck::Carrier},
    {8478, 8478, LinkCheck::Carrier},   {8472, 8472, LinkCheck::PhyMask},
    {8474, 8474, LinkCheck::PhyMask},   {4374, 4374, LinkCheck::PhyMask},
};

} // namespace

extern "C" VEXA_API int32_t bi_set_netport_link(uint64_t value)
{
    char text[21];
    std::snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(value));
    return property_set(kLinkProperty, text);
}

extern "C" VEXA_API int32_t bi_get_netport_link(uint64_t *value)
{
    char text[PROPERTY_VALUE_MAX] = {};
    if (property_get(kLinkProperty, text, "0") < 0) {
        VEXA_LOGE(kMiscTag, "%s: %d", __func__, 67);
        return -1;
    }
    if (text[0] == '\0') {
        VEXA_LOGE(kMiscTag, "%s: %d", __func__, 73);
        return -1;
    }
    const auto word = vexa::net::link_word(text);
    if (!word) {
        VEXA_LOGE(kMiscTag, "%s: %d", __func__, 83);
        return -1;
    }
    if (value)
        *value = *word;
    return 0;
}

extern "C" VEXA_API int32_t bi_network_get_pz50_link_status(void)
{
    vexa::UniqueFd fd(vexa::os::open(kCarrier, O_RDONLY));
    if (!fd) {
        std::fprintf(stderr, "Error opening file\n");
        VEXA_LOGE(kTag, "vexa_open %s Failed", kCarrier);
        return -1;
    }
    char buf[2] = {};
    if (vexa::os::read(fd.get(), buf, 1) <= 0) {
        VEXA_LOGE(kTag, "vexa_write %s Failed", kCarrier);
        return -2;
    }
    const int state = buf[0] - '0';
    VEXA_LOGD(kTag, "buf:%s", buf);
    VEXA_LOGD(kTag, "net_state:%d", state);
    return state;
}

extern "C" VEXA_API int32_t bi_network_get_link_status_detail(const char *command)
{
    if (!command) {
        VEXA_LOGE(kTag, "command is NULL");
        return -1;
    }
    VEXA_LOGD(kTag, "%s: command = %s", __func__, command);
    UniquePipe pipe(vexa::os::popen(command, "r"));
    if (!pipe) {
        VEXA_LOGE(kTag, "Failed to run command");
        return -1;
    }
    char line[256];
    while (std::fgets(line, sizeof line, pipe.get())) {
        VEXA_LOGD(kTag, "Command result: %s", line);
        if (const auto value = vexa::net::phy_register_value(line)) {
            VEXA_LOGD(kTag, "Retrieved value: 0x%x", *value);
            return static_cast<int32_t>(*value);
        }
    }
    return 0;
}

extern "C" VEXA_API int32_t check_network_port(int32_t port)
{
    const char *command = nullptr;
    switch (port) {
    case 1:
    case 2:
        command = bi_product ? bi_product->phy_state_cmd[port - 1] : nullptr;
        break;
    case 3:
    case 4:
        break; // no command: ports 3 and 4 fail as "command is NULL"
    default:
        VEXA_LOGE(kTag, "Invalid port number: %d", port);
        return -1;
    }
    const int32_t value = bi_network_get_link_status_detail(command);
    if (value < 0) {
        VEXA_LOGE(kTag, "Error getting link status for port %d", port);
        return -1;
    }
    return (value >> 2) & 1;
}

extern "C" VEXA_API int32_t bi_network_get_phy_link_status(void)
{
    const int32_t ports = bi_product ? bi_product->phy_num : 0;
    uint32_t mask = 0;
    for (int32_t port = 1; port <= ports && port <= 32; ++port) {
        if (check_network_port(port) >= 1) {
            check_network_port(port); // asked twice, as the boards always have
            mask |= 1u << (port - 1);
        }
    }
    return static_cast<int32_t>(mask);
}

extern "C" VEXA_API int32_t bi_network_detection(void)
{
    const int32_t id = bi_product ? bi_product->mod_id : 0;
    for (const ModuleRange &m : kModules) {
        if (id >= m.first && id <= m.last)
            return m.check == LinkCheck::Carrier ? bi_network_get_pz50_link_status()
                                                 : bi_network_get_phy_link_status();
    }
    VEXA_LOGE(kTag, "%s %d default case", __func__, 197);
    return -1;
}
