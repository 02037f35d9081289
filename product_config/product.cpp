// The product record and its loader.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "platform/hal.h"
#include "platform/log.h"
#include "product_config/ini.h"
#include "vexasdk/product_config.h"

VEXA_API bi_product_config_t *bi_product = nullptr;

namespace vexa::config {
namespace {

constexpr const char *kTag = "vexa_system_bi_common";
constexpr int kPz25ModuleId = 8459;

enum class Kind {
    String, // char[cap] of the record
    Int,    // int32_t
    Gpio,   // bi_gpio_entry_t: type := 1, gpio_id := the integer
    Byte,   // uint8_t: the low 8 bits of the integer
    Float,  // float from a double
    Flag,   // no key: the int32_t at the offset := 1
};

struct Key {
    const char *section;
    const char *key;
    Kind kind;
    size_t offset;
    size_t cap; // String only
};

#define FIELD(member) offsetof(bi_product_config_t, member)
#define STR(section, key, member) {section, key, Kind::String, FIELD(member), sizeof(bi_product_config_t::member)}
#define PATH(section, key, member) {section, key, Kind::String, FIELD(member.path), sizeof(bi_path_entry_t::path)}
#define INT(section, key, member) {section, key, Kind::Int, FIELD(member), 0}
#define GPIO(section, key, member) {section, key, Kind::Gpio, FIELD(member), 0}
#define BYTE(section, key, member) {section, key, Kind::Byte, FIELD(member), 0}
#define FLT(section, key, member) {section, key, Kind::Float, FIELD(member), 0}
#define FLAG(member) {nullptr, nullptr, Kind::Flag, FIELD(member), 0}
#define ARR(section, key, member, i) {section, key, Kind::String, FIELD(member) + (i) * 256, 256}
#define CHIP_PATH(section, key, member) {section, key, Kind::String, FIELD(member.path), 64}

// The keys in the order the loader reads them.
const Key kKeys[] = {
    STR("product", "product", product_name),
    GPIO("led", "led_sys", led_sys),
    GPIO("led", "led_network", led_network),
    GPIO("led", "led_4gwork", led_4gwork),
    GPIO("led", "led_position", led_position),
    GPIO("led", "led_switch", led_switch),
    GPIO("led", "led_running", led_running),
    GPIO("led", "led_tri_red", led_tri_red),
    GPIO("led", "led_tri_green", led_tri_green),
    GPIO("led", "led_tri_blue", led_tri_blue),
    GPIO("led", "led_cloud", led_cloud),
    GPIO("fan", "simple_fan_1", simple_fan_1),
    PATH("serial", "serial_lora_1", serial_lora_1),
    PATH("serial", "serial_hdmi_1", serial_hdmi_1),
    PATH("serial", "serial_232_1", serial_232_1),
    PATH("serial", "serial_232_2", serial_232_2),
    PATH("serial", "serial_485_1", serial_485_1),
    PATH("serial", "serial_485_2", serial_485_2),
    PATH("serial", "serial_ttl_1", serial_ttl_1),
    PATH("serial", "serial_ttl_2", serial_ttl_2),
    STR("watchdog", "wdt_dev", watchdog.wdt_dev),
    INT("watchdog", "wdt_timeout", watchdog.wdt_timeout),
    INT("watchdog", "wdt_interval", watchdog.wdt_interval),
    PATH("block", "hdmi_edid_path", hdmi_edid),
    PATH("block", "fpga_program_path", fpga_program),
    PATH("block", "fpga_parameter", fpga_parameter),
    PATH("block", "hex_parameter", hex_parameter),
    GPIO("protocol", "fpga_protocol_type", fpga_protocol),
    PATH("fpga", "fpga_drv_path", fpga_drv),
    PATH("fpga", "fpga_fw_path", fpga_fw),
    INT("fpga", "fpga_drv_id", fpga_drv_id),
    GPIO("ops", "ops_usb", ops_usb),
    GPIO("ops", "ops_switch", ops_switch),
    GPIO("ops", "ops_on", ops_on),
    GPIO("ops", "ops_control", ops_control),
    GPIO("ops", "ops_detect", ops_detect),
    GPIO("misc", "factory_tools", factory_tools),
    GPIO("misc", "interior_relay", interior_relay),
    GPIO("misc", "peripheral_relay_1", peripheral_relay_1),
    GPIO("misc", "peripheral_relay_2", peripheral_relay_2),
    GPIO("misc", "peripheral_relay_3", peripheral_relay_3),
    GPIO("misc", "peripheral_relay_4", peripheral_relay_4),
    GPIO("misc", "pc_ctrl", pc_ctrl),
    GPIO("misc", "sub_card_led", sub_card_led),
    GPIO("misc", "headphone_power", headphone_power),
    INT("misc", "external_relay_num", external_relay_num),
    GPIO("otg", "otg_mode", otg_mode),
    GPIO("mcu_wdt", "mcu_wdt_switch", mcu_wdt_switch),
    GPIO("mcu_wdt", "mcu_wdt_pulse", mcu_wdt_pulse),
    GPIO("mcu_wdt", "mcu_wdt_startup_type", mcu_wdt_startup_type),
    GPIO("usb", "usb_select_0", usb_select_0),
    GPIO("usb", "usb_select_1", usb_select_1),
    ARR("usb", "usb1_path", usb_path, 0),
    ARR("usb", "usb2_path", usb_path, 1),
    ARR("usb", "usb3_path", usb_path, 2),
    ARR("usb", "usb4_path", usb_path, 3),
    PATH("spi", "spi_fpga", spi_fpga),
    PATH("rtc", "rtc_device", rtc_device),
    CHIP_PATH("i2c", "i2c_audio_0_path", audio_0),
    BYTE("i2c", "i2c_audio_0_device", audio_0.device_addr),
    BYTE("i2c", "i2c_audio_0_enable_addr", audio_0.enable_addr),
    BYTE("i2c", "i2c_audio_0_channel_addr", audio_0.channel_addr),
    BYTE("i2c", "i2c_audio_0_volume_addr", audio_0.volume_addr),
    BYTE("i2c", "i2c_audio_0_status_addr", audio_0.status_addr),
    BYTE("i2c", "i2c_audio_0_enable", audio_0.enable),
    BYTE("i2c", "i2c_audio_0_disable", audio_0.disable),
    FLAG(audio_0.type),
    CHIP_PATH("i2c", "i2c_audio_1_path", audio_1),
    BYTE("i2c", "i2c_audio_1_device", audio_1.device_addr),
    BYTE("i2c", "i2c_audio_1_enable_addr", audio_1.enable_addr),
    BYTE("i2c", "i2c_audio_1_channel_addr", audio_1.channel_addr),
    BYTE("i2c", "i2c_audio_1_volume_addr", audio_1.volume_addr),
    BYTE("i2c", "i2c_audio_1_status_addr", audio_1.status_addr),
    BYTE("i2c", "i2c_audio_1_enable", audio_1.enable),
    BYTE("i2c", "i2c_audio_1_disable", audio_1.disable),
    FLAG(audio_1.type),
    CHIP_PATH("i2c", "i2c_rtc_0_path", rtc_0),
    BYTE("i2c", "i2c_rtc_0_device", rtc_0.device_addr),
    BYTE("i2c", "i2c_rtc_0_status_addr", rtc_0.status_addr),
    FLAG(rtc_0.type),
    CHIP_PATH("i2c", "i2c_clock_0_path", clock_0),
    BYTE("i2c", "i2c_clock_0_device", clock_0.device_addr),
    BYTE("i2c", "i2c_clock_0_status_addr", clock_0.status_addr),
    FLAG(clock_0.type),
    FLT("adc", "adc_board_config_vref", adc_board_id.vref),
    INT("adc", "adc_board_config_n", adc_board_id.n),
    CHIP_PATH("adc", "adc_board_id", adc_board_id),
    FLAG(adc_board_id.type),
    CHIP_PATH("adc", "adc_board_voltage", adc_board_voltage),
    INT("adc", "adc_board_voltage_r1", adc_board_voltage.r1),
    INT("adc", "adc_board_voltage_r2", adc_board_voltage.r2),
    FLAG(adc_board_voltage.type),
    CHIP_PATH("adc", "adc_board_temperature", adc_board_temperature),
    INT("adc", "adc_board_temperature_r1", adc_board_temperature.r1),
    FLT("adc", "adc_board_temperature_vin", adc_board_temperature.vin),
    FLAG(adc_board_temperature.type),
    GPIO("lora", "lora_check", lora_check),
    GPIO("misc", "4g_reset", reset_4g),
    GPIO("misc", "4g_power", power_4g),
    GPIO("fpga", "fpga_control_gpio", fpga_control_gpio),
    GPIO("fpga", "fpga_config_gpio", fpga_config_gpio),
    GPIO("fpga", "fpga_done_gpio", fpga_done_gpio),
    STR("display", "screen_mode", screen_mode),
    ARR("display", "hdmi_in_1_path", hdmi_in_path, 0),
    ARR("display", "hdmi_in_2_path", hdmi_in_path, 1),
    ARR("display", "hdmi_in_3_path", hdmi_in_path, 2),
    ARR("display", "hdmi_in_4_path", hdmi_in_path, 3),
    ARR("display", "hdmi_out_1_path", hdmi_out_path, 0),
    ARR("display", "hdmi_out_2_path", hdmi_out_path, 1),
    ARR("display", "hdmi_out_3_path", hdmi_out_path, 2),
    ARR("display", "hdmi_out_4_path", hdmi_out_path, 3),
    INT("network", "phy_num", phy_num),
    ARR("network", "phy1_state_cmd", phy_state_cmd, 0),
    ARR("network", "phy2_state_cmd", phy_state_cmd, 1),
    ARR("network", "phy3_state_cmd", phy_state_cmd, 2),
    ARR("network", "phy4_state_cmd", phy_state_cmd, 3),
};

void read_key(void *dict, const Key &k, unsigned char *record)
{
    unsigned char *field = record + k.offset;
    switch (k.kind) {
    case Kind::String:
        get_string(dict, k.section, k.key, reinterpret_cast<char *>(field), k.cap);
        break;
    case Kind::Int: {
        const int32_t v = get_int(dict, k.section, k.key);
        std::memcpy(field, &v, sizeof v);
        break;
    }
    case Kind::Gpio: {
        const bi_gpio_entry_t entry = {1, get_int(dict, k.section, k.key)};
        std::memcpy(field, &entry, sizeof entry);
        break;
    }
    case Kind::Byte:
        *field = static_cast<uint8_t>(get_int(dict, k.section, k.key));
        break;
    case Kind::Float: {
        const float v = static_cast<float>(get_double(dict, k.section, k.key));
        std::memcpy(field, &v, sizeof v);
        break;
    }
    case Kind::Flag: {
        const int32_t one = 1;
        std::memcpy(field, &one, sizeof one);
        break;
    }
    }
}

// Kept for the life of the process, as nothing reads it after loading.
void *g_dict = nullptr;

} // namespace

void load_product_config(const char *func)
{
    if (bi_product == nullptr) {
        bi_product = static_cast<bi_product_config_t *>(std::malloc(sizeof(bi_product_config_t)));
        if (bi_product == nullptr) {
            VEXA_LOGE(kTag, "%s:bi_product malloc failed!\n", func);
            return;
        }
    }
    std::memset(bi_product, 0, sizeof *bi_product);

    char info[HAL_PRODUCT_INFO_SIZE + 1] = {};
    if (hal_info_get_product_info(info) != 0) {
        VEXA_LOGE(kTag, "%s:parse product info failed!\n", func);
        return;
    }
    info[HAL_PRODUCT_INFO_SIZE] = '\0';
    const int mod_id = std::atoi(info + HAL_PRODUCT_INFO_MODID_OFFSET);
    const char *path = mod_id == kPz25ModuleId ? "/vendor/etc/product_pz25.ini" : "/vendor/etc/product.ini";
    VEXA_LOGI(kTag, "%s: modid: %d\n", func, mod_id);

    // A reload replaces the dictionary of the previous load.
    free_ini(g_dict);
    g_dict = load_ini(path);

    bi_product_config_t *p = bi_product;
    p->mod_id = mod_id;
    auto *record = reinterpret_cast<unsigned char *>(p);
    read_key(g_dict, kKeys[0], record);
    VEXA_LOGI(kTag, "%s: mod_id = %d, product_name = %s\n", func, p->mod_id, p->product_name);
    for (size_t i = 1; i < sizeof kKeys / sizeof kKeys[0]; ++i) {
        read_key(g_dict, kKeys[i], record);
        if (kKeys[i].offset == FIELD(usb_select_1))
            VEXA_LOGI(kTag, "usb_select_0:%d usb_select_1:%d\n", p->usb_select_0.gpio_id,
                      p->usb_select_1.gpio_id);
    }

    VEXA_LOGI(kTag, "led_sys_gpio_id:%d led_sys.type:%d\n", p->led_sys.gpio_id, p->led_sys.type);
    VEXA_LOGI(kTag, "led_network.gpio_id:%d led_network.type:%d\n", p->led_network.gpio_id,
              p->led_network.type);
    VEXA_LOGI(kTag, "serial_lora_1.path:%s\n", p->serial_lora_1.path);
    VEXA_LOGI(kTag, "serial_hdmi_1.path:%s\n", p->serial_hdmi_1.path);
    VEXA_LOGI(kTag, "serial_232_1.path:%s\n", p->serial_232_1.path);
    VEXA_LOGI(kTag, "serial_232_2.path:%s\n", p->serial_232_2.path);
    VEXA_LOGI(kTag, "serial_485_1.path:%s\n", p->serial_485_1.path);
    VEXA_LOGI(kTag, "serial_485_2.path:%s\n", p->serial_485_2.path);
    VEXA_LOGI(kTag, "serial_ttl_1.path:%s\n", p->serial_ttl_1.path);
    VEXA_LOGI(kTag, "serial_ttl_2.path:%s\n", p->serial_ttl_2.path);
    VEXA_LOGI(kTag, "watchdog.wdt_dev:%s watchdog.wdt_timeout:%u watchdog.wdt_interval:%u\n",
              p->watchdog.wdt_dev, p->watchdog.wdt_timeout, p->watchdog.wdt_interval);
    VEXA_LOGI(kTag, "audio_0.path:%s audio_0.device_addr:0x%x audio_0.type:%d\n", p->audio_0.path,
              p->audio_0.device_addr, p->audio_0.type);
    VEXA_LOGI(kTag, "audio_1.path:%s audio_1.device_addr:0x%x audio_1.type:%d\n", p->audio_1.path,
              p->audio_1.device_addr, p->audio_1.type);
    VEXA_LOGI(kTag, "rtc_0.path:%s rtc_0.device_addr:0x%x rtc_0.status_addr:0x%x\n", p->rtc_0.path,
              p->rtc_0.device_addr, p->rtc_0.status_addr);
}

} // namespace vexa::config

extern "C" VEXA_API void bi_init_product_config(void) { vexa::config::load_product_config(__func__); }
