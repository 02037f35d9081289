// Lamps, relays, switches and lines: status, led, relay, switch, gpio.
#include <cstddef>
#include <cstring>
#include <string>

#include <cjson/cJSON.h>

#include "tools/vexactl/command.h"
#include "tools/vexactl/controls.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace vexactl {
namespace {

const std::vector<Control> &kControls = controls();

// The names a command takes, for its help and its errors.
std::string names_of(bool (*takes)(Kind))
{
    std::string text;
    for (const Control &control : kControls) {
        if (!takes(control.kind) || !control.get)
            continue;
        text += text.empty() ? "" : ", ";
        text += control.name;
        if (control.alias)
            text += std::string(" (") + control.alias + ")";
    }
    return text;
}

bool is_led(Kind kind) { return kind == Kind::led; }
bool is_relay(Kind kind) { return kind == Kind::relay; }
bool is_switch(Kind kind) { return kind == Kind::switch_line || kind == Kind::fan || kind == Kind::input; }

const char *command_for(Kind kind)
{
    return is_led(kind) ? "led" : is_relay(kind) ? "relay" : "switch";
}

int run_status(Context &ctx, const Args &args)
{
    if (!args.empty())
        return usage_error(*ctx.command, "takes no arguments");
    ctx.load_config();
    if (bi_product == nullptr)
        return fail("the product record could not be loaded; see 'vexactl log'");
    Table table({"name", "kind", "line", "level", "note"});
    for (const Control &control : kControls) {
        const int32_t id = line_id(control);
        const bool unset = id < 0;
        table.row({control.name, kind_name(control.kind), id,
                   unset || id == 0 ? Cell::none() : Cell(ctx.board().line(id)),
                   unset ? Cell("unset") : id == 0 ? Cell("invalid") : Cell::none()});
    }
    // The fault knobs set on the board (vexactl board fault lists them all).
    Table faults({"name", "value"});
    std::string fault_text;
    for (const auto &knob : ctx.board().knobs()) {
        if (!knob.set)
            continue;
        faults.row({knob.name, knob.value});
        fault_text += (fault_text.empty() ? "" : " ") + knob.name + "=" + knob.value;
    }
    if (ctx.json) {
        cJSON *status = cJSON_CreateObject();
        cJSON_AddStringToObject(status, "board", ctx.board().root().c_str());
        cJSON_AddStringToObject(status, "product", bi_product->product_name);
        cJSON_AddNumberToObject(status, "module_id", bi_product->mod_id);
        cJSON_AddItemToObject(status, "faults", faults.json());
        cJSON_AddItemToObject(status, "lines", table.json());
        print_json(ctx, status);
        return 0;
    }
    std::fprintf(ctx.out, "board:     %s\n", ctx.board().root().c_str());
    std::fprintf(ctx.out, "product:   %s\n", bi_product->product_name);
    std::fprintf(ctx.out, "module id: %d\n", bi_product->mod_id);
    std::fprintf(ctx.out, "faults:    %s\n\n", fault_text.empty() ? "none" : fault_text.c_str());
    table.print(ctx);
    return 0;
}

VEXACTL_COMMAND(status, {"status", "", "Show the product and every lamp, relay and switch with its line and level",
                         "A line marked unset has no key in the product INI file (id -1);\n"
                         "'invalid' marks id 0. Levels are read from the board directly.\n"
                         "Each name is taken by 'vexactl led', 'relay' or 'switch'.",
                         run_status});

// A state read back: the number, or with --json a record.
int print_state(Context &ctx, const char *name, int32_t state)
{
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "name", name);
        cJSON_AddNumberToObject(o, "state", state);
        print_json(ctx, o);
    } else {
        std::fprintf(ctx.out, "%d\n", state);
    }
    return 0;
}

// NAME on|off|get for the controls a command takes.
int drive(Context &ctx, const Args &args, bool (*takes)(Kind))
{
    if (args.size() != 2)
        return usage_error(*ctx.command, "needs a name and on, off or get");
    const std::string &name = args[0];
    const Control *found = nullptr;
    for (const Control &control : kControls)
        if (name == control.name || (control.alias && name == control.alias))
            found = &control;
    if (!found)
        throw UsageError("unknown name '" + name + "'; the names are " + names_of(takes));
    const Control &control = *found;
    if (!takes(control.kind))
        throw UsageError(name + " is a " + kind_name(control.kind) + ": vexactl " + command_for(control.kind) +
                         " " + name + " on|off|get");
    if (!control.get)
        throw UsageError(name + " is a colour of the tri-colour lamp: vexactl led tri RED GREEN BLUE|get");
    const size_t action = one_of(args[1], "the action", {"on", "off", "get"});
    ctx.load_config();
    if (action == 2) {
        const int32_t level = control.get();
        if (level < 0)
            return fail("%s %s get failed (%d); see 'vexactl log'", ctx.command->name.c_str(), name.c_str(), level);
        return print_state(ctx, control.name, level);
    }
    if (!control.set)
        return fail("%s is an input: drive its line from outside with 'vexactl gpio set %d 0|1'", name.c_str(),
                    bi_product ? line_id(control) : -1);
    const int32_t ret = control.set(action == 0 ? 1 : 0);
    if (ret < 0)
        return fail("%s %s %s failed (%d); see 'vexactl log'", ctx.command->name.c_str(), name.c_str(),
                    args[1].c_str(), ret);
    return 0;
}

int run_tri(Context &ctx, const Args &args)
{
    if (args.size() == 2 && args[1] == "get") {
        ctx.load_config();
        const int32_t state = bi_triled_get_state();
        if (state < 0)
            return fail("led tri get failed (%d); see 'vexactl log'", state);
        return print_state(ctx, "tri", state);
    }
    if (args.size() != 4)
        return usage_error(*ctx.command, "tri takes RED GREEN BLUE (0 or 1 each) or get");
    const auto red = static_cast<int32_t>(number_operand(args[1], "red", 0, 1));
    const auto green = static_cast<int32_t>(number_operand(args[2], "green", 0, 1));
    const auto blue = static_cast<int32_t>(number_operand(args[3], "blue", 0, 1));
    ctx.load_config();
    const int32_t ret = bi_triled_set_state(red, green, blue);
    if (ret < 0)
        return fail("led tri failed (%d); see 'vexactl log'", ret);
    return 0;
}

int run_led(Context &ctx, const Args &args)
{
    if (!args.empty() && args[0] == "tri")
        return run_tri(ctx, args);
    return drive(ctx, args, is_led);
}

VEXACTL_COMMAND(led, {"led", "NAME on|off|get  |  led tri RED GREEN BLUE|get", "Switch or read a lamp",
                      "NAME is a lamp as status names it, or its short name: " + names_of(is_led) +
                          ".\nThe tri-colour lamp takes red, green and blue (1 lit, 0 dark); its get prints 1\n"
                          "when only the green lamp is lit (red dark), 0 otherwise.",
                      run_led});

int run_relay(Context &ctx, const Args &args) { return drive(ctx, args, is_relay); }

VEXACTL_COMMAND(relay, {"relay", "NAME on|off|get", "Switch or read a relay",
                        "NAME is a relay as status names it, or its short name: " + names_of(is_relay) + ".",
                        run_relay});

int run_switch(Context &ctx, const Args &args) { return drive(ctx, args, is_switch); }

VEXACTL_COMMAND(switch, {"switch", "NAME on|off|get", "Switch or read a power, control or selector line",
                         "NAME is a switch, the fan or an input as status names it: " + names_of(is_switch) +
                             ".\nInputs are read only. usb_select_0 and usb_select_1 are the two lines of\n"
                             "the USB port selector: switching one keeps the other.",
                         run_switch});

// The library's id tests accept line ids below 1000.
constexpr long long kMaxLine = 999;

// A line as gpioget and gpioset take it: its number, or the name status
// gives it (the record's line for that name).
struct Line {
    int id;
    std::string name; // as asked for; empty for a number
};

Line line_of(Context &ctx, const std::string &word)
{
    const Control *found = nullptr;
    for (const Control &control : kControls)
        if (word == control.name)
            found = &control;
    if (!found && !word.empty() && word[0] >= '0' && word[0] <= '9') // "4g_power" is a name
        return {static_cast<int>(number_operand(word, "the line", 0, kMaxLine)), ""};
    if (!found) {
        std::string names;
        for (const Control &control : kControls)
            names += std::string(names.empty() ? "" : ", ") + control.name;
        throw UsageError("a line is a number from 0 to " + std::to_string(kMaxLine) + " or a name status gives (" +
                         names + "), not '" + word + "'");
    }
    ctx.load_config();
    if (bi_product == nullptr)
        throw std::runtime_error("the product record could not be loaded; see 'vexactl log'");
    const int32_t id = line_id(*found);
    if (id < 0)
        throw std::runtime_error(word + " has no line: its key is not in the product INI");
    if (id == 0 || id > kMaxLine)
        throw std::runtime_error(word + " has an invalid line (" + std::to_string(id) + ") in the product INI");
    return {id, word};
}

int gpio_get(Context &ctx, const Args &words)
{
    std::vector<Line> lines;
    for (const std::string &word : words)
        lines.push_back(line_of(ctx, word));
    Table table({"line", "name", "level"});
    std::string shown;
    for (const Line &line : lines) {
        const int level = ctx.board().line(line.id);
        if (level < 0)
            return fail("line %d does not exist", line.id);
        table.row({line.id, line.name.empty() ? Cell::none() : Cell(line.name), level});
        shown += (shown.empty() ? "" : " ") + std::to_string(level);
    }
    if (ctx.json)
        table.print(ctx);
    else
        std::fprintf(ctx.out, "%s\n", shown.c_str());
    return 0;
}

int gpio_set(Context &ctx, const Args &words)
{
    // gpioset's LINE=LEVEL pairs, or one LINE LEVEL.
    std::vector<std::pair<std::string, std::string>> pairs;
    if (words.size() == 2 && words[0].find('=') == std::string::npos && words[1].find('=') == std::string::npos) {
        pairs.emplace_back(words[0], words[1]);
    } else {
        for (const std::string &word : words) {
            const size_t eq = word.rfind('=');
            if (eq == std::string::npos)
                throw UsageError("set takes LINE=LEVEL pairs (or one LINE LEVEL), not '" + word + "'");
            pairs.emplace_back(word.substr(0, eq), word.substr(eq + 1));
        }
    }
    // Every pair is checked before any line moves.
    std::vector<std::pair<int, int>> drives;
    for (auto &[word, level] : pairs)
        drives.emplace_back(line_of(ctx, word).id, static_cast<int>(number_operand(level, "the level", 0, 1)));
    for (auto &[id, level] : drives)
        ctx.board().set_line(id, level);
    return 0;
}

int run_gpio(Context &ctx, const Args &args)
{
    if (args.size() >= 2 && args[0] == "get")
        return gpio_get(ctx, Args(args.begin() + 1, args.end()));
    if (args.size() >= 2 && args[0] == "set")
        return gpio_set(ctx, Args(args.begin() + 1, args.end()));
    return usage_error(*ctx.command, "expected 'get LINE...' or 'set LINE=LEVEL...'");
}

VEXACTL_COMMAND(gpio, {"gpio", "get LINE... | set LINE=LEVEL... | set LINE LEVEL", "Read or drive board lines directly",
                       "As gpioget and gpioset do, on the board's lines themselves, not through the\n"
                       "library: 'set' is what a signal from outside would do to an input. A LINE\n"
                       "is a number from 0 to 999, or a name as status gives it (led_sys,\n"
                       "lora_check, ...): the line the product INI names. get prints the levels in\n"
                       "the order asked, on one line (--json: line, name as asked or null, level).\n"
                       "set checks every pair before it drives any line.",
                       run_gpio});

} // namespace
} // namespace vexactl
