// Network status and the self-test: net, selftest.
#include <cstring>
#include <string>

#include "tools/vexactl/command.h"
#include "vexasdk/network.h"
#include "vexasdk/selftest.h"

namespace vexactl {
namespace {

int run_net(Context &ctx, const Args &args)
{
    const Command &command = command_named("net");
    ctx.load_config();
    if (!args.empty()) {
        if (args.size() != 2 || args[0] != "isolation" || (args[1] != "on" && args[1] != "off"))
            return usage_error(command, "expected isolation on|off");
        const int32_t rc = bi_network_set_ap_insulation(args[1] == "on" ? 1 : 0);
        return rc != 0 ? fail("changing the isolation failed (%d); see 'vexactl log'", rc) : 0;
    }
    const int32_t carrier = bi_network_get_pz50_link_status();
    const int32_t phy = bi_network_get_phy_link_status();
    const int32_t ap = bi_network_get_ap_state();
    const int32_t channel = ap == 0 ? bi_network_get_ap_channel() : -1;
    const int32_t sta = bi_network_get_sta_state();
    const int32_t isolation = bi_network_get_ap_insulation();
    uint64_t word = 0;
    const bool have_word = bi_get_netport_link(&word) == 0;
    Table addresses({"interface", "address"});
    for (const char *name : {"eth0", "eth1", "wlan0", "wlan1"}) {
        bi_ip_address_t rec{};
        addresses.row({name, bi_network_get_ip_address(name, &rec) == 0 ? rec.ip : "-"});
    }
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddNumberToObject(item, "carrier", carrier);
        cJSON_AddNumberToObject(item, "phy_link_mask", phy);
        cJSON_AddBoolToObject(item, "ap", ap == 0);
        cJSON_AddNumberToObject(item, "ap_channel", channel);
        cJSON_AddBoolToObject(item, "station", sta == 0);
        cJSON_AddNumberToObject(item, "isolation", isolation);
        // Text: a 64-bit word does not fit a JSON number exactly.
        cJSON_AddStringToObject(item, "link_word", have_word ? std::to_string(word).c_str() : "");
        cJSON_AddItemToObject(item, "addresses", addresses.json());
        print_json(ctx, item);
        return 0;
    }
    std::fprintf(ctx.out, "eth0 carrier:  %s\n", carrier == 1 ? "up" : (carrier == 0 ? "down" : "unknown"));
    std::fprintf(ctx.out, "phy link mask: 0x%x\n", static_cast<unsigned>(phy));
    std::fprintf(ctx.out, "access point:  %s", ap == 0 ? "wlan1" : "none");
    if (ap == 0)
        std::fprintf(ctx.out, ", channel %d", channel);
    std::fprintf(ctx.out, "\nstation:       %s\n", sta == 0 ? "wlan0" : "none");
    std::fprintf(ctx.out, "isolation:     %s\n", isolation == 1 ? "on" : (isolation == 0 ? "off" : "unknown"));
    std::fprintf(ctx.out, "link word:     %s\n\n", have_word ? std::to_string(word).c_str() : "unreadable");
    addresses.print(ctx);
    return 0;
}

VEXACTL_COMMAND(net, {"net", "[isolation on|off]",
                      "Show the network's links, Wi-Fi and addresses, or switch the access point's isolation",
                      "", run_net});

int run_selftest(Context &ctx, const Args &args)
{
    if (!args.empty())
        return usage_error(command_named("selftest"), "takes no arguments");
    ctx.board();
    if (parseConfigInfo() != 0)
        return fail("cannot load the update configuration; see 'vexactl log'");
    if (parseAndConfigTestItem() < 0)
        return fail("no self_test_items in the product INI; see 'vexactl log'");
    uint8_t reply[600] = {};
    const int32_t n = runSelfTestAndGetResult(reply, sizeof reply);
    if (n < 10)
        return fail("the self-test could not run; see 'vexactl log'");
    const std::string text(reinterpret_cast<char *>(reply + 10), static_cast<size_t>(n - 10));
    Table t({"item", "result"});
    bool any_error = reply[8] == 1;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find("\r\n", at);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = text.substr(at, end - at);
        const size_t colon = line.find(':');
        const std::string value = colon == std::string::npos ? "" : line.substr(colon + 1);
        any_error = any_error || value == "Error";
        t.row({line.substr(0, colon), value});
        at = end + 2;
    }
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddItemToObject(item, "items", t.json());
        cJSON_AddStringToObject(item, "verdict", any_error ? "fail" : "pass");
        print_json(ctx, item);
    } else {
        t.print(ctx);
        std::fprintf(ctx.out, "\nverdict: %s\n", any_error ? "FAIL" : "PASS");
    }
    return any_error ? 1 : 0;
}

VEXACTL_COMMAND(selftest, {"selftest", "",
                           "Run the self-test items of the product INI; exit status 1 when one failed",
                           "Results also go to /sdcard/self_test_results.txt on the board.", run_selftest});

} // namespace
} // namespace vexactl
