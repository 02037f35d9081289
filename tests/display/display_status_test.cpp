#include <string>

#include "display_fixture.h"
#include "support/ini_text.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

using DisplayStatusTest = DisplayTest;

TEST_F(DisplayStatusTest, HdmiStateIndexesOutsideOneToFourTouchNothing)
{
    board().inject(sim::Fault::on("open").always());
    EXPECT_EQ(bi_display_get_hdmi_in_state(0), -1);
    EXPECT_EQ(bi_display_get_hdmi_out_state(5), -1);
    EXPECT_THAT(resolution_log(),
                ElementsAre("D/vexa_system_bi_resolution: bi_display_get_hdmi_in_state: index = 0",
                            "D/vexa_system_bi_resolution: bi_display_get_hdmi_in_state: invalid "
                            "index = 0, max hdmi index is 4",
                            "D/vexa_system_bi_resolution: bi_display_get_hdmi_out_state: index = 5",
                            "D/vexa_system_bi_resolution: bi_display_get_hdmi_out_state: invalid "
                            "index = 5, max hdmi index is 4"));
}

TEST_F(DisplayStatusTest, HdmiStateReadsTheStateFile)
{
    EXPECT_EQ(bi_display_get_hdmi_in_state(1), 1);
    EXPECT_EQ(bi_display_get_hdmi_out_state(2), 0);
    board().write_file("/sys/class/drm/card0-HDMI-A-2/status", "3");
    EXPECT_EQ(bi_display_get_hdmi_out_state(2), 3);
    board().remove_file("/sys/class/hdmirx/hdmi_in_2/status");
    board().clear_log();
    EXPECT_EQ(bi_display_get_hdmi_in_state(2), -1);
    EXPECT_THAT(resolution_log(),
                Contains("E/vexa_system_bi_resolution: bi_display_get_hdmi_in_state: "
                         "/sys/class/hdmirx/hdmi_in_2/status not exist"));
}

TEST_F(DisplayStatusTest, UnsetHdmiEntriesNameTheirIndex)
{
    EXPECT_EQ(bi_display_get_hdmi_in_state(3), -1); // UNDEF in the default INI
    configure("hdmi_out_4_path", "/sys/class/drm/card0-HDMI-A-4/UNDEF");
    EXPECT_EQ(bi_display_get_hdmi_out_state(4), -1);
    configure("hdmi_out_4_path", "/sys/class/drm/card0-HDMI-A-4/status");
    board().write_file("/sys/class/drm/card0-HDMI-A-4/status", "2");
    EXPECT_EQ(bi_display_get_hdmi_out_state(4), 2);
    EXPECT_THAT(resolution_log(), Contains("D/vexa_system_bi_resolution: "
                                           "bi_display_get_hdmi_out_state:device:/sys/class/drm/"
                                           "card0-HDMI-A-4/status"));
    configure("hdmi_out_4_path", "");
    EXPECT_EQ(bi_display_get_hdmi_out_state(4), -1);
    EXPECT_THAT(resolution_log(),
                Contains("E/vexa_system_bi_resolution: bi_display_get_hdmi_out_state:bi_product "
                         "is NULL or hdmi4 path is not set, need to check ini file."));
}

TEST_F(DisplayStatusTest, ScreenModeIsWrittenAsDecimalText)
{
    ASSERT_EQ(bi_resolution_screen_mode_set_state(12), 0);
    EXPECT_EQ(board().read_file("/sys/class/display/mode"), "12");
    EXPECT_EQ(bi_resolution_screen_mode_get_state(), 0);
    EXPECT_THAT(resolution_log(),
                Contains("D/vexa_system_bi_resolution: str:12, len:2, sizeof:20"));
    EXPECT_THAT(resolution_log(),
                Contains("I/vexa_system_bi_resolution: bi_resolution_screen_mode_set_state: write "
                         "path /sys/class/display/mode OK"));

    board().inject(sim::Fault::on("read").at("/sys/class/display/mode").returns(-5));
    board().clear_log();
    EXPECT_EQ(bi_resolution_screen_mode_get_state(), -5);
    EXPECT_THAT(resolution_log(), Contains("E/vexa_system_bi_resolution: "
                                           "bi_resolution_screen_mode_get_state:write file failed"));

    board().remove_file("/sys/class/display/mode");
    EXPECT_EQ(bi_resolution_screen_mode_set_state(1), -1);
    configure("screen_mode", "UNDEF");
    EXPECT_EQ(bi_resolution_screen_mode_get_state(), -1);
    EXPECT_THAT(resolution_log(),
                ElementsAre("E/vexa_system_bi_resolution: bi_resolution_screen_mode_get_state:"
                            "bi_product is NULL or path is not set, need to check ini file."));
}

TEST_F(DisplayStatusTest, PictureQualitySwitchesAllThreeFiles)
{
    ASSERT_EQ(bi_set_pq_state(1), 0);
    EXPECT_EQ(board().read_file("/sys/class/amvecm/debug"), std::string("vpp_pq enable\0", 14));
    EXPECT_EQ(board().read_file("/sys/module/aml_media/parameters/uvm_open_aipq"), "1\n");
    EXPECT_EQ(board().read_file("/sys/module/decoder_common/parameters/debug_vdetect"), "1\n");
    EXPECT_EQ(bi_get_pq_state(), 1);
    EXPECT_THAT(resolution_log(),
                Contains("I/vexa_system_bi_resolution: bi_get_pq_state detect_state:1 aipq_state:1"));

    ASSERT_EQ(bi_set_pq_state(0), 0);
    EXPECT_EQ(bi_get_pq_state(), 0);

    board().remove_file("/sys/module/aml_media/parameters/uvm_open_aipq");
    board().clear_log();
    EXPECT_EQ(bi_set_pq_state(1), 0) << "goes on without the module parameters";
    EXPECT_EQ(bi_get_pq_state(), -1);
    board().remove_file("/sys/class/amvecm/debug");
    EXPECT_EQ(bi_set_pq_state(1), -1);
    EXPECT_THAT(resolution_log(),
                Contains("E/vexa_system_bi_resolution: bi_set_pq_state /sys/class/amvecm/debug not "
                         "exist."));
}

TEST_F(DisplayStatusTest, SplicePropertiesAreReadAndWritten)
{
    EXPECT_EQ(bi_display_set_hdmi_splice_enable(0), 0);
    EXPECT_EQ(board().property("persist.hdmi.splice.enable"), "false");
    EXPECT_EQ(bi_display_set_hdmi_splice_trigger_once(), 0);
    EXPECT_EQ(board().property("persist.hdmi.out.trigered"), "true");
    EXPECT_THAT(resolution_log(),
                Contains("I/vexa_system_bi_resolution: bi_display_set_hdmi_splice_trigger_once "
                         "update key persist.hdmi.out.trigered to true"));

    EXPECT_EQ(bi_display_get_hdmi_out_device_number(), 0) << "unset reads 0";
    board().set_property("sys.hdmi.out.device.number", "2");
    EXPECT_EQ(bi_display_get_hdmi_out_device_number(), 2);
    EXPECT_EQ(get_hdmi_link_prop_info("sys.hdmi.out.device.number"), 2);
}

} // namespace
} // namespace vexa::test
