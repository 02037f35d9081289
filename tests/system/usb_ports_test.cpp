// USB port switching and the OTG role on the board's files.
#include <string>

#include "support/board_fixture.h"
#include "vexasdk/system.h"

using ::testing::ElementsAre;
using vexa::sim::Fault;

namespace vexa::test {
namespace {

const char kOtg[] = "/sys/devices/platform/fe8a0000.usb2-phy/otg_mode";

std::string port_file(int index) { return "/sys/class/vexagpios/USB" + std::to_string(index) + "_EN/value"; }

class UsbPortsTest : public ProductTest {
protected:
    std::vector<std::string> usb_log() { return log_of("vexa_system_bi_ops_usb_port"); }
};

TEST_F(UsbPortsTest, EachIndexSwitchesItsOwnPortFile)
{
    for (int index = 1; index <= 4; ++index) {
        board().clear_log();
        EXPECT_EQ(bi_set_usb_state(index, 0), 0) << index;
        for (int other = 1; other <= 4; ++other)
            EXPECT_EQ(board().read_file(port_file(other)), other <= index ? "0\n" : "1\n") << index;
        EXPECT_EQ(bi_get_usb_state(index), 0);
        const std::string path = port_file(index);
        // Port 4 names its path "device".
        const std::string named = index == 4 ? "device:" : "usb_path:";
        const auto lines = usb_log();
        ASSERT_GE(lines.size(), 5u);
        EXPECT_THAT(std::vector<std::string>(lines.begin(), lines.begin() + 5),
                    ElementsAre("D/vexa_system_bi_ops_usb_port: bi_set_usb_state: index = " + std::to_string(index) +
                                    ", state = 0",
                                "D/vexa_system_bi_ops_usb_port: bi_set_usb_state:" + named + path,
                                "D/vexa_system_bi_ops_usb_port: File exists.",
                                "I/vexa_system_bi_ops_usb_port: bi_set_usb_state: write path " + path + " OK",
                                "D/vexa_system_bi_ops_usb_port: bi_get_usb_state: index = " + std::to_string(index)));
    }
    EXPECT_EQ(bi_set_usb_state(3, 42), 0);
    EXPECT_EQ(board().read_file(port_file(3)), "1\n") << "any non-zero state writes 1";
    EXPECT_EQ(bi_get_usb_state(3), 1);
}

TEST_F(UsbPortsTest, IndexesOutsideOneToFourAreRefused)
{
    for (int index : {0, 5, -1}) {
        board().clear_log();
        EXPECT_EQ(bi_set_usb_state(index, 1), -1);
        EXPECT_EQ(bi_get_usb_state(index), -1);
        const std::string tail = ": invalid index = " + std::to_string(index) + ", max usb index is 4";
        EXPECT_THAT(usb_log(), ElementsAre("D/vexa_system_bi_ops_usb_port: bi_set_usb_state" + tail,
                                           "D/vexa_system_bi_ops_usb_port: bi_get_usb_state" + tail));
    }
}

TEST_F(UsbPortsTest, AnUnsetPortLogsTheConfigurationAndFailsAsAMissingFile)
{
    configure("usb2_path", "UNDEF");
    EXPECT_EQ(bi_set_usb_state(2, 1), -1);
    EXPECT_EQ(bi_get_usb_state(2), -1);
    EXPECT_THAT(usb_log(),
                ElementsAre("D/vexa_system_bi_ops_usb_port: bi_set_usb_state: index = 2, state = 1",
                            "E/vexa_system_bi_ops_usb_port: bi_set_usb_state:bi_product is NULL or usb2 path is not "
                            "set, need to check ini file.",
                            "D/vexa_system_bi_ops_usb_port: bi_set_usb_state:usb_path:UNDEF",
                            "E/vexa_system_bi_ops_usb_port: File does not exist.",
                            "D/vexa_system_bi_ops_usb_port: bi_get_usb_state: index = 2",
                            "E/vexa_system_bi_ops_usb_port: bi_get_usb_state:bi_product is NULL or usb2 path is not "
                            "set, need to check ini file.",
                            "D/vexa_system_bi_ops_usb_port: bi_get_usb_state:usb_path:UNDEF",
                            "E/vexa_system_bi_ops_usb_port: bi_get_usb_state: UNDEF not exist"));

    bi_product_config_t *record = bi_product;
    bi_product = nullptr;
    board().clear_log();
    EXPECT_EQ(bi_set_usb_state(1, 1), -1);
    bi_product = record;
    EXPECT_THAT(usb_log(), ElementsAre("D/vexa_system_bi_ops_usb_port: bi_set_usb_state: index = 1, state = 1",
                                       "E/vexa_system_bi_ops_usb_port: bi_set_usb_state:bi_product is NULL or usb1 "
                                       "path is not set, need to check ini file.",
                                       "D/vexa_system_bi_ops_usb_port: bi_set_usb_state:usb_path:",
                                       "E/vexa_system_bi_ops_usb_port: File does not exist."));
}

TEST_F(UsbPortsTest, AStateIsTheDecimalValueOfTheFirstByte)
{
    const std::pair<const char *, int32_t> files[] = {{"1", 1}, {"0\n", 0}, {"x", 0}, {"7", 7}, {"12", 1}, {"", 0}};
    for (const auto &[text, state] : files) {
        board().write_file(port_file(1), text);
        EXPECT_EQ(bi_get_usb_state(1), state) << text;
    }
    board().remove_file(port_file(1));
    board().clear_log();
    EXPECT_EQ(bi_get_usb_state(1), -1);
    EXPECT_EQ(usb_log().back(), "E/vexa_system_bi_ops_usb_port: bi_get_usb_state: " + port_file(1) + " not exist");
}

TEST_F(UsbPortsTest, FileFailuresAreReported)
{
    const std::string path = port_file(3);
    board().inject(Fault::on("open").at(path).once());
    EXPECT_EQ(bi_set_usb_state(3, 1), -1);
    board().inject(Fault::on("write").at(path).once());
    EXPECT_EQ(bi_set_usb_state(3, 0), -1);
    board().inject(Fault::on("open").at(path).once());
    EXPECT_EQ(bi_get_usb_state(3), -1);
    board().inject(Fault::on("read").at(path).once());
    EXPECT_EQ(bi_get_usb_state(3), -1);
    std::vector<std::string> errors;
    for (const auto &line : usb_log())
        if (line.rfind("E/", 0) == 0)
            errors.push_back(line);
    EXPECT_THAT(errors, ElementsAre("E/vexa_system_bi_ops_usb_port: bi_set_usb_state:open file failed",
                                    "E/vexa_system_bi_ops_usb_port: bi_set_usb_state:write file failed",
                                    "E/vexa_system_bi_ops_usb_port: open path " + path + " failed.",
                                    "E/vexa_system_bi_ops_usb_port: read path " + path + " failed."));
    EXPECT_EQ(board().read_file(path), "1\n");
}

TEST_F(UsbPortsTest, TheOtgRoleIsReadUpToTheLineEnd)
{
    const std::pair<const char *, int32_t> roles[] = {
        {"host\n", 0}, {"host", 0}, {"peripheral\n", 1}, {"peripheral\r\n", 1},
        {"hostx\n", -1}, {"Host\n", -1}, {"otg\n", -1}, {"", -1}};
    for (const auto &[text, mode] : roles) {
        board().write_file(kOtg, text);
        EXPECT_EQ(bi_otg_get_mode(), mode) << text;
    }
    board().write_file(kOtg, "hostx\n");
    board().clear_log();
    bi_otg_get_mode();
    EXPECT_THAT(usb_log(), ElementsAre("D/vexa_system_bi_ops_usb_port: error <bi_otg_get_mode> sys_data:hostx"));
    board().remove_file(kOtg);
    board().clear_log();
    EXPECT_EQ(bi_otg_get_mode(), -1);
    EXPECT_THAT(usb_log(), ElementsAre("D/vexa_system_bi_ops_usb_port: <bi_otg_get_mode> hal_sys_read fail!"));
}

TEST_F(UsbPortsTest, SettingTheOtgRoleWritesItsNameAndReturnsTheWrite)
{
    EXPECT_EQ(bi_otg_set_mode(1), 10);
    EXPECT_EQ(board().read_file(kOtg), "peripheral");
    EXPECT_EQ(bi_otg_get_mode(), 1);
    EXPECT_EQ(bi_otg_set_mode(0), 4);
    EXPECT_EQ(board().read_file(kOtg), "host");
    EXPECT_EQ(bi_otg_set_mode(2), -1);
    EXPECT_EQ(bi_otg_set_mode(-1), -1);
    EXPECT_EQ(board().read_file(kOtg), "host");
    board().inject(Fault::on("hal_sys_write").returns(-5));
    EXPECT_EQ(bi_otg_set_mode(1), -5);
}

} // namespace
} // namespace vexa::test
