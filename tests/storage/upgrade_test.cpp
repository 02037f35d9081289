#include <string>

#include "support/board_fixture.h"
#include "vexasdk/storage.h"

using ::testing::ElementsAre;
using vexa::sim::Fault;

namespace vexa::test {
namespace {

class UpgradeTest : public BoardTest {
protected:
    std::vector<std::string> misc_log() { return log_of("vexa_system_bi_misc"); }
};

TEST_F(UpgradeTest, FactoryResetWritesTheRecoveryCommandAndRequestsRecovery)
{
    board().remove_file("/cache/recovery");
    EXPECT_EQ(bi_restore_factory_setting(1), 0);
    const std::string command = board().read_file("/cache/recovery/command");
    EXPECT_EQ(command, "--wipe_cache\n--wipe_data\n--reason=WipeAllFlash\n");
    EXPECT_EQ(command.size(), 47u);
    EXPECT_THAT(board().commands(), ElementsAre("/system/bin/reboot recovery"));
    EXPECT_THAT(board().reboots(), ElementsAre("recovery"));
    EXPECT_THAT(misc_log(),
                ElementsAre("E/vexa_system_bi_misc: bi_restore_factory_setting, back up screen, is nonsupport!",
                            "E/vexa_system_bi_misc: bi_restore_factory_setting, RestoreFactory",
                            "I/vexa_system_bi_misc: bi_restore_factory_setting do reboot recovery"));
}

TEST_F(UpgradeTest, FactoryResetFailuresStopBeforeTheReboot)
{
    board().write_file("/cache/recovery/command", "stale contents that must go away entirely\n");
    board().inject(Fault::on("write").at("/cache/recovery/command").after(1).once());
    EXPECT_EQ(bi_restore_factory_setting(0), -2);
    EXPECT_EQ(board().read_file("/cache/recovery/command"), "--wipe_cache\n");
    EXPECT_TRUE(logged("E/vexa_system_bi_misc: bi_restore_factory_setting, write error"));

    board().inject(Fault::on("open").at("/cache/recovery/command"));
    EXPECT_EQ(bi_restore_factory_setting(0), -1);
    EXPECT_TRUE(logged("E/vexa_system_bi_misc: bi_restore_factory_setting, open /cache/recovery/command error"));
    EXPECT_TRUE(board().commands().empty());
    EXPECT_TRUE(board().reboots().empty());
}

TEST_F(UpgradeTest, DowngradeFlagStoresTheVersionWithoutItsLetter)
{
    const std::pair<const char *, const char *> versions[] = {
        {"v1.2", "1.2"}, {"V2.0", "2.0"}, {"1.2", "1.2"}, {"x1", "x1"}};
    for (const auto &[build, stored] : versions) {
        board().set_property("ro.build.version.incremental", build);
        EXPECT_EQ(bi_set_system_downgrade_flag(1), 0);
        EXPECT_EQ(board().property("persist.upgrade.flag"), "demote");
        EXPECT_EQ(board().property("persist.upgrade.version"), stored) << build;
    }
    EXPECT_TRUE(logged("D/vexa_system_bi_misc: bi_set_system_downgrade_flag: set persist.upgrade.version x1"));

    EXPECT_EQ(bi_set_system_downgrade_flag(0), 0);
    EXPECT_EQ(board().property("persist.upgrade.flag"), "false");
    EXPECT_EQ(board().property("persist.upgrade.version"), "x1");
}

TEST_F(UpgradeTest, UnsetBuildVersionUsesTheDefault)
{
    EXPECT_EQ(bi_set_system_downgrade_flag(7), 0);
    EXPECT_EQ(board().property("persist.upgrade.version"), "010600CN2401");
}

TEST_F(UpgradeTest, OnlyExactlyDemoteCountsAsFlagged)
{
    EXPECT_EQ(bi_get_system_downgrade_flag(), 0); // unset reads "false"
    board().set_property("persist.upgrade.flag", "demote");
    EXPECT_EQ(bi_get_system_downgrade_flag(), 1);
    board().set_property("persist.upgrade.flag", "demoted");
    EXPECT_EQ(bi_get_system_downgrade_flag(), 0);
    EXPECT_THAT(misc_log(), ElementsAre("D/vexa_system_bi_misc: bi_get_system_downgrade_flag:persist.upgrade.flag is false",
                                        "D/vexa_system_bi_misc: bi_get_system_downgrade_flag:persist.upgrade.flag is demote",
                                        "D/vexa_system_bi_misc: bi_get_system_downgrade_flag:persist.upgrade.flag is false"));
}

TEST_F(UpgradeTest, ResetSsmdataRemovesWhatItCanAndReportsTheRest)
{
    board().write_file("/mnt/vendor/param/pq/SSMHandler", "h");
    board().write_file("/mnt/vendor/param/pq/pq.db", "d");
    EXPECT_EQ(bi_reset_ssmdata(), -1);
    EXPECT_FALSE(board().exists("/mnt/vendor/param/pq/SSMHandler"));
    EXPECT_FALSE(board().exists("/mnt/vendor/param/pq/pq.db"));
    EXPECT_THAT(misc_log(),
                ElementsAre("I/vexa_system_bi_misc: bi_reset_ssmdata success setPreUpgrade",
                            "I/vexa_system_bi_misc: bi_reset_ssmdata success delete file: /mnt/vendor/param/pq/SSMHandler",
                            "E/vexa_system_bi_misc: bi_reset_ssmdata can not delete file: /mnt/vendor/param/pq/ssm_data",
                            "I/vexa_system_bi_misc: bi_reset_ssmdata success delete file: /mnt/vendor/param/pq/pq.db"));

    for (const char *name : {"SSMHandler", "ssm_data", "pq.db"})
        board().write_file(std::string("/mnt/vendor/param/pq/") + name, "x");
    EXPECT_EQ(bi_reset_ssmdata(), 0);
    EXPECT_EQ(bi_demote_clean_files(), 0);
}

TEST_F(UpgradeTest, HdrIsAllowedOnlyForThreeModesAtSixtyHertz)
{
    EXPECT_EQ(bi_get_res_beable_hdr(1920, 1080, 60), 1);
    EXPECT_EQ(bi_get_res_beable_hdr(3840, 2160, 60), 1);
    EXPECT_EQ(bi_get_res_beable_hdr(1280, 720, 60), 1);
    EXPECT_EQ(bi_get_res_beable_hdr(1920, 1080, 50), 0);
    EXPECT_EQ(bi_get_res_beable_hdr(1080, 1920, 60), 0);
    EXPECT_EQ(bi_get_res_beable_hdr(4096, 2160, 60), 0);
}

} // namespace
} // namespace vexa::test
