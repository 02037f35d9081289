#include "fpga_fixture.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char *kLinkText = "/sys/class/ethernet/vexaphyreg";
constexpr const char *kPhyReset = "/sys/class/vexagpios/RTL8211FS_RSTN/value";

class NetworkTest : public FpgaTest {
protected:
    const std::vector<std::string> kShellSteps = {
        "insmod /vendor_dlkm/lib/modules/dwmac-meson8b.ko",
        "ifconfig eth1 240.10.10.10 netmask 255.255.255.0 up",
        "echo w 0x1f 0xd08 > /sys/class/ethernet/phyreg",
        "echo r 0x10 > /sys/class/ethernet/phyreg",
        "echo w 0x10 0x5e > /sys/class/ethernet/phyreg",
    };
};

TEST_F(NetworkTest, TheBringUpBringsTheLinkUp)
{
    EXPECT_EQ(board().read_file(kLinkText), "0x902\n") << "no link before";
    double ms = slept_ms([&] { EXPECT_EQ(fpgaPhySgmiiConfig(), 0); });
    EXPECT_EQ(board().commands(), kShellSteps);
    EXPECT_EQ(board().read_file("/proc/modules"), "dwmac_meson8b 16384 0 - Live 0x0000000000000000\n");
    EXPECT_EQ(board().read_file(kPhyReset), "1\n");
    EXPECT_EQ(board().read_file(kLinkText), "0x907\n");
    // The transmit and receive resets: low, low, high, high.
    EXPECT_THAT(sent(kFpgaSpi, 'w'), ElementsAre(hex("02 00 00 11 01 00 00"), hex("02 00 00 11 02 00 00"),
                                                 hex("02 00 00 11 01 01 00"), hex("02 00 00 11 02 01 00")));
    EXPECT_EQ(sent(kFpgaSpi, 'r').front(), hex("0b 00 00 11 00 00 00")) << "the clock state read";
    EXPECT_GE(ms, 500 + 200 + 1 + 5 + 4 * 10.0);
    EXPECT_THAT(fw_log(), Contains("D/vexa_system_fw_update: readFpgaSgmiiClockState: send_data[6] = 0x01"));
    EXPECT_THAT(fw_log(), Contains("I/vexa_system_fw_update: fpgaPhySgmiiConfig,readFpgaSgmiiClockState state = 0x01"));
    EXPECT_THAT(fw_log(), Contains("I/vexa_system_fw_update: <readRtl8211fsPhyLink> get phylink value:'0x907\n' "
                                   "(length: 6)"));
    EXPECT_EQ(fw_log().back(), "I/vexa_system_fw_update: fpgaPhySgmiiConfig: readRtl8211fsPhyLink ok");
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(NetworkTest, AClockThatNeverRunsStopsBeforeThePhy)
{
    knobs("sgmii_clock=never\n");
    double ms = slept_ms([&] { EXPECT_EQ(fpgaPhySgmiiConfig(), -1); });
    EXPECT_EQ(sent(kFpgaSpi, 'r').size(), 10u);
    EXPECT_GE(ms, 20.0);
    EXPECT_LT(ms, 100.0) << "ten rounds 2 ms apart, not 10 ms";
    EXPECT_THAT(board().commands(), IsEmpty()) << "no driver, no PHY reset";
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_fw_update: fpgaPhySgmiiConfig: readFpgaSgmiiClockState failed"));
}

TEST_F(NetworkTest, TheLinkCheckDecidesWhenNegotiationNeverCompletes)
{
    knobs("negotiation=never\n");
    EXPECT_EQ(fpgaPhySgmiiConfig(), -1);
    EXPECT_EQ(board().read_file(kLinkText), "0x902\n");
    EXPECT_EQ(errors().back(), "E/vexa_system_fw_update: fpgaPhySgmiiConfig: readRtl8211fsPhyLink failed");
    knobs("negotiation=never\nphy_link=up\n");
    board().clear_log();
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0) << "ten rounds without negotiation go on to the link check";
    EXPECT_THAT(fw_log(), testing::Not(Contains(
                              "I/vexa_system_fw_update: fpgaPhySgmiiConfig: readFpgaSgmiiNegotiationState ok")));
}

TEST_F(NetworkTest, TheLinkTestIsASubstringMatch)
{
    struct Case {
        std::string text;
        int result;
    };
    const Case cases[] = {{"reg 0x1a: 0x9070\n", 1}, {"0x907", 1}, {"0x0907\n", 0}, {"", 0}, {"0x90 7", 0}};
    for (const Case &c : cases) {
        board().write_file(kLinkText, c.text);
        EXPECT_EQ(readRtl8211fsPhyLink(), c.result) << c.text;
    }
    board().remove_file(kLinkText);
    board().clear_log();
    EXPECT_EQ(readRtl8211fsPhyLink(), -1);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_fw_update: <readRtl8211fsPhyLink> the path "
                                      "/sys/class/ethernet/vexaphyreg not exist!"));
}

TEST_F(NetworkTest, FiveFailedAttemptsLogOnceAndReturn0)
{
    knobs("phy_link=down\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(fpgaNetworkConfig(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "in fpgaNetworkConfig\nfpgaNetworkConfig try\nfpgaNetworkConfig try\nfpgaNetworkConfig try\n"
              "fpgaNetworkConfig try\nfpgaNetworkConfig try\n");
    std::vector<std::string> failures;
    for (auto &line : errors())
        if (line.find("fpgaNetworkConfig") != std::string::npos)
            failures.push_back(line);
    EXPECT_THAT(failures, ElementsAre("E/vexa_system_fw_update: fpgaNetworkConfig: fpgaPhySgmiiConfig failed"));
    EXPECT_EQ(board().commands().size(), 5 * kShellSteps.size()) << "every attempt repeats every step";
}

TEST_F(NetworkTest, TheDriverLoadsOnce)
{
    EXPECT_EQ(fpgaDwmacConfig(), 0);
    EXPECT_EQ(fpgaDwmacConfig(), 1 << 8) << "insmod refuses a loaded module";
    board().remove_file("/vendor_dlkm/lib/modules/dwmac-meson8b.ko");
    board().write_file("/proc/modules", "");
    EXPECT_EQ(fpgaDwmacConfig(), 1 << 8);
    EXPECT_EQ(board().read_file("/proc/modules"), "");
}

TEST_F(NetworkTest, RegisterReadsCheckTheirBuffer)
{
    uint8_t state[2] = {};
    EXPECT_EQ(readFpgaSgmiiNegotiationState(nullptr, 1), -1);
    EXPECT_EQ(readFpgaSgmiiClockState(state, 2), 8);
    EXPECT_EQ(state[0], 1);
    EXPECT_EQ(state[1], 0) << "0x1101 reads back what was written: nothing";
    EXPECT_EQ(errors(), std::vector<std::string>{
                            "E/vexa_system_fw_update: readFpgaSgmiiNegotiationState: data_buf is NULL!"});
    board().inject(sim::Fault::on("open").at(kFpgaSpi).once());
    EXPECT_EQ(readFpgaDdrState(state), -1);
    knobs("spi=fail\n");
    EXPECT_EQ(readFpgaDdrState(state), -1);
    EXPECT_THAT(errors(), Contains("E/vexa_system_fw_update: readFpgaDdrState: open spi port /dev/fpga_spi failed."));
    EXPECT_THAT(errors(),
                Contains("E/vexa_system_fw_update: readFpgaDdrState: read spi port /dev/fpga_spi failed, return -1."));
}

TEST_F(NetworkTest, TheDdrCheckRecoversWhatAResetFixes)
{
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_THAT(sent(kFpgaSpi, 'w'), IsEmpty());
    // A bad DDR is reset; one that stays bad fails the check.
    for (const char *knob : {"ddr=recovers\n", "ddr=bad\n"}) {
        knobs(knob);
        ASSERT_EQ(bi_fpga_load_program(), 0) << "a fresh program calibrates its DDR";
        fpga().clear_record();
        board().clear_log();
        double ms = slept_ms([&] { EXPECT_EQ(fpgaCheckDDRAndRecovery(), knob[4] == 'r' ? 0 : -1) << knob; });
        EXPECT_THAT(sent(kFpgaSpi, 'w'), ElementsAre(hex("02 00 00 10 17 00 00"), hex("02 00 00 10 17 01 00")));
        EXPECT_GE(ms, 2 * 10.0 + 2 * 10.0 + 100.0);
        EXPECT_EQ(errors()[0], "E/vexa_system_fw_update: fpgaCheckDDRAndRecovery: DDR state is 0x00, recovering");
    }
}

TEST_F(NetworkTest, ResetFailuresAreEachReported)
{
    board().inject(sim::Fault::on("open").at(kFpgaSpi).always());
    EXPECT_EQ(sendFpgaTxRxReset(), -1);
    std::vector<std::string> resets;
    for (auto &line : errors())
        if (line.find("sendFpgaTxRxReset") != std::string::npos)
            resets.push_back(line);
    EXPECT_THAT(resets, ElementsAre("E/vexa_system_fw_update: sendFpgaTxRxReset: send_tx_reset_low failed",
                                    "E/vexa_system_fw_update: sendFpgaTxRxReset: send_rx_reset_low failed",
                                    "E/vexa_system_fw_update: sendFpgaTxRxReset: send_tx_reset_high failed",
                                    "E/vexa_system_fw_update: sendFpgaTxRxReset: send_rx_reset_high failed"));
    board().clear_faults();
    board().remove_file(kPhyReset);
    board().clear_log();
    EXPECT_EQ(reset8211FS(), -1);
    EXPECT_EQ(errors(), std::vector<std::string>{"E/vexa_system_fw_update: open failed! No such file or directory"});
}

} // namespace
} // namespace vexa::test
