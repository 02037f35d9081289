#include <ctime>
#include <string>

#include "support/board_fixture.h"
#include "vexasdk/product_config.h"
#include "vexasdk/storage.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using vexa::sim::Fault;

namespace vexa::test {
namespace {

const char kFpgaData[] = "/sdcard/vexa/lumaplay_terminal/config/HWFPGAConfig/fpgaRegData.hex";
const char kScreen[] = "/dev/block/by-name/screen";

class RescueTest : public BoardTest {
protected:
    std::vector<std::string> rescue_log() { return log_of("vexa_system_bi_rescue"); }
    bool rescue_logged(const std::string &text)
    {
        auto lines = rescue_log();
        return std::find(lines.begin(), lines.end(), "E/vexa_system_bi_rescue: " + text) != lines.end() ||
               std::find(lines.begin(), lines.end(), "I/vexa_system_bi_rescue: " + text) != lines.end();
    }
    void mount_reserve() { ASSERT_EQ(bi_base_mount_sub("/dev/block/mmcblk2p22", "/Reserve0"), 0); }
};

TEST_F(RescueTest, BackupWritesTheSettingsAndStampsTheTime)
{
    const long before = static_cast<long>(std::time(nullptr));
    EXPECT_EQ(bi_rescue_backup_data(), 0);
    const long after = static_cast<long>(std::time(nullptr));

    EXPECT_EQ(board().read_file("/Reserve0/RescueParty/property.json"), "{\n}\n");
    EXPECT_FALSE(board().exists("/Reserve0/RescueParty1"));
    EXPECT_EQ(bi_rescue_get_data_status(), 0xAA);
    char stamp[40];
    ASSERT_EQ(bi_rescue_get_backup_time(stamp, sizeof stamp), 0);
    EXPECT_GE(std::atol(stamp), before);
    EXPECT_LE(std::atol(stamp), after);
    const std::string flags = board().read_file("/Reserve0/flag.hex");
    ASSERT_GE(flags.size(), 35u);
    EXPECT_EQ(flags.substr(3, 32), std::string(stamp) + std::string(32 - std::string(stamp).size(), '\0'));
    EXPECT_EQ(rescue_log().front(),
              "I/vexa_system_bi_rescue: bi_rescue_backup_data, /dev/block/mmcblk2p22, /Reserve0");
    EXPECT_TRUE(rescue_logged("return 0"));

    // A second backup replaces the first.
    board().write_file("/Reserve0/RescueParty/stale", "x");
    EXPECT_EQ(bi_rescue_backup_data(), 0);
    EXPECT_FALSE(board().exists("/Reserve0/RescueParty/stale"));
    EXPECT_THAT(board().commands(), Contains("rm  -rf /Reserve0/RescueParty"));
}

TEST_F(RescueTest, InterruptedBackupLeavesTheRunningState)
{
    board().inject(Fault::on("mkdir").at("/Reserve0/RescueParty1"));
    EXPECT_EQ(bi_rescue_backup_data(), -1);
    EXPECT_TRUE(rescue_logged("bi_rescue_backup_data, 220, error!"));
    EXPECT_EQ(bi_rescue_get_data_status(), 0x55);

    board().clear_faults();
    board().inject(Fault::on("rename").at("/Reserve0/RescueParty1"));
    EXPECT_EQ(bi_rescue_backup_data(), -1);
    EXPECT_TRUE(rescue_logged("bi_rescue_backup_data, 216, error!"));
    EXPECT_EQ(bi_rescue_get_data_status(), 0x55);
}

TEST_F(RescueTest, RecoverTabOneOrTwoIsAnsweredOnce)
{
    for (uint32_t request : {1u, 2u}) {
        ASSERT_EQ(bi_rescue_set_recover_tab(request), 0);
        EXPECT_EQ(bi_rescue_get_recover_tab(), static_cast<int32_t>(request));
        EXPECT_EQ(bi_rescue_get_recover_tab(), 0);
    }
    EXPECT_THAT(rescue_log(), Contains("I/vexa_system_bi_rescue: bi_rescue_get_recover_tab flag: 0x02"));
    EXPECT_THAT(rescue_log(), Contains("I/vexa_system_bi_rescue: bi_rescue_get_recover_tab reset flag to 0x00"));

    // Other values stay; only the low byte is stored.
    ASSERT_EQ(bi_rescue_set_recover_tab(0x103), 0);
    EXPECT_EQ(bi_rescue_get_recover_tab(), 3);
    EXPECT_EQ(bi_rescue_get_recover_tab(), 3);

    ASSERT_EQ(bi_rescue_set_restore_screen_tab(0x5a), 0);
    EXPECT_EQ(bi_rescue_get_restore_screen_tab(), 0x5a);
    EXPECT_EQ(board().read_file("/Reserve0/flag.hex").substr(35, 1), "\x5a");
}

TEST_F(RescueTest, FlagReadsFailWithoutAFlagFile)
{
    EXPECT_EQ(bi_rescue_get_recover_tab(), -1);
    EXPECT_EQ(bi_rescue_get_recover_num(), -1);
    EXPECT_EQ(bi_rescue_get_data_status(), -1);
    char stamp[32];
    EXPECT_EQ(bi_rescue_get_backup_time(stamp, sizeof stamp), -2);
    EXPECT_EQ(bi_rescue_get_backup_time(stamp, 31), -1);
    EXPECT_EQ(bi_rescue_get_backup_time(nullptr, 32), -1);
    EXPECT_TRUE(rescue_logged("bi_rescue_get_backup_time, get fail"));
}

TEST_F(RescueTest, RestoreAppliesSettingsCopiesFpgaDataAndRestarts)
{
    ASSERT_EQ(bi_rescue_backup_data(), 0);
    board().write_file("/Reserve0/RescueParty/property.json",
                       R"({"persist.vexa.top":"1","nested":{"persist.vexa.inner":"2"}})");
    board().write_file(kFpgaData, "FPGADATA");
    board().write_file(kScreen, std::string(4096, '\0'));
    ASSERT_EQ(bi_rescue_set_recover_tab(1), 0);

    EXPECT_EQ(bi_rescue_restore_data(), 0);
    EXPECT_EQ(board().property("persist.vexa.top"), "1");
    EXPECT_EQ(board().property("persist.vexa.inner"), "");
    EXPECT_EQ(board().read_file(kScreen), "FPGADATA" + std::string(4088, '\0'));
    EXPECT_EQ(board().reboots(), std::vector<std::string>{""});
    EXPECT_EQ(bi_rescue_get_recover_num(), 1);
    EXPECT_EQ(bi_rescue_get_recover_tab(), 0);

    // Unparsable settings and missing FPGA data do not stop a restore.
    board().write_file("/Reserve0/RescueParty/property.json", "{broken");
    board().remove_file(kFpgaData);
    EXPECT_EQ(bi_rescue_restore_data(), 0);
    EXPECT_TRUE(rescue_logged("cjson error...\r"));
    const auto lines = rescue_log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         std::string("E/vexa_system_bi_rescue: ") + kFpgaData + " file inexistence ... "),
              2);
    EXPECT_EQ(bi_rescue_get_recover_num(), 2);
}

TEST_F(RescueTest, RestoreWithoutBackupClearsTheRequest)
{
    ASSERT_EQ(bi_rescue_set_recover_tab(2), 0);
    EXPECT_EQ(bi_rescue_restore_data(), -1);
    EXPECT_TRUE(rescue_logged("bi_rescue_restore_data, backup data is null"));
    EXPECT_EQ(bi_rescue_get_recover_tab(), 0);
    EXPECT_TRUE(board().reboots().empty());
}

TEST_F(RescueTest, FpgaDataLargerThanOneMebibyteIsRefused)
{
    board().write_file(kScreen, "");
    board().write_file(kFpgaData, std::string((1 << 20) + 1, 'x'));
    EXPECT_EQ(bi_rescue_save_fpga_parameter_to_emmc(), -1);
    EXPECT_EQ(board().read_file(kScreen), "");
    board().write_file(kFpgaData, std::string(1 << 20, 'y'));
    EXPECT_EQ(bi_rescue_save_fpga_parameter_to_emmc(), 0);
    EXPECT_EQ(board().read_file(kScreen), std::string(1 << 20, 'y'));
}

TEST_F(RescueTest, CustomDataRoundTripsADirectoryTree)
{
    board().write_file("/data/app/cfg/a.txt", "A");
    board().write_file("/data/app/cfg/deep/b.txt", "B");
    board().write_file("/data/media/m.txt", "M");
    mount_reserve();
    const char *paths[] = {"/data/app/cfg", "/data/media"};
    EXPECT_EQ(bi_rescue_backup_custom_data(paths, 2), 0);
    EXPECT_EQ(board().read_file("/Reserve0/RescueParty/data/app/cfg/deep/b.txt"), "B");
    EXPECT_TRUE(rescue_logged("copy /data/app/cfg to /Reserve0/RescueParty/data/app/cfg"));

    board().write_file("/data/app/cfg/a.txt", "changed");
    board().remove_file("/data/app/cfg/deep");
    board().remove_file("/data/media/m.txt");
    EXPECT_EQ(bi_rescue_restore_custom_data(paths, 2), 0);
    EXPECT_EQ(board().read_file("/data/app/cfg/a.txt"), "A");
    EXPECT_EQ(board().read_file("/data/app/cfg/deep/b.txt"), "B");
    EXPECT_EQ(board().read_file("/data/media/m.txt"), "M");
    EXPECT_TRUE(rescue_logged("Restore successful: /Reserve0/RescueParty/data/media -> /data/media"));
}

TEST_F(RescueTest, CustomRestoreStopsAtTheFirstPathWithoutABackup)
{
    board().write_file("/data/one/f", "1");
    board().write_file("/data/three/f", "3");
    mount_reserve();
    const char *saved[] = {"/data/one", "/data/three"};
    ASSERT_EQ(bi_rescue_backup_custom_data(saved, 2), 0);
    board().write_file("/data/one/f", "x");
    board().write_file("/data/three/f", "x");

    const char *wanted[] = {"/data/one", "/data/two", "/data/three"};
    EXPECT_EQ(bi_rescue_restore_custom_data(wanted, 3), -1);
    EXPECT_EQ(board().read_file("/data/one/f"), "1");
    EXPECT_EQ(board().read_file("/data/three/f"), "x");
    EXPECT_TRUE(rescue_logged("Restore failed no data: /Reserve0/RescueParty/data/two -> /data/two"));
}

TEST_F(RescueTest, CustomPathsAreCheckedBeforeAnythingRuns)
{
    mount_reserve();
    board().clear_commands();
    const std::string long_path = "/" + std::string(127, 'p');
    const char *too_long[] = {long_path.c_str()};
    EXPECT_EQ(bi_rescue_backup_custom_data(too_long, 1), -1);
    EXPECT_EQ(bi_rescue_restore_custom_data(too_long, 1), -1);
    EXPECT_TRUE(rescue_logged("bi_rescue_backup_custom_data, 647, patch len > 128, error!"));
    EXPECT_TRUE(rescue_logged("bi_rescue_restore_custom_data, 694, patch len > 128, error!"));

    EXPECT_EQ(bi_rescue_backup_custom_data(nullptr, 1), -1);
    EXPECT_TRUE(rescue_logged("error: backup_string not init!"));
    EXPECT_TRUE(board().commands().empty());
}

TEST_F(RescueTest, PresetProgramIsSavedAndRecovered)
{
    board().write_file("/data/prog/show.json", "{}");
    board().write_file("/data/prog/media/clip.mp4", "clip");
    EXPECT_EQ(bi_rescue_recover_prestore_program("/data/restored"), -1);
    EXPECT_TRUE(rescue_logged("bi_rescue_recover_prestore_program error dir is null"));

    EXPECT_EQ(bi_rescue_save_prestore_program("/data/prog"), 0);
    EXPECT_EQ(board().read_file("/Reserve0/perProgram/media/clip.mp4"), "clip");
    EXPECT_EQ(bi_rescue_recover_prestore_program("/data/restored"), 0);
    EXPECT_EQ(board().read_file("/data/restored/show.json"), "{}");

    EXPECT_EQ(bi_rescue_save_prestore_program("/data/none"), -2);
    EXPECT_TRUE(rescue_logged("bi_rescue_save_prestore_program, 544, error, /data/none is null!"));
}

} // namespace
} // namespace vexa::test
