// The update configuration record and the product properties published with it.
#include <cstring>

#include "support/board_fixture.h"
#include "support/ini_text.h"
#include "vexasdk/selftest.h"

namespace {

class ConfigInfoTest : public vexa::test::BoardTest {
protected:
    void reload(const std::string &ini)
    {
        rebuild(vexa::sim::Board::Builder().ini(ini));
    }
    std::vector<std::string> lines() { return log_of("vexa_system_hidl_service"); }
};

TEST_F(ConfigInfoTest, DefaultBoardFillsEveryField)
{
    ASSERT_EQ(parseConfigInfo(), 0);
    ASSERT_TRUE(config_info);
    const config_info_t &c = *config_info;
    EXPECT_STREQ(c.product, "QR5PLUS");
    EXPECT_EQ(c.mod_id, 38432);
    EXPECT_EQ(c.mcu_updating, 0);
    EXPECT_EQ(c.mcu_type, 1);
    EXPECT_STREQ(c.mcu_serial, "gd32f303");
    EXPECT_STREQ(c.mcu_fw_path, "/vendor/etc/mcu/mcu_fw.bin");
    EXPECT_STREQ(c.mcu_fw_version, "V1.0.2.0");
    EXPECT_STREQ(c.mcu_uart_path, "/dev/ttyS9");
    EXPECT_EQ(c.mcu_baud_rate, 115200);
    EXPECT_EQ(c.mcu_wdt_switch, 91);
    EXPECT_EQ(c.mcu_wdt_pulse, 1);
    EXPECT_STREQ(c.mcu_sock_path, "/dev/socket/vexa_mcu");
    EXPECT_EQ(c.fpga_control_gpio, 60);
    EXPECT_EQ(c.fpga_done_gpio, 62);
    EXPECT_STREQ(c.fpga_parameter, "/dev/block/by-name/screen");
    EXPECT_STREQ(c.self_test_items, "1-2-3-4-5-6-7-8-9-10-11-12");
    EXPECT_EQ(c.audio_num, 1);
    EXPECT_EQ(board().property("ro.product.modid"), "38432");
    EXPECT_TRUE(logged("D/vexa_system_hidl_service: parseConfigInfo, setprop ro.product.modid 38432"));
    EXPECT_TRUE(logged("D/vexa_system_hidl_service: parseConfigInfo: product ro.product.sn is NULL"));
    EXPECT_TRUE(logged("D/vexa_system_hidl_service: parseConfigInfo: mod_id: 38432"));
}

TEST_F(ConfigInfoTest, ProductInformationBecomesProperties)
{
    std::string info(2048, '\0');
    auto put = [&](size_t at, const std::string &text) { info.replace(at, text.size(), text); };
    put(0, "QR5PLUS");
    put(64, "8459");
    put(96, "QR");
    put(128, std::string(400, 'S')); // longer than a property holds
    put(1856, "sending");
    board().write_file("/.board/product_info", info);
    board().write_file("/vendor/etc/product_pz25.ini",
                       vexa::test::ini_with("mcu_fw_version", std::string("V7.7.7.7")));
    ASSERT_EQ(parseConfigInfo(), 0);
    EXPECT_EQ(board().property("ro.product.name"), "QR5PLUS");
    EXPECT_EQ(board().property("ro.product.series"), "QR");
    EXPECT_EQ(board().property("ro.product.cardtype"), "sending");
    EXPECT_EQ(board().property("ro.product.sn"), std::string(91, 'S'));
    EXPECT_EQ(board().property("ro.product.bominfo"), "");
    // Module 8459 reads its own INI file.
    EXPECT_EQ(config_info->mod_id, 8459);
    EXPECT_STREQ(config_info->mcu_fw_version, "V7.7.7.7");
}

TEST_F(ConfigInfoTest, OutOfRangeNumbersTakeTheirDefaults)
{
    std::string ini = vexa::test::ini_with("mcu_type", std::string("-3"));
    ini = vexa::test::ini_with("fpga_config_gpio", std::string("0"), ini);
    ini = vexa::test::ini_with("fpga_done_gpio", std::nullopt, ini);
    ini = vexa::test::ini_with("audio_num", std::string("-1"), ini);
    reload(ini);
    ASSERT_EQ(parseConfigInfo(), 0);
    EXPECT_EQ(config_info->mcu_type, 1);
    EXPECT_EQ(config_info->fpga_config_gpio, 999);
    EXPECT_EQ(config_info->fpga_done_gpio, 999);
    EXPECT_EQ(config_info->fpga_control_gpio, 60);
    EXPECT_EQ(config_info->audio_num, 0);
    EXPECT_THAT(lines(), ::testing::IsSupersetOf({
                             "E/vexa_system_hidl_service: parseConfigInfo: invalid mcu_type = -3, use "
                             "default 1",
                             "E/vexa_system_hidl_service: parseConfigInfo: invalid fpga_config_gpio_id = 0, "
                             "use default 999",
                             "E/vexa_system_hidl_service: parseConfigInfo: invalid fpga_done_gpio_id = -1, "
                             "use default 999",
                         }));
}

TEST_F(ConfigInfoTest, MissingStringsAreLoggedUnderTheirKnownNames)
{
    std::string ini = vexa::test::ini_with("fpga_parameter", std::nullopt);
    ini = vexa::test::ini_with("hex_parameter", std::nullopt, ini);
    ini = vexa::test::ini_with("mcu_fw_path", std::nullopt, ini);
    ini = vexa::test::ini_with("mcu_uart_path", std::nullopt, ini);
    ini = vexa::test::ini_with("mcu_sock_path", std::nullopt, ini);
    reload(ini);
    ASSERT_EQ(parseConfigInfo(), 0);
    EXPECT_STREQ(config_info->mcu_fw_path, "");
    EXPECT_STREQ(config_info->fpga_parameter, "");
    // The two block paths are reported under other keys' names.
    EXPECT_THAT(lines(), ::testing::IsSupersetOf({
                             "E/vexa_system_hidl_service: parseConfigInfo: fpga_drv_path is NULL",
                             "E/vexa_system_hidl_service: parseConfigInfo: fpga_fw_version is NULL",
                             "E/vexa_system_hidl_service: parseConfigInfo: mcu_fw_path is NULL",
                             "E/vexa_system_hidl_service: parseConfigInfo:config_info->mcu_sock_path is not "
                             "set, need to check ini file.",
                             "E/vexa_system_hidl_service: parseConfigInfo:config_info->mcu_uart_path is not "
                             "set, need to check ini file.",
                         }));
}

TEST_F(ConfigInfoTest, OverlongValuesAreCutToTheirFields)
{
    reload(vexa::test::ini_with("mcu_serial", std::string(40, 'g')));
    ASSERT_EQ(parseConfigInfo(), 0);
    EXPECT_EQ(std::string(config_info->mcu_serial), std::string(15, 'g'));
    EXPECT_STREQ(config_info->mcu_fw_path, "/vendor/etc/mcu/mcu_fw.bin");
    EXPECT_TRUE(logged("E/vexa_system_hidl_service: parseConfigInfo: mcu_serial is longer than 15 bytes, "
                       "cut to fit"));
}

TEST_F(ConfigInfoTest, RecordIsZeroedOnEveryCall)
{
    ASSERT_EQ(parseConfigInfo(), 0);
    config_info_t *first = config_info;
    config_info->mcu_updating = 1;
    reload(vexa::test::ini_with("product", std::nullopt));
    ASSERT_EQ(parseConfigInfo(), 0);
    EXPECT_EQ(config_info, first);
    EXPECT_EQ(config_info->mcu_updating, 0);
    EXPECT_STREQ(config_info->product, "");
}

TEST_F(ConfigInfoTest, UnreadableProductInformationFails)
{
    board().inject(vexa::sim::Fault::on("hal_info_get_product_info"));
    EXPECT_EQ(parseConfigInfo(), -1);
    EXPECT_TRUE(logged("E/vexa_system_hidl_service: parseConfigInfo:parse product info failed!"));
}

} // namespace
