// Network status and the self-test: net, selftest.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

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
        const int32_t want = args[1] == "on" ? 1 : 0;
        const int32_t rc = bi_network_set_ap_insulation(want);
        if (rc != 0)
            return fail("changing the isolation failed (%d); see 'vexactl log'", rc);
        // The library takes any iptables run that exited for done: the state
        // read back says whether the rule changed.
        const int32_t now = bi_network_get_ap_insulation();
        if (now != want)
            return fail("the access point's isolation is %s, not %s: iptables did not change it; see 'vexactl log'",
                        now == 1 ? "on" : now == 0 ? "off" : "unreadable", args[1].c_str());
        return 0;
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
        addresses.row({name, bi_network_get_ip_address(name, &rec) == 0 ? Cell(rec.ip) : Cell::none()});
    }
    if (ctx.json) {
        // Flags are true or false, null when they cannot be read.
        auto flag = [](int32_t value) {
            return value == 1 ? cJSON_CreateTrue() : value == 0 ? cJSON_CreateFalse() : cJSON_CreateNull();
        };
        cJSON *item = cJSON_CreateObject();
        cJSON_AddItemToObject(item, "carrier", flag(carrier));
        if (phy >= 0)
            cJSON_AddNumberToObject(item, "phy_link_mask", phy);
        else
            cJSON_AddNullToObject(item, "phy_link_mask");
        cJSON_AddBoolToObject(item, "ap", ap == 0);
        if (ap == 0 && channel >= 0)
            cJSON_AddNumberToObject(item, "ap_channel", channel);
        else
            cJSON_AddNullToObject(item, "ap_channel");
        cJSON_AddBoolToObject(item, "station", sta == 0);
        cJSON_AddItemToObject(item, "isolation", flag(isolation));
        cJSON_AddItemToObject(item, "link_word", have_word ? exact_number(word) : cJSON_CreateNull());
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

// The numbers of self_test_items that name no test item (1 to 12): the
// library skips them.
std::vector<std::string> unknown_items(const std::string &items)
{
    std::vector<std::string> unknown;
    size_t at = 0;
    while (at <= items.size()) {
        size_t end = items.find('-', at);
        if (end == std::string::npos)
            end = items.size();
        const std::string word = items.substr(at, end - at);
        long long id;
        if (!word.empty() && (!parse_number(word, 1, 12, &id)))
            unknown.push_back(word);
        at = end + 1;
    }
    return unknown;
}

std::string joined(const std::vector<std::string> &words)
{
    std::string text;
    for (size_t i = 0; i < words.size(); ++i)
        text += (i == 0 ? "" : i + 1 == words.size() ? " and " : ", ") + words[i];
    return text;
}

// A measured value ("45.00°C") as a number when it ends in its unit.
cJSON *measured(const std::string &value, const std::string &unit)
{
    char *end = nullptr;
    const double number = std::strtod(value.c_str(), &end);
    if (end == value.c_str() || std::string(end) != unit)
        return cJSON_CreateNull();
    return cJSON_CreateNumber(rounded(number, 2));
}

// One result line as a JSON record: whether it passed, and the measured
// value with its unit in the field's name.
cJSON *item_json(const std::string &name, const std::string &value)
{
    cJSON *item = cJSON_CreateObject();
    cJSON_AddStringToObject(item, "item", name.c_str());
    const bool error = value == "Error";
    cJSON_AddBoolToObject(item, "ok", !error);
    if (name == "ARM-Temperature") {
        cJSON_AddItemToObject(item, "temperature_c", measured(value, "\u00b0C"));
    } else if (name == "Available-Memory") {
        cJSON_AddItemToObject(item, "available_gib", measured(value, "G"));
    } else if (name == "CPU-Usage-Rate") {
        cJSON_AddItemToObject(item, "usage_percent", measured(value, "%"));
    } else if (name == "Resolution") {
        if (error)
            cJSON_AddNullToObject(item, "mode");
        else
            cJSON_AddStringToObject(item, "mode", value.c_str());
    } else if (name == "Display-Interface-Switch") {
        if (error) {
            cJSON_AddNullToObject(item, "enabled");
        } else {
            cJSON_AddBoolToObject(item, "enabled", value == "enabled");
            const size_t open = value.find('<');
            if (open != std::string::npos && value.back() == '>')
                cJSON_AddStringToObject(item, "video_state", value.substr(open + 1, value.size() - open - 2).c_str());
        }
    }
    return item;
}

int run_selftest(Context &ctx, const Args &args)
{
    if (!args.empty())
        return usage_error(command_named("selftest"), "takes no arguments");
    ctx.board();
    if (parseConfigInfo() != 0)
        return fail("cannot load the update configuration; see 'vexactl log'");
    if (parseAndConfigTestItem() < 0)
        return fail("no self_test_items in the product INI; see 'vexactl log'");
    const std::string items = config_info->self_test_items;
    const std::vector<std::string> unknown = unknown_items(items);
    uint8_t reply[600] = {};
    const int32_t n = runSelfTestAndGetResult(reply, sizeof reply);
    if (n < 10)
        return fail("the self-test could not run; see 'vexactl log'");
    const std::string text(reinterpret_cast<char *>(reply + 10), static_cast<size_t>(n - 10));
    Table t({"item", "result"});
    cJSON *records = cJSON_CreateArray();
    bool any_error = reply[8] == 1;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find("\r\n", at);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = text.substr(at, end - at);
        const size_t colon = line.find(':');
        const std::string name = line.substr(0, colon);
        const std::string value = colon == std::string::npos ? "" : line.substr(colon + 1);
        any_error = any_error || value == "Error";
        t.row({name, value});
        cJSON_AddItemToArray(records, item_json(name, value));
        at = end + 2;
    }
    // A run that tested nothing has not passed: a factory line must not
    // take an untested board for a good one.
    if (cJSON_GetArraySize(records) == 0) {
        cJSON_Delete(records);
        return fail("self_test_items '%s' names no test item (1 to 12): nothing was tested", items.c_str());
    }
    if (!unknown.empty())
        say(ctx, "vexactl: self_test_items names %s, which %s no test item: skipped", joined(unknown).c_str(),
            unknown.size() == 1 ? "is" : "are");
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddItemToObject(item, "items", records);
        cJSON_AddBoolToObject(item, "passed", !any_error);
        print_json(ctx, item);
    } else {
        cJSON_Delete(records);
        t.print(ctx);
        std::fprintf(ctx.out, "\nverdict: %s\n", any_error ? "FAIL" : "PASS");
    }
    return any_error ? 1 : 0;
}

VEXACTL_COMMAND(selftest, {"selftest", "",
                           "Run the self-test items of the product INI; exit status 1 when one failed",
                           "Runs the items that self_test_items ([self_test], ids 1 to 12 joined by '-')\n"
                           "names and prints each result and the verdict. Exit status 1 when an item\n"
                           "failed or reads Error, and when no id names an item (nothing was tested).\n"
                           "Results also go to /sdcard/self_test_results.txt on the board.", run_selftest});

} // namespace
} // namespace vexactl
