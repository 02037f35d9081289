#include <cstring>

#include "fpga_fixture.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char *kUpdate = "persist.vexa.system.fpga.fw.update";
constexpr int kControl = 60, kDone = 62;

class LoadProcessTest : public FpgaTest {
protected:
    void SetUp() override
    {
        BoardTest::SetUp();
        reload(sim::Board::Builder().module_id("8470"));
    }
};

TEST_F(LoadProcessTest, Pz50ProNormalBootBringsEverythingUp)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(fpgaLoadProcessPz50Pro(), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(packets().empty()) << "the screen parameters went";
    EXPECT_TRUE(fpga().phy_link());
    EXPECT_EQ(board().property(kUpdate), "") << "nothing to clear";
    EXPECT_FALSE(fpga().gmac_udp());
    EXPECT_EQ(board().property("sys.hdr.realyenable"), "false") << "HDR first";
    EXPECT_THAT(fw_log(), Contains("I/vexa_system_fw_update: fpgaLoadProcessPz50Pro: persist.vexa.system.fpga.fw.update = 0"));
    EXPECT_THAT(fw_log(), Contains("I/vexa_system_fw_update: fpgaLoadProcessPz50Pro: fpgaRecoveryDdr ok"));
    EXPECT_EQ(fw_log().back(), "I/vexa_system_fw_update: fpgaLoadProcessPz50Pro: fpgaNetworkConfig ok");
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(LoadProcessTest, Pz50ProCarriesOutAPendingUpdate)
{
    board().set_property(kUpdate, "1");
    std::vector<int> updating; // the flag whenever the control pin moves
    board().watch_lines([&updating](int id, int, uint64_t) {
        if (id == kControl)
            updating.push_back(config_info->fpga_updating);
    });
    testing::internal::CaptureStdout();
    EXPECT_EQ(fpgaLoadProcessPz50Pro(), 0);
    testing::internal::GetCapturedStdout();
    const std::string program = sim::default_fpga_program(2);
    EXPECT_EQ(board().read_file("/dev/mtd0").substr(0, program.size()), program);
    EXPECT_EQ(running_tag(), tag_of(2));
    EXPECT_EQ(board().property(kUpdate), "0");
    EXPECT_TRUE(fpga().gmac_udp());
    EXPECT_TRUE(fpga().phy_link());
    EXPECT_THAT(updating, ElementsAre(1, 1, 1, 1)) << "format and write, each low then high";
    EXPECT_EQ(config_info->fpga_updating, 0);
    EXPECT_THAT(fw_log(), Contains("I/vexa_system_fw_update: fpgaLoadProcessPz50Pro: now wait 1s..."));
    EXPECT_THAT(fw_log(), Contains("I/vexa_system_fw_update: fpgaLoadProcessPz50Pro: fpga update done "));
}

TEST_F(LoadProcessTest, ACutOffUpdateIsRetriedAtTheNextBoot)
{
    board().set_property(kUpdate, "1");
    knobs("mtd_cut=1000\n");
    EXPECT_EQ(fpgaLoadProcessPz50Pro(), -1);
    EXPECT_EQ(board().property(kUpdate), "1");
    EXPECT_EQ(board().line(kControl), 0) << "the FPGA stays off its flash";
    EXPECT_EQ(board().line(kDone), 1) << "and runs on until it is configured again";
    EXPECT_EQ(config_info->fpga_updating, 0);
    EXPECT_EQ(errors().back(), "E/vexa_system_fw_update: fpgaLoadProcessPz50Pro: fpgaFlashWrite failed");

    knobs("");
    testing::internal::CaptureStdout();
    EXPECT_EQ(fpgaLoadProcessPz50Pro(), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(board().property(kUpdate), "0");
    EXPECT_EQ(board().line(kDone), 1);
    EXPECT_EQ(running_tag(), tag_of(2));
}

TEST_F(LoadProcessTest, ADonePinThatNeverRisesFailsTheBoot)
{
    knobs("done=never\n");
    ASSERT_NE(bi_fpga_load_program(), 0);
    board().clear_log();
    double ms = elapsed_ms([&] { EXPECT_EQ(fpgaLoadProcessPz50Pro(), -1); });
    EXPECT_GE(ms, 10000.0);
    EXPECT_EQ(errors().back(), "E/vexa_system_fw_update: fpgaLoadProcessPz50Pro: fpgaCheckDone failed");
    EXPECT_THAT(packets(), IsEmpty());

    board().set_property(kUpdate, "1");
    board().clear_log();
    EXPECT_EQ(fpgaLoadProcessPz50Pro(), -1);
    EXPECT_EQ(errors().back(), "E/vexa_system_fw_update: fpgaLoadProcessPz50Pro: fpgaCheckDone failed");
    EXPECT_EQ(board().property(kUpdate), "1");
}

TEST_F(LoadProcessTest, LaterFailuresDoNotFailTheBoot)
{
    knobs("ddr=bad\nphy_link=down\n");
    ASSERT_EQ(bi_fpga_load_program(), 0);
    board().clear_log();
    testing::internal::CaptureStdout();
    EXPECT_EQ(fpgaLoadProcessPz50Pro(), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_THAT(errors(), Contains("E/vexa_system_fw_update: fpgaLoadProcessPz50Pro: fpgaRecoveryDdr failed"));
    EXPECT_THAT(errors(), Contains("E/vexa_system_fw_update: fpgaNetworkConfig: fpgaPhySgmiiConfig failed"));
    EXPECT_THAT(fw_log(), Contains("I/vexa_system_fw_update: fpgaLoadProcessPz50Pro: fpgaRecoveryDdr ok"));
}

TEST_F(LoadProcessTest, Hcu900ProLoadsThenSendsOverUdp)
{
    EXPECT_EQ(fpgaLoadProcessHcu900Pro(), 0);
    EXPECT_EQ(running_tag(), tag_of(2));
    EXPECT_FALSE(fpga().udp_writes().empty());
    EXPECT_EQ(fw_log().back(), "I/vexa_system_fw_update: fpgaLoadProcessHcu900Pro: fpgaLoadScreenParamsByUdp ok");
    std::strcpy(config_info->fpga_fw_path, "/data/none.bin");
    EXPECT_EQ(fpgaLoadProcessHcu900Pro(), -1);
    EXPECT_EQ(errors().back(), "E/vexa_system_fw_update: fpgaLoadProcessHcu900Pro: hal_fpga_load_program_sync failed");
}

TEST_F(LoadProcessTest, QrxxT507UpdatesWhenAskedThenSendsTheParameters)
{
    PRODUCT_NUM = 2;
    EXPECT_EQ(fpgaLoadProcessQRxx_t507(), 0);
    EXPECT_EQ(running_tag(), tag_of(1)) << "no update asked";
    board().set_property(kUpdate, "1");
    EXPECT_EQ(fpgaLoadProcessQRxx_t507(), 0);
    EXPECT_EQ(running_tag(), tag_of(2));
    EXPECT_EQ(board().property(kUpdate), "0");
    EXPECT_EQ(fw_log().back(), "I/vexa_system_fw_update: fpgaLoadProcessQRxx_t507: bi_fpga_load_parameter ok");

    board().set_property(kUpdate, "1");
    knobs("spi=fail\n");
    EXPECT_EQ(fpgaLoadProcessQRxx_t507(), -1);
    EXPECT_EQ(errors().back(), "E/vexa_system_fw_update: fpgaLoadProcessQRxx_t507: bi_fpga_active_update_program failed");
    EXPECT_EQ(board().property(kUpdate), "1");
}

TEST_F(LoadProcessTest, WithoutTheUpdateConfigurationNothingRuns)
{
    config_info_t *loaded = config_info;
    config_info = nullptr;
    EXPECT_EQ(fpgaLoadProcessPz50Pro(), -1);
    EXPECT_EQ(fpgaLoadProcessHcu900Pro(), -1);
    EXPECT_EQ(fpgaFlashFormat(), -1);
    EXPECT_EQ(fpgaCheckDone(), 0);
    config_info = loaded;
    EXPECT_EQ(errors().front(), "E/vexa_system_fw_update: fpgaLoadProcessPz50Pro: config_info is NULL, parseConfigInfo "
                                "has not run");
    EXPECT_THAT(fpga().transfers(), IsEmpty());
}

} // namespace
} // namespace vexa::test
