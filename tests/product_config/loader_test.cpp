#include <cstring>
#include <vector>

#include "support/board_fixture.h"
#include "support/ini_text.h"
#include "vexasdk/product_config.h"

namespace vexa::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class LoaderTest : public BoardTest {};

TEST_F(LoaderTest, FillsTheRecordFromTheDefaultBoard)
{
    bi_init_product_config();
    ASSERT_NE(bi_product, nullptr);
    const bi_product_config_t &p = *bi_product;
    EXPECT_EQ(p.mod_id, 38432);
    EXPECT_STREQ(p.product_name, "QR5PLUS");
    EXPECT_EQ(p.led_sys.type, 1);
    EXPECT_EQ(p.led_sys.gpio_id, 34);
    EXPECT_EQ(p.reset_4g.gpio_id, 89);
    EXPECT_STREQ(p.serial_485_2.path, "/dev/ttyS6");
    EXPECT_STREQ(p.hdmi_edid.path, "/dev/block/by-name/defined");
    EXPECT_EQ(p.audio_1.device_addr, 0x1b);
    EXPECT_EQ(p.audio_1.type, 1);
    EXPECT_EQ(p.clock_0.status_addr, 0x0f);
    EXPECT_FLOAT_EQ(p.adc_board_id.vref, 1.8f);
    EXPECT_EQ(p.adc_board_voltage.r1, 100000);
    EXPECT_STREQ(p.usb_path[3], "/sys/class/vexagpios/USB4_EN/value");
    EXPECT_STREQ(p.hdmi_out_path[1], "/sys/class/drm/card0-HDMI-A-2/status");
    EXPECT_STREQ(p.phy_state_cmd[1], "cat /sys/class/net/eth1/carrier");
    EXPECT_EQ(p.external_relay_num, 4);
    EXPECT_EQ(p.watchdog.wdt_timeout, 10u);

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
                            "rtc_0.status_addr:0x0"));
}

TEST_F(LoaderTest, MissingKeysReadAsMinusOneUndefAndAllOnes)
{
    std::string ini = ini_with("led_sys", std::nullopt);
    ini = ini_with("led_network", "0", ini);
    ini = ini_with("serial_485_1", std::nullopt, ini);
    ini = ini_with("i2c_audio_0_device", std::nullopt, ini);
    ini = ini_with("i2c_audio_0_enable_addr", "0x11A", ini);
    ini = ini_with("adc_board_config_vref", std::nullopt, ini);
    ini = ini_with("wdt_timeout", std::nullopt, ini);
    rebuild(sim::Board::Builder().ini(ini));

    bi_init_product_config();
    ASSERT_NE(bi_product, nullptr);
    EXPECT_EQ(bi_product->led_sys.type, 1);
    EXPECT_EQ(bi_product->led_sys.gpio_id, -1);
    EXPECT_EQ(bi_product->led_network.type, 1);
    EXPECT_EQ(bi_product->led_network.gpio_id, 0);
    EXPECT_STREQ(bi_product->serial_485_1.path, "UNDEF");
    EXPECT_EQ(bi_product->audio_0.device_addr, 0xff);
    EXPECT_EQ(bi_product->audio_0.enable_addr, 0x1a); // cut to its low 8 bits
    EXPECT_FLOAT_EQ(bi_product->adc_board_id.vref, -1.0f);
    EXPECT_EQ(bi_product->watchdog.wdt_timeout, 0xffffffffu);
}

TEST_F(LoaderTest, UnreadableIniLeavesPathsEmptyAndSaysSo)
{
    board().remove_file("/vendor/etc/product.ini");
    ::testing::internal::CaptureStderr();
    bi_init_product_config();
    const std::string err = ::testing::internal::GetCapturedStderr();
    ASSERT_NE(bi_product, nullptr);
    EXPECT_EQ(err.rfind("cannot parse file: /vendor/etc/product.ini\nini empty \nini empty \n", 0), 0u) << err;
    EXPECT_EQ(bi_product->mod_id, 38432);
    EXPECT_STREQ(bi_product->product_name, "");
    EXPECT_STREQ(bi_product->serial_ttl_1.path, "");
    EXPECT_EQ(bi_product->led_cloud.gpio_id, -1);
    EXPECT_EQ(bi_product->audio_1.disable, 0xff);
    EXPECT_FLOAT_EQ(bi_product->adc_board_temperature.vin, -1.0f);
}

TEST_F(LoaderTest, ModuleId8459SelectsThePz25File)
{
    const std::string pz25 = ini_with("product", "PZ25", sim::default_product_ini());
    for (const char *modid : {"8459", "08459", "8459abc"}) {
        rebuild(sim::Board::Builder().ini_pz25(pz25).module_id(modid));
        bi_init_product_config();
        ASSERT_NE(bi_product, nullptr);
        EXPECT_STREQ(bi_product->product_name, "PZ25") << modid;
        EXPECT_EQ(bi_product->mod_id, 8459);
    }
    for (const char *modid : {"", "8458", "x8459"}) {
        rebuild(sim::Board::Builder().ini_pz25(pz25).module_id(modid));
        bi_init_product_config();
        ASSERT_NE(bi_product, nullptr);
        EXPECT_STREQ(bi_product->product_name, "QR5PLUS") << modid;
    }
}

TEST_F(LoaderTest, ProductInfoFailureLeavesAnEmptyRecord)
{
    board().inject(sim::Fault::on("hal_info_get_product_info").returns(-5).once());
    bi_init_product_config();
    ASSERT_NE(bi_product, nullptr);
    const std::vector<char> zero(sizeof(bi_product_config_t), 0);
    EXPECT_EQ(std::memcmp(bi_product, zero.data(), zero.size()), 0);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_common: bi_init_product_config:parse product info failed!"));
}

TEST_F(LoaderTest, ReloadingGivesTheSameRecordInPlace)
{
    bi_init_product_config();
    bi_product_config_t *first = bi_product;
    const bi_product_config_t once = *bi_product;
    bi_init_product_config();
    EXPECT_EQ(bi_product, first);
    EXPECT_EQ(std::memcmp(bi_product, &once, sizeof once), 0);

    // A reload after the file changed shows the change and nothing of before.
    board().write_file("/vendor/etc/product.ini", ini_with("led_sys", std::nullopt));
    bi_init_product_config();
    EXPECT_EQ(bi_product->led_sys.gpio_id, -1);
    EXPECT_EQ(bi_product->led_network.gpio_id, 35);
}

TEST_F(LoaderTest, OverlongValuesAreCutToTheirField)
{
    const std::string long_path = "/dev/" + std::string(400, 'x');
    rebuild(sim::Board::Builder().ini(ini_with("serial_ttl_2", long_path)));
    bi_init_product_config();
    ASSERT_NE(bi_product, nullptr);
    EXPECT_EQ(std::strlen(bi_product->serial_ttl_2.path), 255u);
    EXPECT_EQ(std::string(bi_product->serial_ttl_2.path), long_path.substr(0, 255));
    EXPECT_STREQ(bi_product->serial_485_1.path, "/dev/ttyS5");
    EXPECT_TRUE(logged("E/vexa_system_bi_common: get_string: value of serial:serial_ttl_2 is 405 bytes, cut to 255"));
}

TEST_F(LoaderTest, GettersOnANullDictionary)
{
    char dst[BI_COMMON_INI_STRING_MAX] = "kept";
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(bi_common_ini_get_int(nullptr, "led", "led_sys"), -1);
    EXPECT_EQ(bi_common_ini_get_double(nullptr, "adc", "adc_board_config_vref"), -1.0);
    EXPECT_EQ(bi_common_ini_get_boolean(nullptr, "led", "led_sys"), -1);
    EXPECT_EQ(bi_common_ini_get_string(nullptr, "serial", "serial_485_1", dst), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "ini empty \nini empty \nini empty \nini empty \n");
    EXPECT_STREQ(dst, "kept");
    EXPECT_EQ(bi_common_ini_free(nullptr), 0);
}

TEST_F(LoaderTest, GettersOnALoadedFile)
{
    board().write_file("/data/test.ini", "[a]\nn = 12\nd = 2.5\nb = yes\ns = text\n");
    void *dict = bi_common_load_ini_file("/data/test.ini");
    ASSERT_NE(dict, nullptr);
    char dst[BI_COMMON_INI_STRING_MAX];
    EXPECT_EQ(bi_common_ini_get_int(dict, "a", "n"), 12);
    EXPECT_EQ(bi_common_ini_get_int(dict, "a", "missing"), -1);
    EXPECT_EQ(bi_common_ini_get_double(dict, "a", "d"), 2.5);
    EXPECT_EQ(bi_common_ini_get_boolean(dict, "a", "b"), 1);
    EXPECT_EQ(bi_common_ini_get_boolean(dict, "a", "missing"), -1);
    EXPECT_EQ(bi_common_ini_get_string(dict, "a", "s", dst), 0);
    EXPECT_STREQ(dst, "text");
    EXPECT_EQ(bi_common_ini_get_string(dict, "a", "missing", dst), 0);
    EXPECT_STREQ(dst, "UNDEF");
    EXPECT_EQ(bi_common_ini_free(dict), 0);

    ::testing::internal::CaptureStderr();
    EXPECT_EQ(bi_common_load_ini_file("/data/none.ini"), nullptr);
    EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("cannot parse file: /data/none.ini\n"));
}

} // namespace
} // namespace vexa::test
