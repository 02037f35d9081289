// Fan level, ADC channels and the infrared blaster on the virtual board's
// sysfs files.
#include <cmath>

#include "sim/board.h"
#include "support/board_fixture.h"
#include "vexasdk/peripherals.h"

namespace {

using vexa::sim::Fault;
constexpr const char *kCooling = "/sys/class/thermal/cooling_device0/cur_state";
constexpr const char *kRaw2 = "/sys/bus/iio/devices/iio:device0/in_voltage2_raw";
constexpr const char *kRaw3 = "/sys/bus/iio/devices/iio:device0/in_voltage3_raw";

class FanTest : public vexa::test::ProductTest {};

TEST_F(FanTest, SetWritesTheGearAndReplacesTheOldValue)
{
    ASSERT_EQ(bi_fan_level_set_state(10), 0);
    EXPECT_EQ(board().read_file(kCooling), "10");
    ASSERT_EQ(bi_fan_level_set_state(7), 0);
    EXPECT_EQ(board().read_file(kCooling), "7");
    EXPECT_EQ(bi_fan_level_get_state(), 7);
    EXPECT_TRUE(logged("D/vexa_system_bi_fan: Read gear value: 7"));
}

TEST_F(FanTest, GearElevenIsRefusedWithoutOpeningTheFile)
{
    board().inject(Fault::on("open").at(kCooling).returns(-1));
    EXPECT_EQ(bi_fan_level_set_state(11), -1);
    EXPECT_EQ(bi_fan_level_set_state(static_cast<uint32_t>(-1)), -1);
    EXPECT_EQ(board().log_lines(),
              (std::vector<std::string>{"E/vexa_system_bi_fan: Invalid gear value: 11 (must be 0 ~ 10)",
                                        "E/vexa_system_bi_fan: Invalid gear value: -1 (must be 0 ~ 10)"}));
    EXPECT_EQ(board().read_file(kCooling), "0\n");
}

TEST_F(FanTest, ReadFailuresGiveMinusOneOrMinusTwo)
{
    board().write_file(kCooling, "11");
    EXPECT_EQ(bi_fan_level_get_state(), -2);
    EXPECT_TRUE(logged("E/vexa_system_bi_fan: Invalid gear value read: 11 (must be 0 ~ 10)"));
    board().write_file(kCooling, "");
    EXPECT_EQ(bi_fan_level_get_state(), -2);
    EXPECT_TRUE(logged("E/vexa_system_bi_fan: <bi_fan_level_get_state>, read "
                       "/sys/class/thermal/cooling_device0/cur_state returned EOF"));
    board().remove_file(kCooling);
    EXPECT_EQ(bi_fan_level_get_state(), -1);
    EXPECT_EQ(bi_fan_level_set_state(3), -1);
    EXPECT_EQ(board().log_lines().back(),
              "E/vexa_system_bi_fan: <bi_fan_level_set_state>, open "
              "/sys/class/thermal/cooling_device0/cur_state ");
    board().write_file(kCooling, "0");
    board().inject(Fault::on("write").at(kCooling).returns(-1).once());
    EXPECT_EQ(bi_fan_level_set_state(3), -2);
}

TEST_F(FanTest, FanArmValueAcceptsAnyValueFromZero)
{
    board().write_file("/proc/fan_arm", "2600\n");
    EXPECT_EQ(bi_fan_level_get_prm(), 2600);
    EXPECT_EQ(log_of("vexa_system_bi_fan").front(), "D/vexa_system_bi_fan: bi_fan_level_get_prm is testting");
    board().write_file("/proc/fan_arm", "-4\n");
    EXPECT_EQ(bi_fan_level_get_prm(), -2);
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_fan: Invalid gear value read: -4 ");
}

class AdcTest : public vexa::test::ProductTest {};

TEST_F(AdcTest, BoardIdIsTheRawValue)
{
    EXPECT_EQ(bi_adc_get_board_id(), 3);
    EXPECT_EQ(board().log_lines(),
              (std::vector<std::string>{
                  "D/vexa_system_bi_adc: adc_board_id path:/sys/bus/iio/devices/iio:device0/in_voltage1_raw",
                  "I/vexa_system_bi_adc: <bi_adc_get_board_id> get board adc value:3 "}));
}

TEST_F(AdcTest, FullScaleGivesTheReferenceVoltage)
{
    configure("adc_board_config_vref", std::string("3.3"));
    board().write_file(kRaw2, "1023");
    // Vout = 3.3 at full scale, times (100000 + 10000) / 10000.
    EXPECT_NEAR(bi_adc_get_board_voltage(), 36.3f, 1e-4);
    EXPECT_TRUE(logged("D/vexa_system_bi_adc: bi_adc_get_board_voltage vref:3.300000 n:10 r1:100000 r2:10000 "));
    EXPECT_EQ(board().log_lines().back(), "I/vexa_system_bi_adc: bi_adc_get_board_voltage vout:3.300000 vin:36.299999 ");
}

TEST_F(AdcTest, ThermistorAtTenGivesTwentyFiveDegrees)
{
    // Vref 2 at full scale gives Vout = 2; with Vin = 4 the divider sits at
    // its middle, so the thermistor equals R1 = 10.
    rebuild(vexa::sim::Board::Builder().ini(vexa::test::ini_with(
        "adc_board_config_vref", std::string("2"),
        vexa::test::ini_with("adc_board_temperature_vin", std::string("4")))));
    bi_init_product_config();
    board().write_file(kRaw3, "1023");
    EXPECT_NEAR(bi_adc_get_board_temperature(), 25.0f, 1e-3);
}

TEST_F(AdcTest, DefaultBoardReadsRealisticFigures)
{
    EXPECT_NEAR(bi_adc_get_board_voltage(), 12.0f, 0.05f);
    EXPECT_NEAR(bi_adc_get_board_temperature(), 25.0f, 0.2f);
}

TEST_F(AdcTest, FailuresOfPathsAndFormulas)
{
    configure("adc_board_id", std::nullopt);
    EXPECT_EQ(bi_adc_get_board_id(), -1);
    EXPECT_EQ(board().log_lines(),
              std::vector<std::string>{"E/vexa_system_bi_adc: <bi_adc_get_board_id>, devices not found"});
    board().clear_log();
    board().remove_file(kRaw2);
    // A missing channel reads -1, which still goes through the formula.
    EXPECT_LT(bi_adc_get_board_voltage(), 0.0f);
    EXPECT_TRUE(logged("E/vexa_system_bi_adc: <bi_adc_get_board_voltage> the path  "
                       "/sys/bus/iio/devices/iio:device0/in_voltage2_raw not exist!"));
    configure("adc_board_voltage_r2", std::string("-1"));
    EXPECT_EQ(bi_adc_get_board_voltage(), -1.0f);
    EXPECT_TRUE(logged("E/vexa_system_bi_adc: adc_board_voltage r1 100000 r2 -1 "));
    configure("adc_board_config_n", std::string("-1"));
    EXPECT_EQ(bi_adc_get_board_temperature(), -1.0f);
    EXPECT_TRUE(logged("E/vexa_system_bi_adc: bi_adc_get_board_temperature vref:1.800000 or n:-1 <0"));
}

TEST_F(AdcTest, ShortedDividerIsReported)
{
    configure("adc_board_temperature_vin", std::string("1.8"));
    board().write_file(kRaw3, "1023"); // Vout = Vref = Vin
    EXPECT_EQ(bi_adc_get_board_temperature(), -1.0f);
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_adc: bi_adc_get_board_temperature (vin == vout) "
                                          "error!Maybe some resistor is short circuited");
}

class InfraredTest : public vexa::test::ProductTest {};

TEST_F(InfraredTest, SendWritesCarrierDutyAndPattern)
{
    ASSERT_EQ(bi_infrared_write(), 0);
    EXPECT_EQ(board().read_file("/sys/class/irblaster/irblaster0/carrier_freq"), "38000");
    EXPECT_EQ(board().read_file("/sys/class/irblaster/irblaster0/duty_cycle"), "50");
    const std::string sent = board().read_file("/sys/class/irblaster/irblaster0/send");
    EXPECT_EQ(sent.size(), 224u);
    EXPECT_EQ(sent.rfind("892s453s", 0), 0u);
    EXPECT_EQ(std::count(sent.begin(), sent.end(), 's'), 68);
}

TEST_F(InfraredTest, MissingSendFileStopsAfterTheFirstTwo)
{
    board().remove_file("/sys/class/irblaster/irblaster0/send");
    EXPECT_EQ(bi_infrared_write(), -1);
    EXPECT_EQ(board().log_lines(), std::vector<std::string>{"E/vexa_system_bi_infrared: <bi_infrared_write>, "
                                                            "open /sys/class/irblaster/irblaster0/send error"});
    board().inject(Fault::on("write").at("/sys/class/irblaster/irblaster0/duty_cycle").returns(-1));
    EXPECT_EQ(bi_infrared_write(), -1);
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_infrared: <bi_infrared_write>, write "
                                          "/sys/class/irblaster/irblaster0/duty_cycle error, return -1");
}

TEST_F(InfraredTest, WakeSwitchRoundTrip)
{
    const char *status = "/sys/class/low_power_ctrl/low_power_ctrl/status";
    EXPECT_EQ(bi_get_irstatus_pz2k(), 0);
    ASSERT_EQ(bi_set_irstatus_pz2k(1), 0);
    EXPECT_EQ(board().read_file(status), "disable");
    EXPECT_EQ(bi_get_irstatus_pz2k(), 1);
    EXPECT_TRUE(logged("D/vexa_system_bi_infrared: <bi_get_irstatus_pz2k> current status: disable"));
    ASSERT_EQ(bi_set_irstatus_pz2k(0), 0);
    EXPECT_EQ(board().read_file(status), "enable");
    board().write_file(status, "sleeping\n");
    EXPECT_EQ(bi_get_irstatus_pz2k(), -1);
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_infrared: <bi_get_irstatus_pz2k> unknown status: sleeping");
    board().remove_file(status);
    EXPECT_EQ(bi_set_irstatus_pz2k(1), -1);
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_infrared: <bi_set_irstatus_pz2k> open "
                                          "/sys/class/low_power_ctrl/low_power_ctrl/status error");
}

} // namespace
