#include <cstdio>
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

// The id tests of the family.
enum class IdTest { Positive, OneTo998, Below1000Not0 };

bool passes(IdTest test, int id)
{
    switch (test) {
    case IdTest::Positive: return id > 0;
    case IdTest::OneTo998: return id >= 1 && id <= 998;
    case IdTest::Below1000Not0: return id < 1000 && id != 0;
    }
    return false;
}

// One member pair of the family: its INI key, id test, tag and error texts
// (printf forms with the function name, then the id, where they print them).
struct Member {
    const char *key;
    IdTest test;
    const char *tag;
    const char *set_name;
    int (*set)(int); // null for the read-only members
    const char *set_error;
    const char *get_name;
    int (*get)();
    const char *get_error;
};

#define LED "vexa_system_bi_led"
#define MISC "vexa_system_bi_misc"
#define OPS "vexa_system_bi_ops_usb_port"
#define FAN "vexa_system_bi_fan"
#define STEP1(name) "%s:bi_product is NULL or invaild " name ".gpio_id is %d, need to check ini file."
#define ANGLED(name) "<%s>: bi_product is NULL or invaild " name ".gpio_id is %d, need to check ini file."
#define RELAY(n) "%s: bi_product is NULL or invaild peripheral_relay_" #n ".gpio_id, need to check ini file."
#define BOTH(set, error_set, get, error_get) #set, set, error_set, #get, get, error_get

const Member kMembers[] = {
    {"led_sys", IdTest::Positive, LED,
     BOTH(bi_sysled_set_state, STEP1("led_sys"), bi_sysled_get_state, STEP1("led_sys"))},
    {"led_network", IdTest::Positive, LED,
     BOTH(bi_netled_set_state, STEP1("led_network"), bi_netled_get_state, STEP1("led_network"))},
    {"led_4gwork", IdTest::Positive, LED,
     BOTH(bi_4gled_set_state, STEP1("led_4g"), bi_4gled_get_state, STEP1("led_4g"))},
    {"led_position", IdTest::Positive, LED,
     BOTH(bi_position_led_set_state, STEP1("led_position"), bi_position_led_get_state, STEP1("led_position"))},
    {"led_switch", IdTest::OneTo998, LED,
     BOTH(bi_switchled_set_state, ANGLED("led_switch"), bi_switchled_get_state, ANGLED("led_switch"))},
    {"led_running", IdTest::Positive, LED,
     BOTH(bi_runningled_set_state, ANGLED("led_running"), bi_runningled_get_state, ANGLED("led_running"))},
    {"led_cloud", IdTest::Positive, LED,
     BOTH(bi_cloudled_set_state, STEP1("led_cloud"), bi_cloudled_get_state, STEP1("led_cloud"))},
    {"factory_tools", IdTest::Positive, MISC,
     BOTH(bi_factory_tools_enable, STEP1("factory_tools"), bi_factory_tools_get_status, STEP1("factory_tools"))},
    {"peripheral_relay_1", IdTest::Positive, MISC, "bi_peripheral_relay_enable",
     [](int v) { return bi_peripheral_relay_enable(1, v); }, RELAY(1), "bi_peripheral_relay_get_status",
     [] { return bi_peripheral_relay_get_status(1); }, RELAY(1)},
    {"peripheral_relay_2", IdTest::Positive, MISC, "bi_peripheral_relay_enable",
     [](int v) { return bi_peripheral_relay_enable(2, v); }, RELAY(2), "bi_peripheral_relay_get_status",
     [] { return bi_peripheral_relay_get_status(2); }, RELAY(2)},
    {"peripheral_relay_3", IdTest::Positive, MISC, "bi_peripheral_relay_enable",
     [](int v) { return bi_peripheral_relay_enable(3, v); }, RELAY(3), "bi_peripheral_relay_get_status",
     [] { return bi_peripheral_relay_get_status(3); }, RELAY(3)},
    {"peripheral_relay_4", IdTest::Positive, MISC, "bi_peripheral_relay_enable",
     [](int v) { return bi_peripheral_relay_enable(4, v); }, RELAY(4), "bi_peripheral_relay_get_status",
     [] { return bi_peripheral_relay_get_status(4); }, RELAY(4)},
    {"pc_ctrl", IdTest::Positive, MISC,
     BOTH(bi_pc_ctrl_enable, STEP1("pc_ctrl"), bi_pc_ctrl_get_status, STEP1("pc_ctrl"))},
    // The sub-card lamp reports with the pc_ctrl text.
    {"sub_card_led", IdTest::Positive, MISC,
     BOTH(bi_usb_sub_card_led_enable, STEP1("pc_ctrl"), bi_usb_sub_card_led_get_status, STEP1("pc_ctrl"))},
    {"interior_relay", IdTest::Below1000Not0, MISC,
     BOTH(bi_relay_set_state, "<%s>: relay_id error!!!", bi_relay_get_state, "<%s>: relay_id error!!!")},
    {"4g_reset", IdTest::Below1000Not0, MISC,
     BOTH(bi_4g_module_set_state, "<%s>: 4g_id error!!!", bi_4g_module_get_state, "<%s>: relay_id error!!!")},
    {"4g_power", IdTest::Below1000Not0, MISC,
     BOTH(bi_4g_power_set_state, "<%s>: 4g_id error!!!", bi_4g_power_get_state, "<%s>: relay_id error!!!")},
    {"headphone_power", IdTest::Positive, MISC,
     BOTH(bi_headphone_power_set_state, STEP1("headphone_power"), bi_headphone_power_get_state,
          STEP1("headphone_power"))},
    {"lora_check", IdTest::OneTo998, MISC, "", nullptr, "", "bi_lora_get_state", bi_lora_get_state,
     ANGLED("lora_check")},
    {"simple_fan_1", IdTest::OneTo998, FAN,
     BOTH(bi_fan_simple_set_status, ANGLED("simple_fan_1"), bi_fan_simple_get_status, ANGLED("simple_fan_1"))},
    {"ops_usb", IdTest::Positive, OPS,
     BOTH(bi_ops_set_usb_port, "ops_usb_id error!!!", bi_ops_get_usb_port, "ops_usb_id error!!!")},
    {"ops_switch", IdTest::Positive, OPS,
     BOTH(bi_ops_switch_control, "ops_switch_id error!!!", bi_ops_get_switch_state, "ops_switch_id error!!!")},
    {"ops_on", IdTest::Positive, OPS,
     BOTH(bi_ops_on_set_state, STEP1("ops_on"), bi_ops_on_get_state, STEP1("ops_on"))},
    {"ops_control", IdTest::Positive, OPS,
     BOTH(bi_ops_control_set_state, STEP1("ops_control"), bi_ops_control_get_state, STEP1("ops_control"))},
    {"ops_detect", IdTest::Positive, OPS, "", nullptr, "", "bi_ops_detect_get_state", bi_ops_detect_get_state,
     STEP1("ops_detect")},
};

std::string error_line(const Member &m, const char *name, const char *fmt, int id)
{
    char text[256];
    std::snprintf(text, sizeof text, fmt, name, id);
    return std::string("E/") + m.tag + ": " + text;
}

std::vector<int> high_lines(const sim::Board &board)
{
    std::vector<int> high;
    for (const auto &[id, level] : board.lines())
        if (level == 1)
            high.push_back(id);
    return high;
}

TEST_F(GpioTest, EveryMemberDrivesAndReadsItsOwnLine)
{
    for (const Member &m : kMembers) {
        SCOPED_TRACE(m.key);
        const int own = std::stoi(ini_value(m.key)); // every member has a line of its own
        if (m.set) {
            EXPECT_EQ(m.set(1), 0);
            EXPECT_THAT(high_lines(board()), ElementsAre(own));
            EXPECT_EQ(m.get(), 1);
            EXPECT_EQ(m.set(0), 0);
            EXPECT_THAT(high_lines(board()), IsEmpty());
            // The HAL's failure comes back unchanged.
            board().inject(sim::Fault::on("hal_gpio_set_value").at(std::to_string(own)).returns(-5).once());
            EXPECT_EQ(m.set(1), -5);
        }
        board().set_line(own, 1);
        EXPECT_EQ(m.get(), 1);
        board().set_line(own, 0);
        board().inject(sim::Fault::on("hal_gpio_get_value").at(std::to_string(own)).returns(-7).once());
        EXPECT_EQ(m.get(), -7);
    }
}

TEST_F(GpioTest, EveryMemberJudgesTheIdItsFamilyWay)
{
    // An accepted id reaches the HAL as it is, -1 included.
    board().inject(sim::Fault::on("hal_gpio_set_value").at("-1").returns(7));
    board().inject(sim::Fault::on("hal_gpio_get_value").at("-1").returns(9));
    for (const Member &m : kMembers) {
        for (int id : {-1, 0, 1, 998, 999, 1000}) {
            SCOPED_TRACE(std::string(m.key) + " = " + std::to_string(id));
            board().write_file("/vendor/etc/product.ini", ini_with(m.key, std::to_string(id)));
            load();
            const bool ok = passes(m.test, id);
            if (m.set) {
                const int rc = m.set(1);
                if (ok) {
                    EXPECT_EQ(rc, id == -1 ? 7 : 0);
                    EXPECT_EQ(board().line(id), id > 0 ? 1 : -1);
                } else {
                    EXPECT_EQ(rc, -1);
                    EXPECT_EQ(board().log_lines().back(), error_line(m, m.set_name, m.set_error, id));
                }
            }
            board().clear_log();
            const int rc = m.get();
            if (ok) {
                EXPECT_EQ(rc, id == -1 ? 9 : id > 0 && m.set ? 1 : 0);
            } else {
                EXPECT_EQ(rc, -1);
                EXPECT_EQ(board().log_lines().back(), error_line(m, m.get_name, m.get_error, id));
            }
            if (id > 0)
                board().set_line(id, 0);
        }
    }
}

TEST_F(GpioTest, SuccessNotesOfTheMembersThatLogThem)
{
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(bi_sysled_set_state(1), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "bi_sysled_set_state:gpio_id=34,state=1\n");
    board().clear_log();
    bi_factory_tools_enable(1);
    bi_runningled_set_state(1);
    bi_fan_simple_set_status(1);
    bi_ops_get_usb_port();
    bi_peripheral_relay_get_status(2);
    bi_4g_power_set_state(1);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("I/vexa_system_bi_misc: bi_factory_tools_enable: factory_tools_id = 80, enable = 1",
                            "E/vexa_system_bi_led: bi_runningled_set_state:39",
                            "D/vexa_system_bi_fan: <bi_fan_simple_set_status>: gpio_id=50, status=1",
                            "D/vexa_system_bi_ops_usb_port: bi_ops_get_usb_port:ops_usb_id = 70",
                            "I/vexa_system_bi_misc: bi_peripheral_relay_get_status: relay_id = 83",
                            "D/vexa_system_bi_misc: <bi_4g_power_set_state>: enter, state = 1"));
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
    using L = std::pair<int, int>;
    EXPECT_EQ(bi_triled_set_state(1, 1, 0), 0);
    EXPECT_THAT(board().lines(), ElementsAre(L(40, 0), L(41, 1), L(42, 0)));
    EXPECT_EQ(bi_triled_get_state(), 0);
    EXPECT_EQ(bi_triled_set_state(0, 1, 0), 0);
    EXPECT_EQ(bi_triled_get_state(), 1);
    EXPECT_EQ(bi_triled_set_state(7, 0, 1), 0); // any non-zero red darkens it
    EXPECT_THAT(board().lines(), ElementsAre(L(40, 0), L(41, 0), L(42, 1)));

    board().clear_log();
    board().inject(sim::Fault::on("hal_gpio_set_value").at("41").returns(-4).once());
    EXPECT_EQ(bi_triled_set_state(0, 1, 0), -1);
    board().inject(sim::Fault::on("hal_gpio_get_value").at("40").returns(-2).once());
    EXPECT_EQ(bi_triled_get_state(), 0); // a failed read is no -1
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_led: <bi_triled_set_state>: gpio_green_setvalue failed, ret = -4",
                            "E/vexa_system_bi_led: <bi_triled_get_state>: gpio_red_getvalue failed, ret = -2",
                            "D/vexa_system_bi_led: <bi_triled_get_state>: gpio_red_getvalue = -2",
                            "D/vexa_system_bi_led: <bi_triled_get_state>: gpio_green_getvalue = 0",
                            "D/vexa_system_bi_led: <bi_triled_get_state>: gpio_blue_getvalue = 1"));

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
        EXPECT_THAT(board().lines(), ElementsAre(std::pair<int, int>(92, expected[port][0]),
                                                 std::pair<int, int>(93, expected[port][1])));
        EXPECT_EQ(bi_usb_get_switch_enable(), static_cast<int>(port));
    }
    board().clear_log();
    EXPECT_EQ(bi_usb_set_switch_enable(7), 0);
    EXPECT_EQ(board().line(92), 1); // unchanged
    board().inject(sim::Fault::on("hal_gpio_get_value").at("93").returns(2).once());
    EXPECT_EQ(bi_usb_get_switch_enable(), -1);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("D/vexa_system_bi_ops_usb_port: bi_usb_set_switch_enable:enter",
                            "D/vexa_system_bi_ops_usb_port: bi_usb_set_switch_enable: not support en_usb_id = 7, "
                            "should be 0 to 3",
                            "D/vexa_system_bi_ops_usb_port: bi_usb_get_switch_enable:enter",
                            "D/vexa_system_bi_ops_usb_port: bi_usb_get_switch_enable:usb_sel_0_val = 1, "
                            "usb_sel_1_val = 2",
                            "E/vexa_system_bi_ops_usb_port: bi_usb_get_switch_enable: invalid usb_sel_0_val = 1, "
                            "usb_sel_1_val = 2"));
    configure("usb_select_1", std::nullopt);
    EXPECT_EQ(bi_usb_set_switch_enable(1), -1);
    EXPECT_EQ(board().log_lines().back(),
              "E/vexa_system_bi_ops_usb_port: bi_usb_set_switch_enable: invalid usb_select_gpio_0(92) "
              "or usb_select_gpio_1(4294967295) <= 0");
}

TEST_F(GpioTest, ExternalRelayNumberAndNoRecord)
{
    int32_t n = 42;
    EXPECT_EQ(bi_get_external_relay_number(&n), 0);
    EXPECT_EQ(n, 4);
    configure("external_relay_num", std::nullopt);
    EXPECT_EQ(bi_get_external_relay_number(&n), -1);
    EXPECT_EQ(n, 4);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_misc: bi_get_external_relay_number:bi_product is NULL or invaild "
                            "relay_num is -1, need to check ini file."));

    bi_product_config_t *saved = bi_product;
    bi_product = nullptr;
    for (const Member &m : kMembers) {
        EXPECT_EQ(m.set ? m.set(1) : -1, -1) << m.key;
        EXPECT_EQ(m.get(), -1) << m.key;
    }
    EXPECT_EQ(bi_triled_get_state(), -1);
    EXPECT_EQ(bi_usb_get_switch_enable(), -1);
    EXPECT_EQ(bi_get_external_relay_number(&n), -1);
    bi_product = saved;
    EXPECT_THAT(board().lines(), IsEmpty());
}

TEST_F(GpioTest, BitHelpersPlaceholdersAndQrxxMute)
{
    uint64_t word = 0;
    bi_set_bit(&word, 0);
    bi_set_bit(&word, 63);
    bi_set_bit(&word, 64);
    EXPECT_EQ(word, 0x8000000000000001ull);
    EXPECT_EQ(bi_get_bit(word, 63) + bi_get_bit(word, 62) + bi_get_bit(~0ull, 64), 1);
    bi_clear_bit(&word, 63);
    bi_clear_bit(&word, 100);
    EXPECT_EQ(word, 1u);
    EXPECT_EQ(bi_power_low_power_mode() + bi_power_normal_mode(), 0);

    const char *mute = "/sys/class/rk817_codec/rk817_codec/mute";
    EXPECT_EQ(bi_set_qrxx_volume_status(1), -1); // no codec file yet
    board().write_file(mute, "");
    EXPECT_EQ(bi_set_qrxx_volume_status(1), 0);
    EXPECT_EQ(board().read_file(mute), "0"); // status 1 is sound on: not muted
    EXPECT_EQ(bi_set_qrxx_volume_status(0), 0);
    EXPECT_EQ(board().read_file(mute), "1");
    EXPECT_EQ(bi_set_qrxx_volume_status(2), -1);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("D/vexa_system_bi_power: bi_power_low_power_mode: enter",
                            "D/vexa_system_bi_power: bi_power_normal_mode: enter",
                            "E/vexa_system_bi_misc: <bi_set_qrxx_volume_status>, open "
                            "/sys/class/rk817_codec/rk817_codec/mute ",
                            "E/vexa_system_bi_misc: Invalid status value: 2 (must be 0 or 1)"));
}

} // namespace
} // namespace vexa::test
