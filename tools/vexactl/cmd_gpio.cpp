// Lamps, relays and lines: status, led, relay, gpio.
#include <cstddef>
#include <cstring>
#include <functional>

#include <cjson/cJSON.h>

#include "tools/vexactl/command.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace vexactl {
namespace {

struct Line {
    const char *key;  // INI key
    const char *kind; // led, relay, switch, input, fan
    size_t entry;     // offset of the GPIO entry in the record
};

#define E(member) offsetof(bi_product_config_t, member)
const Line kLines[] = {
    {"led_sys", "led", E(led_sys)},
    {"led_network", "led", E(led_network)},
    {"led_4gwork", "led", E(led_4gwork)},
    {"led_position", "led", E(led_position)},
    {"led_switch", "led", E(led_switch)},
    {"led_running", "led", E(led_running)},
    {"led_cloud", "led", E(led_cloud)},
    {"led_tri_red", "led", E(led_tri_red)},
    {"led_tri_green", "led", E(led_tri_green)},
    {"led_tri_blue", "led", E(led_tri_blue)},
    {"sub_card_led", "led", E(sub_card_led)},
    {"interior_relay", "relay", E(interior_relay)},
    {"peripheral_relay_1", "relay", E(peripheral_relay_1)},
    {"peripheral_relay_2", "relay", E(peripheral_relay_2)},
    {"peripheral_relay_3", "relay", E(peripheral_relay_3)},
    {"peripheral_relay_4", "relay", E(peripheral_relay_4)},
    {"factory_tools", "switch", E(factory_tools)},
    {"pc_ctrl", "switch", E(pc_ctrl)},
    {"headphone_power", "switch", E(headphone_power)},
    {"4g_reset", "switch", E(reset_4g)},
    {"4g_power", "switch", E(power_4g)},
    {"ops_usb", "switch", E(ops_usb)},
    {"ops_switch", "switch", E(ops_switch)},
    {"ops_on", "switch", E(ops_on)},
    {"ops_control", "switch", E(ops_control)},
    {"usb_select_0", "switch", E(usb_select_0)},
    {"usb_select_1", "switch", E(usb_select_1)},
    {"simple_fan_1", "fan", E(simple_fan_1)},
    {"ops_detect", "input", E(ops_detect)},
    {"lora_check", "input", E(lora_check)},
};
#undef E

int32_t line_id(const Line &line)
{
    bi_gpio_entry_t entry;
    std::memcpy(&entry, reinterpret_cast<const unsigned char *>(bi_product) + line.entry, sizeof entry);
    return entry.gpio_id;
}

int run_status(Context &ctx, const Args &args)
{
    if (!args.empty())
        return usage_error(command_named("status"), "takes no arguments");
    ctx.load_config();
    if (bi_product == nullptr)
        return fail("the product record could not be loaded; see 'vexactl log'");
    Table table({"name", "kind", "line", "level", "note"});
    for (const Line &line : kLines) {
        const int32_t id = line_id(line);
        const bool unset = id < 0;
        table.row({line.key, line.kind, id, unset || id == 0 ? Cell::none() : Cell(ctx.board().line(id)),
                   unset ? "unset" : id == 0 ? "invalid" : ""});
    }
    if (ctx.json) {
        cJSON *status = cJSON_CreateObject();
        cJSON_AddStringToObject(status, "board", ctx.board().root().c_str());
        cJSON_AddStringToObject(status, "product", bi_product->product_name);
        cJSON_AddNumberToObject(status, "module_id", bi_product->mod_id);
        cJSON_AddItemToObject(status, "lines", table.json());
        print_json(ctx, status);
        return 0;
    }
    std::fprintf(ctx.out, "board:     %s\n", ctx.board().root().c_str());
    std::fprintf(ctx.out, "product:   %s\n", bi_product->product_name);
    std::fprintf(ctx.out, "module id: %d\n\n", bi_product->mod_id);
    table.print(ctx);
    return 0;
}

VEXACTL_COMMAND(status, {"status", "", "Show the product and every lamp, relay and switch with its line and level",
                         "A line marked unset has no key in the product INI file (id -1);\n"
                         "'invalid' marks id 0. Levels are read from the board directly.",
                         run_status});

// on/off/get for a pair of library calls.
int switch_action(const std::string &what, const std::string &action, const std::function<int32_t(int32_t)> &set,
                  const std::function<int32_t()> &get, Context &ctx, const Command &command)
{
    if (action == "get") {
        const int32_t level = get();
        if (level < 0)
            return fail("%s get failed (%d); see 'vexactl log'", what.c_str(), level);
        std::fprintf(ctx.out, "%d\n", level);
        return 0;
    }
    if (action != "on" && action != "off")
        return usage_error(command, "the action is on, off or get");
    const int32_t ret = set(action == "on" ? 1 : 0);
    if (ret < 0)
        return fail("%s %s failed (%d); see 'vexactl log'", what.c_str(), action.c_str(), ret);
    return 0;
}

struct Lamp {
    const char *name;
    int32_t (*set)(int32_t);
    int32_t (*get)(void);
};

const Lamp kLamps[] = {
    {"sys", bi_sysled_set_state, bi_sysled_get_state},
    {"network", bi_netled_set_state, bi_netled_get_state},
    {"4g", bi_4gled_set_state, bi_4gled_get_state},
    {"position", bi_position_led_set_state, bi_position_led_get_state},
    {"switch", bi_switchled_set_state, bi_switchled_get_state},
    {"running", bi_runningled_set_state, bi_runningled_get_state},
    {"cloud", bi_cloudled_set_state, bi_cloudled_get_state},
    {"sub-card", bi_usb_sub_card_led_enable, bi_usb_sub_card_led_get_status},
};

int run_led(Context &ctx, const Args &args)
{
    const Command &command = command_named("led");
    if (args.size() < 2)
        return usage_error(command, "needs a lamp and an action");
    ctx.load_config();
    const std::string &name = args[0];
    if (name == "tri") {
        if (args[1] == "get" && args.size() == 2) {
            const int32_t state = bi_triled_get_state();
            if (state < 0)
                return fail("led tri get failed (%d); see 'vexactl log'", state);
            std::fprintf(ctx.out, "%d\n", state);
            return 0;
        }
        if (args.size() != 4)
            return usage_error(command, "tri takes RED GREEN BLUE (0 or 1 each) or get");
        const int32_t ret = bi_triled_set_state(static_cast<int32_t>(number_operand(args[1], "red", 0, 1)),
                                                static_cast<int32_t>(number_operand(args[2], "green", 0, 1)),
                                                static_cast<int32_t>(number_operand(args[3], "blue", 0, 1)));
        if (ret < 0)
            return fail("led tri failed (%d); see 'vexactl log'", ret);
        return 0;
    }
    if (args.size() != 2)
        return usage_error(command, "too many arguments");
    for (const Lamp &lamp : kLamps) {
        if (name == lamp.name)
            return switch_action("led " + name, args[1], lamp.set, lamp.get, ctx, command);
    }
    return usage_error(command, "unknown lamp '" + name + "'");
}

VEXACTL_COMMAND(led, {"led", "NAME on|off|get  |  led tri RED GREEN BLUE|get", "Switch or read a lamp",
                      "NAME is one of sys, network, 4g, position, switch, running, cloud, sub-card.\n"
                      "The tri-colour lamp takes red, green and blue (1 lit, 0 dark); its get prints 1\n"
                      "when only the green lamp is lit (red dark), 0 otherwise.",
                      run_led});

int run_relay(Context &ctx, const Args &args)
{
    const Command &command = command_named("relay");
    if (args.size() != 2)
        return usage_error(command, "needs a relay and an action");
    ctx.load_config();
    if (args[0] == "interior")
        return switch_action("relay interior", args[1], bi_relay_set_state, bi_relay_get_state, ctx, command);
    const auto dev = static_cast<int32_t>(number_operand(args[0], "the relay", 1, 4));
    return switch_action(
        "relay " + args[0], args[1], [dev](int32_t on) { return bi_peripheral_relay_enable(dev, on); },
        [dev] { return bi_peripheral_relay_get_status(dev); }, ctx, command);
}

VEXACTL_COMMAND(relay, {"relay", "N|interior on|off|get", "Switch or read a relay",
                        "N is a peripheral relay, 1 to 4; 'interior' is the interior relay.", run_relay});

// The library's id tests accept line ids below 1000.
constexpr long long kMaxLine = 999;

int run_gpio(Context &ctx, const Args &args)
{
    const Command &command = command_named("gpio");
    if (args.size() == 2 && args[0] == "get") {
        const int id = static_cast<int>(number_operand(args[1], "the line", 0, kMaxLine));
        const int level = ctx.board().line(id);
        if (level < 0)
            return fail("line %d does not exist", id);
        std::fprintf(ctx.out, "%d\n", level);
        return 0;
    }
    if (args.size() == 3 && args[0] == "set") {
        const int id = static_cast<int>(number_operand(args[1], "the line", 0, kMaxLine));
        const int level = static_cast<int>(number_operand(args[2], "the level", 0, 1));
        ctx.board().set_line(id, level);
        return 0;
    }
    return usage_error(command, "expected 'get ID' or 'set ID 0|1'");
}

VEXACTL_COMMAND(gpio, {"gpio", "get ID | set ID 0|1", "Read or drive a board line directly",
                       "Acts on the board's line itself, not through the library: 'set' is what a\n"
                       "signal from outside would do to an input.",
                       run_gpio});

} // namespace
} // namespace vexactl
