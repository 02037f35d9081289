#include <cstring>
#include <iterator>
#include <map>
#include <vector>

#include "support/board_fixture.h"
#include "support/ini_text.h"
#include "vexasdk/product_config.h"

namespace vexa::test {
namespace {

using ::testing::ElementsAre;

class LoaderTest : public BoardTest {};

using Record = bi_product_config_t;

// Every key of the product INI, with the field it fills as text: GPIO
// entries as "type/id", numbers in decimal, paths as they stand.
enum class Kind { Gpio, Int, Byte, Float, Text, Flag };
struct Key {
    const char *section;
    const char *key;
    Kind kind;
    std::string (*field)(const Record &);
};

#define GPIO(s, k, m) {s, k, Kind::Gpio, [](const Record &p) { return std::to_string(p.m.type) + "/" + std::to_string(p.m.gpio_id); }}
#define INT(s, k, m) {s, k, Kind::Int, [](const Record &p) { return std::to_string(static_cast<int32_t>(p.m)); }}
#define BYTE(s, k, m) {s, k, Kind::Byte, [](const Record &p) { return std::to_string(p.m); }}
#define FLT(s, k, m) {s, k, Kind::Float, [](const Record &p) { return std::to_string(p.m); }}
#define TEXT(s, k, m) {s, k, Kind::Text, [](const Record &p) { return std::string(p.m); }}
#define FLAG(m) {"", #m, Kind::Flag, [](const Record &p) { return std::to_string(p.m); }}

const Key kKeys[] = {
    TEXT("product", "product", product_name),
    GPIO("led", "led_sys", led_sys), GPIO("led", "led_network", led_network),
    GPIO("led", "led_4gwork", led_4gwork), GPIO("led", "led_position", led_position),
    GPIO("led", "led_switch", led_switch), GPIO("led", "led_running", led_running),
    GPIO("led", "led_tri_red", led_tri_red), GPIO("led", "led_tri_green", led_tri_green),
    GPIO("led", "led_tri_blue", led_tri_blue), GPIO("led", "led_cloud", led_cloud),
    GPIO("fan", "simple_fan_1", simple_fan_1),
    TEXT("serial", "serial_lora_1", serial_lora_1.path), TEXT("serial", "serial_hdmi_1", serial_hdmi_1.path),
    TEXT("serial", "serial_232_1", serial_232_1.path), TEXT("serial", "serial_232_2", serial_232_2.path),
    TEXT("serial", "serial_485_1", serial_485_1.path), TEXT("serial", "serial_485_2", serial_485_2.path),
    TEXT("serial", "serial_ttl_1", serial_ttl_1.path), TEXT("serial", "serial_ttl_2", serial_ttl_2.path),
    TEXT("watchdog", "wdt_dev", watchdog.wdt_dev), INT("watchdog", "wdt_timeout", watchdog.wdt_timeout),
    INT("watchdog", "wdt_interval", watchdog.wdt_interval),
    TEXT("block", "hdmi_edid_path", hdmi_edid.path), TEXT("block", "fpga_program_path", fpga_program.path),
    TEXT("block", "fpga_parameter", fpga_parameter.path), TEXT("block", "hex_parameter", hex_parameter.path),
    {"protocol", "fpga_protocol_type", Kind::Gpio,
     [](const Record &p) {
         return std::to_string(p.fpga_protocol.type) + "/" + std::to_string(p.fpga_protocol.protocol_type);
     }},
    TEXT("fpga", "fpga_drv_path", fpga_drv.path), TEXT("fpga", "fpga_fw_path", fpga_fw.path),
    INT("fpga", "fpga_drv_id", fpga_drv_id),
    GPIO("ops", "ops_usb", ops_usb), GPIO("ops", "ops_switch", ops_switch), GPIO("ops", "ops_on", ops_on),
    GPIO("ops", "ops_control", ops_control), GPIO("ops", "ops_detect", ops_detect),
    GPIO("misc", "factory_tools", factory_tools), GPIO("misc", "interior_relay", interior_relay),
    GPIO("misc", "peripheral_relay_1", peripheral_relay_1), GPIO("misc", "peripheral_relay_2", peripheral_relay_2),
    GPIO("misc", "peripheral_relay_3", peripheral_relay_3), GPIO("misc", "peripheral_relay_4", peripheral_relay_4),
    GPIO("misc", "pc_ctrl", pc_ctrl), GPIO("misc", "sub_card_led", sub_card_led),
    GPIO("misc", "headphone_power", headphone_power), INT("misc", "external_relay_num", external_relay_num),
    GPIO("otg", "otg_mode", otg_mode), GPIO("mcu_wdt", "mcu_wdt_switch", mcu_wdt_switch),
    GPIO("mcu_wdt", "mcu_wdt_pulse", mcu_wdt_pulse), GPIO("mcu_wdt", "mcu_wdt_startup_type", mcu_wdt_startup_type),
    GPIO("usb", "usb_select_0", usb_select_0), GPIO("usb", "usb_select_1", usb_select_1),
    TEXT("usb", "usb1_path", usb_path[0]), TEXT("usb", "usb2_path", usb_path[1]),
    TEXT("usb", "usb3_path", usb_path[2]), TEXT("usb", "usb4_path", usb_path[3]),
    TEXT("spi", "spi_fpga", spi_fpga.path), TEXT("rtc", "rtc_device", rtc_device.path),
    TEXT("i2c", "i2c_audio_0_path", audio_0.path), BYTE("i2c", "i2c_audio_0_device", audio_0.device_addr),
    BYTE("i2c", "i2c_audio_0_enable_addr", audio_0.enable_addr),
    BYTE("i2c", "i2c_audio_0_channel_addr", audio_0.channel_addr),
    BYTE("i2c", "i2c_audio_0_volume_addr", audio_0.volume_addr),
    BYTE("i2c", "i2c_audio_0_status_addr", audio_0.status_addr), BYTE("i2c", "i2c_audio_0_enable", audio_0.enable),
    BYTE("i2c", "i2c_audio_0_disable", audio_0.disable), FLAG(audio_0.type),
    TEXT("i2c", "i2c_audio_1_path", audio_1.path), BYTE("i2c", "i2c_audio_1_device", audio_1.device_addr),
    BYTE("i2c", "i2c_audio_1_enable_addr", audio_1.enable_addr),
    BYTE("i2c", "i2c_audio_1_channel_addr", audio_1.channel_addr),
    BYTE("i2c", "i2c_audio_1_volume_addr", audio_1.volume_addr),
    BYTE("i2c", "i2c_audio_1_status_addr", audio_1.status_addr), BYTE("i2c", "i2c_audio_1_enable", audio_1.enable),
    BYTE("i2c", "i2c_audio_1_disable", audio_1.disable), FLAG(audio_1.type),
    TEXT("i2c", "i2c_rtc_0_path", rtc_0.path), BYTE("i2c", "i2c_rtc_0_device", rtc_0.device_addr),
    BYTE("i2c", "i2c_rtc_0_status_addr", rtc_0.status_addr), FLAG(rtc_0.type),
    TEXT("i2c", "i2c_clock_0_path", clock_0.path), BYTE("i2c", "i2c_clock_0_device", clock_0.device_addr),
    BYTE("i2c", "i2c_clock_0_status_addr", clock_0.status_addr), FLAG(clock_0.type),
    FLT("adc", "adc_board_config_vref", adc_board_id.vref), INT("adc", "adc_board_config_n", adc_board_id.n),
    TEXT("adc", "adc_board_id", adc_board_id.path), FLAG(adc_board_id.type),
    TEXT("adc", "adc_board_voltage", adc_board_voltage.path), INT("adc", "adc_board_voltage_r1", adc_board_voltage.r1),
    INT("adc", "adc_board_voltage_r2", adc_board_voltage.r2), FLAG(adc_board_voltage.type),
    TEXT("adc", "adc_board_temperature", adc_board_temperature.path),
    INT("adc", "adc_board_temperature_r1", adc_board_temperature.r1),
    FLT("adc", "adc_board_temperature_vin", adc_board_temperature.vin), FLAG(adc_board_temperature.type),
    GPIO("lora", "lora_check", lora_check), GPIO("misc", "4g_reset", reset_4g), GPIO("misc", "4g_power", power_4g),
    GPIO("fpga", "fpga_control_gpio", fpga_control_gpio), GPIO("fpga", "fpga_config_gpio", fpga_config_gpio),
    GPIO("fpga", "fpga_done_gpio", fpga_done_gpio),
    TEXT("display", "screen_mode", screen_mode),
    TEXT("display", "hdmi_in_1_path", hdmi_in_path[0]), TEXT("display", "hdmi_in_2_path", hdmi_in_path[1]),
    TEXT("display", "hdmi_in_3_path", hdmi_in_path[2]), TEXT("display", "hdmi_in_4_path", hdmi_in_path[3]),
    TEXT("display", "hdmi_out_1_path", hdmi_out_path[0]), TEXT("display", "hdmi_out_2_path", hdmi_out_path[1]),
    TEXT("display", "hdmi_out_3_path", hdmi_out_path[2]), TEXT("display", "hdmi_out_4_path", hdmi_out_path[3]),
    INT("network", "phy_num", phy_num),
    TEXT("network", "phy1_state_cmd", phy_state_cmd[0]), TEXT("network", "phy2_state_cmd", phy_state_cmd[1]),
    TEXT("network", "phy3_state_cmd", phy_state_cmd[2]), TEXT("network", "phy4_state_cmd", phy_state_cmd[3]),
};

// An INI giving key i a value no other key has (or no key at all), and the
// field each key should then hold.
std::string walk_ini(bool with_values, std::vector<std::string> *fields)
{
    std::map<std::string, std::string> sections;
    for (size_t i = 0; i < std::size(kKeys); ++i) {
        const Key &k = kKeys[i];
        const std::string n = std::to_string(1000 + i);
        std::string value, field;
        switch (k.kind) {
        case Kind::Gpio: value = n, field = with_values ? "1/" + n : "1/-1"; break;
        case Kind::Int: value = n, field = with_values ? n : "-1"; break;
        case Kind::Byte: value = std::to_string(0x300 + i), field = with_values ? std::to_string(i) : "255"; break;
        case Kind::Float: value = n + ".5", field = std::to_string(with_values ? 1000.5f + i : -1.0f); break;
        case Kind::Text: value = "/walk/" + std::string(k.key), field = with_values ? value : "UNDEF"; break;
        case Kind::Flag: field = "1"; break;
        }
        fields->push_back(field);
        if (k.kind != Kind::Flag)
            sections[k.section] += with_values ? std::string(k.key) + " = " + value + "\n" : "";
    }
    std::string ini;
    for (const auto &[section, lines] : sections)
        ini += "[" + section + "]\n" + lines;
    return ini;
}

TEST_F(LoaderTest, EveryKeyFillsItsOwnField)
{
    for (bool with_values : {true, false}) {
        std::vector<std::string> fields;
        board().write_file("/vendor/etc/product.ini", walk_ini(with_values, &fields));
        bi_init_product_config();
        ASSERT_NE(bi_product, nullptr);
        for (size_t i = 0; i < std::size(kKeys); ++i)
            EXPECT_EQ(kKeys[i].field(*bi_product), fields[i]) << kKeys[i].key << (with_values ? "" : " missing");
    }
}


TEST_F(LoaderTest, LogsTheSummaryOfTheDefaultBoard)
{
    bi_init_product_config();
    ASSERT_NE(bi_product, nullptr);
    EXPECT_EQ(bi_product->mod_id, 38432);

    EXPECT_THAT(log_of("vexa_system_bi_common"),
                ElementsAre("I/vexa_system_bi_common: bi_init_product_config: modid: 38432",
                            "I/vexa_system_bi_common: bi_init_product_config: mod_id = 38432, product_name = QR5PLUS",
                            "I/vexa_system_bi_common: usb_select_0:92 usb_select_1:93",
                            "I/vexa_system_bi_common: led_sys_gpio_id:34 led_sys.type:1",
                            "I/vexa_system_bi_common: led_network.gpio_id:35 led_network.type:1",
                            "I/vexa_system_bi_common: serial_lora_1.path:/dev/ttyS1",
                            "I/vexa_system_bi_common: serial_hdmi_1.path:/dev/ttyS2",
                            "I/vexa_system_bi_common: serial_232_1.path:/dev/ttyS3",
                            "I/vexa_system_bi_common: serial_232_2.path:/dev/ttyS4",
                            "I/vexa_system_bi_common: serial_485_1.path:/dev/ttyS5",
                            "I/vexa_system_bi_common: serial_485_2.path:/dev/ttyS6",
                            "I/vexa_system_bi_common: serial_ttl_1.path:/dev/ttyS7",
                            "I/vexa_system_bi_common: serial_ttl_2.path:/dev/ttyS8",
                            "I/vexa_system_bi_common: watchdog.wdt_dev:/dev/watchdog watchdog.wdt_timeout:10 "
                            "watchdog.wdt_interval:2",
                            "I/vexa_system_bi_common: audio_0.path:/dev/i2c-1 audio_0.device_addr:0x1a audio_0.type:1",
                            "I/vexa_system_bi_common: audio_1.path:/dev/i2c-2 audio_1.device_addr:0x1b audio_1.type:1",
                            "I/vexa_system_bi_common: rtc_0.path:/dev/i2c-3 rtc_0.device_addr:0x51 "
                            "rtc_0.status_addr:0x2"));
}

TEST_F(LoaderTest, UnreadableIniOrProductInfo)
{
    board().remove_file("/vendor/etc/product.ini");
    ::testing::internal::CaptureStderr();
    bi_init_product_config();
    const std::string err = ::testing::internal::GetCapturedStderr();
    ASSERT_NE(bi_product, nullptr);
    EXPECT_EQ(err.rfind("cannot parse file: /vendor/etc/product.ini\nini empty \nini empty \n", 0), 0u) << err;
    // Paths stay empty rather than "UNDEF"; the rest reads as missing.
    EXPECT_STREQ(bi_product->serial_ttl_1.path, "");
    EXPECT_EQ(bi_product->led_cloud.gpio_id, -1);

    // Without the product information the record stays all zero, in place.
    bi_product_config_t *first = bi_product;
    board().clear_log();
    board().inject(sim::Fault::on("hal_info_get_product_info").returns(-5).once());
    bi_init_product_config();
    EXPECT_EQ(bi_product, first);
    const std::vector<char> zero(sizeof(bi_product_config_t), 0);
    EXPECT_EQ(std::memcmp(bi_product, zero.data(), zero.size()), 0);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_common: bi_init_product_config:parse product info failed!"));
}

TEST_F(LoaderTest, ModuleId8459SelectsThePz25File)
{
    const std::string pz25 = ini_with("product", "PZ25", sim::default_product_ini());
    for (const char *modid : {"8459", "08459", "8459abc", "", "8458", "x8459"}) {
        rebuild(sim::Board::Builder().ini_pz25(pz25).module_id(modid));
        bi_init_product_config();
        ASSERT_NE(bi_product, nullptr);
        const bool pz = std::atoi(modid) == 8459;
        EXPECT_STREQ(bi_product->product_name, pz ? "PZ25" : "QR5PLUS") << modid;
    }
}

TEST_F(LoaderTest, OverlongValuesAreCutToTheirField)
{
    const std::string long_path = "/dev/" + std::string(400, 'x');
    board().write_file("/vendor/etc/product.ini", ini_with("serial_ttl_2", long_path));
    bi_init_product_config();
    EXPECT_EQ(std::string(bi_product->serial_ttl_2.path), long_path.substr(0, 255));
    EXPECT_TRUE(logged("E/vexa_system_bi_common: get_string: value of serial:serial_ttl_2 is 405 bytes, cut to 255"));
}

TEST_F(LoaderTest, IniGetters)
{
    board().write_file("/data/test.ini", "[a]\nn = 12\nd = 2.5\nb = yes\ns = text\n");
    void *dict = bi_common_load_ini_file("/data/test.ini");
    ASSERT_NE(dict, nullptr);
    char dst[BI_COMMON_INI_STRING_MAX] = "kept";
    EXPECT_EQ(bi_common_ini_get_int(dict, "a", "n") + bi_common_ini_get_int(dict, "a", "missing"), 11);
    EXPECT_EQ(bi_common_ini_get_double(dict, "a", "d"), 2.5);
    EXPECT_EQ(bi_common_ini_get_boolean(dict, "a", "b") + bi_common_ini_get_boolean(dict, "a", "x"), 0);
    EXPECT_EQ(bi_common_ini_get_string(dict, "a", "s", dst), 0);
    EXPECT_STREQ(dst, "text");
    EXPECT_EQ(bi_common_ini_get_string(dict, "a", "missing", dst), 0);
    EXPECT_STREQ(dst, "UNDEF");
    EXPECT_EQ(bi_common_ini_free(dict), 0);

    ::testing::internal::CaptureStderr();
    EXPECT_EQ(bi_common_load_ini_file("/data/none.ini"), nullptr);
    EXPECT_EQ(bi_common_ini_get_int(nullptr, "led", "led_sys"), -1);
    EXPECT_EQ(bi_common_ini_get_double(nullptr, "adc", "adc_board_config_vref"), -1.0);
    EXPECT_EQ(bi_common_ini_get_boolean(nullptr, "led", "led_sys"), -1);
    EXPECT_EQ(bi_common_ini_get_string(nullptr, "serial", "serial_485_1", dst), -1);
    EXPECT_THAT(::testing::internal::GetCapturedStderr(),
                ::testing::EndsWith("cannot parse file: /data/none.ini\nini empty \nini empty \nini empty \nini empty \n"));
    EXPECT_STREQ(dst, "UNDEF");
    EXPECT_EQ(bi_common_ini_free(nullptr), 0);
}

} // namespace
} // namespace vexa::test
