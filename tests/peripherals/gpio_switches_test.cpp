#include <string>

#include "support/board_fixture.h"
#include "support/ini_text.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace vexa::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using GpioTest = ProductTest;

TEST_F(GpioTest, SysLedDrivesItsLineAndPrintsIt)
{
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(bi_sysled_set_state(1), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "bi_sysled_set_state:gpio_id=34,state=1\n");
    EXPECT_EQ(board().line(34), 1);
    EXPECT_EQ(board().line_direction(34), "out");
    EXPECT_EQ(bi_sysled_get_state(), 1);
    board().set_line(34, 0);
    EXPECT_EQ(bi_sysled_get_state(), 0);
    EXPECT_THAT(board().log_lines(), IsEmpty());
}

TEST_F(GpioTest, SysLedRefusesAMissingOrZeroId)
{
    for (std::optional<std::string> value : {std::optional<std::string>("0"), std::optional<std::string>()}) {
        configure("led_sys", value);
        const std::string id = value ? *value : "-1";
        const std::string set_line = "E/vexa_system_bi_led: bi_sysled_set_state:bi_product is NULL or invaild "
                                     "led_sys.gpio_id is " + id + ", need to check ini file.";
        const std::string get_line = "E/vexa_system_bi_led: bi_sysled_get_state:bi_product is NULL or invaild "
                                     "led_sys.gpio_id is " + id + ", need to check ini file.";
        EXPECT_EQ(bi_sysled_set_state(1), -1);
        EXPECT_EQ(bi_sysled_get_state(), -1);
        EXPECT_THAT(board().log_lines(), ElementsAre(set_line, get_line));
    }
}

// The three id tests at their boundaries: the line is driven when the id
// passes; otherwise the member's own error text is logged.
struct Boundary {
    int id;
    bool positive;     // id > 0
    bool one_to_998;   // 1..998
    bool below_1000;   // < 1000 and not 0
};

class IdTest : public GpioTest, public ::testing::WithParamInterface<Boundary> {};

TEST_P(IdTest, EachFamilyJudgesTheIdItsOwnWay)
{
    const Boundary b = GetParam();
    const std::string id = std::to_string(b.id);

    configure("led_network", id);
    EXPECT_EQ(bi_netled_set_state(1), b.positive ? 0 : -1);
    if (!b.positive) {
        EXPECT_THAT(board().log_lines(),
                    ElementsAre("E/vexa_system_bi_led: bi_netled_set_state:bi_product is NULL or invaild "
                                "led_network.gpio_id is " + id + ", need to check ini file."));
    }

    configure("led_switch", id);
    EXPECT_EQ(bi_switchled_set_state(1), b.one_to_998 ? 0 : -1);
    if (!b.one_to_998) {
        EXPECT_THAT(board().log_lines(),
                    ElementsAre("E/vexa_system_bi_led: <bi_switchled_set_state>: bi_product is NULL or invaild "
                                "led_switch.gpio_id is " + id + ", need to check ini file."));
    }

    configure("interior_relay", id);
    const int relay = bi_relay_set_state(1);
    if (b.below_1000) {
        // -1 passes the test and reaches the HAL, which has no line -1.
        EXPECT_EQ(relay, b.id > 0 ? 0 : -1);
        EXPECT_THAT(board().log_lines(),
                    ElementsAre("D/vexa_system_bi_misc: <bi_relay_set_state>: enter, state = 1"));
    } else {
        EXPECT_EQ(relay, -1);
        EXPECT_THAT(board().log_lines(),
                    ElementsAre("D/vexa_system_bi_misc: <bi_relay_set_state>: enter, state = 1",
                                "E/vexa_system_bi_misc: <bi_relay_set_state>: relay_id error!!!"));
    }
    if (b.below_1000 && b.id > 0) {
        EXPECT_EQ(board().line(b.id), 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Boundaries, IdTest,
                         ::testing::Values(Boundary{-1, false, false, true}, Boundary{0, false, false, false},
                                           Boundary{1, true, true, true}, Boundary{998, true, true, true},
                                           Boundary{999, true, false, true}, Boundary{1000, true, false, false}),
                         [](const auto &info) {
                             return info.param.id < 0 ? std::string("minus_1") : std::to_string(info.param.id);
                         });

TEST_F(GpioTest, MissingRelayAndFourGLinesReachTheHalAsMinusOne)
{
    rebuild(sim::Board::Builder().ini(ini_with("4g_reset", std::nullopt, ini_with("4g_power", std::nullopt))));
    load();
    board().inject(sim::Fault::on("hal_gpio_set_value").at("-1").returns(7));
    board().inject(sim::Fault::on("hal_gpio_get_value").at("-1").returns(9));
    EXPECT_EQ(bi_4g_module_set_state(1), 7);
    EXPECT_EQ(bi_4g_power_get_state(), 9);

    configure("4g_reset", "1000");
    EXPECT_EQ(bi_4g_module_set_state(1), -1);
    EXPECT_EQ(bi_4g_module_get_state(), -1);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("D/vexa_system_bi_misc: <bi_4g_module_set_state>: enter, state = 1",
                            "E/vexa_system_bi_misc: <bi_4g_module_set_state>: 4g_id error!!!",
                            "D/vexa_system_bi_misc: <bi_4g_module_get_state>: enter",
                            "E/vexa_system_bi_misc: <bi_4g_module_get_state>: relay_id error!!!"));
}

TEST_F(GpioTest, HalFailuresComeBackUnchanged)
{
    board().inject(sim::Fault::on("hal_gpio_set_value").returns(-5).once());
    EXPECT_EQ(bi_netled_set_state(1), -5);
    board().inject(sim::Fault::on("hal_gpio_get_value").returns(-7).once());
    EXPECT_EQ(bi_cloudled_get_state(), -7);
}

TEST_F(GpioTest, ErrorTextsOfTheQuirkyMembers)
{
    struct Case {
        const char *key;
        const char *value;
        int (*call)();
        const char *line;
    };
    const Case cases[] = {
        {"led_4gwork", "-1", [] { return bi_4gled_get_state(); },
         "E/vexa_system_bi_led: bi_4gled_get_state:bi_product is NULL or invaild led_4g.gpio_id is -1, need to "
         "check ini file."},
        {"sub_card_led", "0", [] { return bi_usb_sub_card_led_enable(1); },
         "E/vexa_system_bi_misc: bi_usb_sub_card_led_enable:bi_product is NULL or invaild pc_ctrl.gpio_id is 0, "
         "need to check ini file."},
        {"ops_usb", "0", [] { return bi_ops_set_usb_port(1); }, "E/vexa_system_bi_ops_usb_port: ops_usb_id error!!!"},
        {"ops_switch", "-1", [] { return bi_ops_get_switch_state(); },
         "E/vexa_system_bi_ops_usb_port: ops_switch_id error!!!"},
        {"led_running", "-3", [] { return bi_runningled_get_state(); },
         "E/vexa_system_bi_led: <bi_runningled_get_state>: bi_product is NULL or invaild led_running.gpio_id is "
         "-3, need to check ini file."},
        {"peripheral_relay_3", "0", [] { return bi_peripheral_relay_enable(3, 1); },
         "E/vexa_system_bi_misc: bi_peripheral_relay_enable: bi_product is NULL or invaild "
         "peripheral_relay_3.gpio_id, need to check ini file."},
        {"lora_check", "999", [] { return bi_lora_get_state(); },
         "E/vexa_system_bi_misc: <bi_lora_get_state>: bi_product is NULL or invaild lora_check.gpio_id is 999, "
         "need to check ini file."},
        {"ops_detect", "0", [] { return bi_ops_detect_get_state(); },
         "E/vexa_system_bi_ops_usb_port: bi_ops_detect_get_state:bi_product is NULL or invaild "
         "ops_detect.gpio_id is 0, need to check ini file."},
    };
    for (const Case &c : cases) {
        configure(c.key, std::string(c.value));
        EXPECT_EQ(c.call(), -1) << c.key;
        EXPECT_THAT(board().log_lines(), ElementsAre(c.line)) << c.key;
    }
}

TEST_F(GpioTest, SuccessNotesOfTheMiscMembers)
{
    EXPECT_EQ(bi_factory_tools_enable(1), 0);
    EXPECT_EQ(bi_factory_tools_get_status(), 1);
    EXPECT_EQ(bi_runningled_set_state(1), 0);
    EXPECT_EQ(bi_fan_simple_set_status(1), 0);
    EXPECT_EQ(bi_ops_get_usb_port(), 0);
    EXPECT_EQ(bi_peripheral_relay_enable(2, 1), 0);
    EXPECT_EQ(bi_peripheral_relay_get_status(2), 1);
    EXPECT_EQ(board().line(83), 1);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("I/vexa_system_bi_misc: bi_factory_tools_enable: factory_tools_id = 80, enable = 1",
                            "I/vexa_system_bi_misc: bi_factory_tools_get_status: factory_tools_id = 80",
                            "E/vexa_system_bi_led: bi_runningled_set_state:39",
                            "D/vexa_system_bi_fan: <bi_fan_simple_set_status>: gpio_id=50, status=1",
                            "D/vexa_system_bi_ops_usb_port: bi_ops_get_usb_port:ops_usb_id = 70",
                            "I/vexa_system_bi_misc: bi_peripheral_relay_enable: relay_id = 83, enable = 1",
                            "I/vexa_system_bi_misc: bi_peripheral_relay_get_status: relay_id = 83"));
}

TEST_F(GpioTest, RelayFallsThroughToLineMinusOne)
{
    board().inject(sim::Fault::on("hal_gpio_set_value").at("-1").returns(3));
    EXPECT_EQ(bi_peripheral_relay_enable(5, 1), 3);
    EXPECT_EQ(bi_peripheral_relay_get_status(0), -1); // the board has no line -1
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_misc: bi_peripheral_relay_enable: not support dev_num = 5, dev_num "
                            "must be 1-4",
                            "I/vexa_system_bi_misc: bi_peripheral_relay_enable: relay_id = -1, enable = 1",
                            "E/vexa_system_bi_misc: bi_peripheral_relay_get_status: not support dev_num = 0, "
                            "dev_num must be 1-4",
                            "I/vexa_system_bi_misc: bi_peripheral_relay_get_status: relay_id = -1"));
}

TEST_F(GpioTest, TriColourRedLineIsInverted)
{
    EXPECT_EQ(bi_triled_set_state(1, 1, 0), 0);
    EXPECT_EQ(board().line(40), 0);
    EXPECT_EQ(board().line(41), 1);
    EXPECT_EQ(board().line(42), 0);
    EXPECT_EQ(bi_triled_get_state(), 0);
    EXPECT_EQ(bi_triled_set_state(0, 1, 0), 0);
    EXPECT_EQ(board().line(40), 1);
    EXPECT_EQ(bi_triled_get_state(), 1);
    EXPECT_EQ(bi_triled_set_state(7, 0, 1), 0); // any non-zero red darkens it
    EXPECT_EQ(board().line(40), 0);
    EXPECT_EQ(board().line(42), 1);
}

TEST_F(GpioTest, TriColourFailures)
{
    board().inject(sim::Fault::on("hal_gpio_set_value").at("41").returns(-4).once());
    EXPECT_EQ(bi_triled_set_state(0, 1, 0), -1);
    board().inject(sim::Fault::on("hal_gpio_get_value").at("40").returns(-2).once());
    EXPECT_EQ(bi_triled_get_state(), 0); // a failed read is no -1
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_led: <bi_triled_set_state>: gpio_green_setvalue failed, ret = -4",
                            "E/vexa_system_bi_led: <bi_triled_get_state>: gpio_red_getvalue failed, ret = -2",
                            "D/vexa_system_bi_led: <bi_triled_get_state>: gpio_red_getvalue = -2",
                            "D/vexa_system_bi_led: <bi_triled_get_state>: gpio_green_getvalue = 0",
                            "D/vexa_system_bi_led: <bi_triled_get_state>: gpio_blue_getvalue = 0"));

    configure("led_tri_green", "0");
    EXPECT_EQ(bi_triled_set_state(0, 1, 0), -1);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_led: bi_triled_set_state:bi_product is NULL or invaild "
                            "led_tri_red.gpio_id is 40, led_tri_green.gpio_id is 0, led_tri_blue.gpio_id is "
                            "42need to check ini file."));
}

TEST_F(GpioTest, UsbSelectorDrivesTwoBits)
{
    const int expected[4][2] = {{0, 0}, {1, 0}, {0, 1}, {1, 1}};
    for (unsigned port = 0; port < 4; ++port) {
        EXPECT_EQ(bi_usb_set_switch_enable(port), 0);
        EXPECT_EQ(board().line(92), expected[port][0]);
        EXPECT_EQ(board().line(93), expected[port][1]);
        EXPECT_EQ(bi_usb_get_switch_enable(), static_cast<int>(port));
    }
    board().clear_log();
    EXPECT_EQ(bi_usb_set_switch_enable(7), 0);
    EXPECT_EQ(board().line(92), 1); // unchanged
    EXPECT_THAT(board().log_lines(),
                ElementsAre("D/vexa_system_bi_ops_usb_port: bi_usb_set_switch_enable:enter",
                            "D/vexa_system_bi_ops_usb_port: bi_usb_set_switch_enable: not support en_usb_id = 7, "
                            "should be 0 to 3"));

    board().clear_log();
    board().inject(sim::Fault::on("hal_gpio_get_value").at("93").returns(2).once());
    EXPECT_EQ(bi_usb_get_switch_enable(), -1);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("D/vexa_system_bi_ops_usb_port: bi_usb_get_switch_enable:enter",
                            "D/vexa_system_bi_ops_usb_port: bi_usb_get_switch_enable:usb_sel_0_val = 1, "
                            "usb_sel_1_val = 2",
                            "E/vexa_system_bi_ops_usb_port: bi_usb_get_switch_enable: invalid usb_sel_0_val = 1, "
                            "usb_sel_1_val = 2"));

    configure("usb_select_1", std::nullopt);
    EXPECT_EQ(bi_usb_set_switch_enable(1), -1);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("D/vexa_system_bi_ops_usb_port: bi_usb_set_switch_enable:enter",
                            "E/vexa_system_bi_ops_usb_port: bi_usb_set_switch_enable: invalid usb_select_gpio_0(92) "
                            "or usb_select_gpio_1(4294967295) <= 0"));
}

TEST_F(GpioTest, ExternalRelayNumber)
{
    int32_t n = 42;
    EXPECT_EQ(bi_get_external_relay_number(&n), 0);
    EXPECT_EQ(n, 4);
    configure("external_relay_num", "0");
    EXPECT_EQ(bi_get_external_relay_number(&n), 0);
    EXPECT_EQ(n, 0);
    configure("external_relay_num", std::nullopt);
    n = 42;
    EXPECT_EQ(bi_get_external_relay_number(&n), -1);
    EXPECT_EQ(n, 42);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_misc: bi_get_external_relay_number:bi_product is NULL or invaild "
                            "relay_num is -1, need to check ini file."));
}

TEST_F(GpioTest, WithoutARecordEveryMemberRefuses)
{
    bi_product_config_t *saved = bi_product;
    bi_product = nullptr;
    EXPECT_EQ(bi_sysled_set_state(1), -1);
    EXPECT_EQ(bi_relay_get_state(), -1);
    EXPECT_EQ(bi_triled_get_state(), -1);
    EXPECT_EQ(bi_usb_get_switch_enable(), -1);
    int32_t n = 5;
    EXPECT_EQ(bi_get_external_relay_number(&n), -1);
    bi_product = saved;
    EXPECT_EQ(board().lines().size(), 0u);
    EXPECT_TRUE(logged("E/vexa_system_bi_led: bi_sysled_set_state:bi_product is NULL or invaild led_sys.gpio_id "
                       "is -1, need to check ini file."));
}

TEST_F(GpioTest, BitHelpersAndPlaceholders)
{
    uint64_t word = 0;
    bi_set_bit(&word, 0);
    bi_set_bit(&word, 63);
    bi_set_bit(&word, 64);
    EXPECT_EQ(word, 0x8000000000000001ull);
    EXPECT_EQ(bi_get_bit(word, 63), 1);
    EXPECT_EQ(bi_get_bit(word, 62), 0);
    EXPECT_EQ(bi_get_bit(~0ull, 64), 0);
    bi_clear_bit(&word, 63);
    bi_clear_bit(&word, 100);
    EXPECT_EQ(word, 1u);

    EXPECT_EQ(bi_power_low_power_mode(), 0);
    EXPECT_EQ(bi_power_normal_mode(), 0);
    EXPECT_THAT(board().log_lines(), ElementsAre("D/vexa_system_bi_power: bi_power_low_power_mode: enter",
                                                 "D/vexa_system_bi_power: bi_power_normal_mode: enter"));
}

TEST_F(GpioTest, QrxxMuteFileTakesTheInverse)
{
    const char *mute = "/sys/class/rk817_codec/rk817_codec/mute";
    EXPECT_EQ(bi_set_qrxx_volume_status(1), -1); // no codec file yet
    board().write_file(mute, "");
    EXPECT_EQ(bi_set_qrxx_volume_status(1), 0);
    EXPECT_EQ(board().read_file(mute), "0");
    EXPECT_EQ(bi_set_qrxx_volume_status(0), 0);
    EXPECT_EQ(board().read_file(mute), "1");
    EXPECT_EQ(bi_set_qrxx_volume_status(2), -1);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_misc: <bi_set_qrxx_volume_status>, open "
                            "/sys/class/rk817_codec/rk817_codec/mute ",
                            "E/vexa_system_bi_misc: Invalid status value: 2 (must be 0 or 1)"));
}

} // namespace
} // namespace vexa::test
