// The lamps, relays, switches and inputs, with the library calls that drive
// and read them.
#include "tools/vexactl/controls.h"

#include <cstring>

#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace vexactl {
namespace {

// The USB port selector is one call for its two lines: a line alone is
// changed by reading the selection and writing it back with its bit changed.
template <unsigned Bit>
int32_t usb_select_set(int32_t on)
{
    const int32_t now = bi_usb_get_switch_enable();
    if (now < 0)
        return now;
    const unsigned mask = 1u << Bit;
    return bi_usb_set_switch_enable(on ? (static_cast<unsigned>(now) | mask) : (static_cast<unsigned>(now) & ~mask));
}
template <unsigned Bit>
int32_t usb_select_get()
{
    const int32_t now = bi_usb_get_switch_enable();
    return now < 0 ? now : (now >> Bit) & 1;
}

template <int32_t Relay>
int32_t relay_set(int32_t on) { return bi_peripheral_relay_enable(Relay, on); }
template <int32_t Relay>
int32_t relay_get() { return bi_peripheral_relay_get_status(Relay); }

} // namespace

const char *kind_name(Kind kind)
{
    switch (kind) {
    case Kind::led: return "led";
    case Kind::relay: return "relay";
    case Kind::switch_line: return "switch";
    case Kind::fan: return "fan";
    case Kind::input: return "input";
    }
    return "";
}

const std::vector<Control> &controls()
{
#define E(member) offsetof(bi_product_config_t, member)
    static const std::vector<Control> list = {
        {"led_sys", "sys", Kind::led, E(led_sys), bi_sysled_set_state, bi_sysled_get_state},
        {"led_network", "network", Kind::led, E(led_network), bi_netled_set_state, bi_netled_get_state},
        {"led_4gwork", "4g", Kind::led, E(led_4gwork), bi_4gled_set_state, bi_4gled_get_state},
        {"led_position", "position", Kind::led, E(led_position), bi_position_led_set_state, bi_position_led_get_state},
        {"led_switch", "switch", Kind::led, E(led_switch), bi_switchled_set_state, bi_switchled_get_state},
        {"led_running", "running", Kind::led, E(led_running), bi_runningled_set_state, bi_runningled_get_state},
        {"led_cloud", "cloud", Kind::led, E(led_cloud), bi_cloudled_set_state, bi_cloudled_get_state},
        {"led_tri_red", nullptr, Kind::led, E(led_tri_red), nullptr, nullptr},
        {"led_tri_green", nullptr, Kind::led, E(led_tri_green), nullptr, nullptr},
        {"led_tri_blue", nullptr, Kind::led, E(led_tri_blue), nullptr, nullptr},
        {"sub_card_led", "sub-card", Kind::led, E(sub_card_led), bi_usb_sub_card_led_enable, bi_usb_sub_card_led_get_status},
        {"interior_relay", "interior", Kind::relay, E(interior_relay), bi_relay_set_state, bi_relay_get_state},
        {"peripheral_relay_1", "1", Kind::relay, E(peripheral_relay_1), relay_set<1>, relay_get<1>},
        {"peripheral_relay_2", "2", Kind::relay, E(peripheral_relay_2), relay_set<2>, relay_get<2>},
        {"peripheral_relay_3", "3", Kind::relay, E(peripheral_relay_3), relay_set<3>, relay_get<3>},
        {"peripheral_relay_4", "4", Kind::relay, E(peripheral_relay_4), relay_set<4>, relay_get<4>},
        {"factory_tools", nullptr, Kind::switch_line, E(factory_tools), bi_factory_tools_enable, bi_factory_tools_get_status},
        {"pc_ctrl", nullptr, Kind::switch_line, E(pc_ctrl), bi_pc_ctrl_enable, bi_pc_ctrl_get_status},
        {"headphone_power", nullptr, Kind::switch_line, E(headphone_power), bi_headphone_power_set_state,
         bi_headphone_power_get_state},
        {"4g_reset", nullptr, Kind::switch_line, E(reset_4g), bi_4g_module_set_state, bi_4g_module_get_state},
        {"4g_power", nullptr, Kind::switch_line, E(power_4g), bi_4g_power_set_state, bi_4g_power_get_state},
        {"ops_usb", nullptr, Kind::switch_line, E(ops_usb), bi_ops_set_usb_port, bi_ops_get_usb_port},
        {"ops_switch", nullptr, Kind::switch_line, E(ops_switch), bi_ops_switch_control, bi_ops_get_switch_state},
        {"ops_on", nullptr, Kind::switch_line, E(ops_on), bi_ops_on_set_state, bi_ops_on_get_state},
        {"ops_control", nullptr, Kind::switch_line, E(ops_control), bi_ops_control_set_state, bi_ops_control_get_state},
        {"usb_select_0", nullptr, Kind::switch_line, E(usb_select_0), usb_select_set<0>, usb_select_get<0>},
        {"usb_select_1", nullptr, Kind::switch_line, E(usb_select_1), usb_select_set<1>, usb_select_get<1>},
        {"simple_fan_1", nullptr, Kind::fan, E(simple_fan_1), bi_fan_simple_set_status, bi_fan_simple_get_status},
        {"ops_detect", nullptr, Kind::input, E(ops_detect), nullptr, bi_ops_detect_get_state},
        {"lora_check", nullptr, Kind::input, E(lora_check), nullptr, bi_lora_get_state},
    };
#undef E
    return list;
}

int32_t line_id(const Control &control)
{
    bi_gpio_entry_t entry;
    std::memcpy(&entry, reinterpret_cast<const unsigned char *>(bi_product) + control.entry, sizeof entry);
    return entry.gpio_id;
}

} // namespace vexactl
