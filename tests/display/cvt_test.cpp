#include <cmath>
#include <string>

#include "display_fixture.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

class CvtTest : public DisplayTest {};

// VESA DMT reduced-blanking modes (CVT-RB): active size, totals, vertical
// front porch, sync and back porch, and the published clock in kHz.
struct PublishedMode {
    uint32_t h, v, htotal, vtotal, vfront, vsync, vback, clock_khz;
};
const PublishedMode kDmtReducedBlanking[] = {
    {1280, 768, 1440, 790, 3, 7, 12, 68250},   {1280, 800, 1440, 823, 3, 6, 14, 71000},
    {1400, 1050, 1560, 1080, 3, 4, 23, 101000}, {1440, 900, 1600, 926, 3, 6, 17, 88750},
    {1680, 1050, 1840, 1080, 3, 6, 21, 119000}, {1920, 1200, 2080, 1235, 3, 6, 26, 154000},
    {2560, 1600, 2720, 1646, 3, 6, 37, 268500},
};

TEST_F(CvtTest, IntegerRbMatchesPublishedReducedBlankingModes)
{
    for (const PublishedMode &m : kDmtReducedBlanking) {
        SCOPED_TRACE(std::to_string(m.h) + "x" + std::to_string(m.v));
        ResolutionTiming t{};
        ASSERT_EQ(CalculateCVTRBStandard(m.h, m.v, &t), 0);
        EXPECT_EQ(t.magic, RESOLUTION_TIMING_MAGIC);
        EXPECT_EQ(t.hsync_start, m.h + 48);
        EXPECT_EQ(t.hsync_end, m.h + 80);
        EXPECT_EQ(t.htotal, m.htotal);
        EXPECT_EQ(t.vsync_start, m.v + m.vfront);
        EXPECT_EQ(t.vsync_end, m.v + m.vfront + m.vsync);
        EXPECT_EQ(t.vtotal, m.vtotal);
        EXPECT_EQ(uint32_t(VBack), m.vback);
        // The published clock is rounded down to 0.25 MHz; this engine rounds
        // up to 10 kHz, and its second pass may add one more step.
        EXPECT_GE(t.clock, m.clock_khz);
        EXPECT_LT(t.clock, m.clock_khz + 250 + 10);
        EXPECT_EQ(t.vrefresh, 60u);
        EXPECT_EQ(VRate, 60000) << "the wrapper restores the requested refresh";
    }
}

TEST_F(CvtTest, RbRefreshWordIsSixtyWhateverTheRate)
{
    VRate = 50000;
    ResolutionTiming t{};
    ASSERT_EQ(CalculateCVTRBStandard(1920, 1080, &t), 0);
    EXPECT_EQ(t.htotal, 2080u);
    EXPECT_EQ(t.vsync_end - t.vsync_start, 5u); // 16:9 band
    EXPECT_EQ(t.vsync_start - t.vdisplay, 3u);
    EXPECT_EQ(t.vrefresh, 60u);
    EXPECT_EQ(VRate, 50000);
}

TEST_F(CvtTest, VSyncFollowsAspectBandsWithGapsAtTen)
{
    struct Case {
        int32_t h, v, vsync;
    };
    // 2449 lies between the 15:9 and 16:10 bands; 0 is in no band.
    const Case cases[] = {{1920, 1080, 5}, {1280, 768, 7}, {1920, 1200, 6}, {1024, 768, 4},
                          {1280, 1024, 7}, {4000, 2449, 10}, {1000, 100, 10}, {0, 100, 10}};
    for (const Case &c : cases) {
        HActive = c.h;
        VActive = c.v;
        EXPECT_EQ(GetVSyncForCVTRB(), c.vsync) << c.h << "x" << c.v;
    }
    Fields = 2;
    HActive = 1920;
    VActive = 1080;
    EXPECT_EQ(GetVSyncForCVTRB(), 10);
}

TEST_F(CvtTest, Rb2MatchesPublishedTiming)
{
    ResolutionTiming t{};
    ASSERT_EQ(CalculateCVTRB2Standard(1920, 1080, &t), 0);
    EXPECT_EQ(t.hsync_start, 1928u);
    EXPECT_EQ(t.hsync_end, 1960u);
    EXPECT_EQ(t.htotal, 2000u);
    EXPECT_EQ(t.vsync_start, 1097u); // front porch 17
    EXPECT_EQ(t.vsync_end, 1105u);
    EXPECT_EQ(t.vtotal, 1111u);
    EXPECT_NEAR(double(t.clock), 133320.0, 10.0);
}

TEST_F(CvtTest, SizesAndRatesWithoutATimingAreIllegal)
{
    ResolutionTiming t{};
    EXPECT_EQ(CalculateCVTRBStandard(0, 1080, &t), -1);
    EXPECT_EQ(CalculateCVTRB2Standard(1920, 0, &t), -1);
    EXPECT_EQ(CalculateCVTRBStandard_VDC260(1920, 1080, nullptr), -1);
    EXPECT_EQ(calculate_cvtrb_timming(0, 1080, 60, "cvtrb", &t), -1);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_CVTRB: CVTRB: illegal data",
                            "E/vexa_system_CVTRB: CVTRB2: illegal data",
                            "E/vexa_system_CVTRB: CVTRB: illegal data",
                            "E/vexa_system_bi_resolution: CVTRB: illegal data"));
    // Nothing to divide by: no refresh, a refresh whose frame is shorter than
    // the blanking, a size beyond 16 bits.
    VRate = 0;
    EXPECT_EQ(CalculateCVTRBStandard(1920, 1080, &t), -1);
    VRate = 3000000;
    EXPECT_EQ(CalculateCVTRB2Standard(1920, 1080, &t), -1);
    VRate = 60000;
    EXPECT_EQ(CalculateCVTRBStandard(70000, 1080, &t), -1);
    EXPECT_EQ(CalculateCVTRBStandard_VDC260_fps(1920, 1080, 0, &t), -1);
    EXPECT_EQ(calculate_cvtrb_timming(1920, 1080, 0, "cvtrb", &t), -1);
}

TEST_F(CvtTest, RbPassLogsItsSteps)
{
    HActive = 1280;
    VActive = 768;
    ASSERT_EQ(CalculateCVTRB(), 0);
    EXPECT_THAT(log_of("vexa_system_CVTRB"),
                ElementsAre("D/vexa_system_CVTRB: Heriod: 21102430", "D/vexa_system_CVTRB: VBlank: 22",
                            "D/vexa_system_CVTRB: VBack: 12"));
    board().clear_log();
    ResolutionTiming t{};
    ASSERT_EQ(CalculateCVTRBStandard(1280, 768, &t), 0);
    EXPECT_THAT(board().log_lines(),
                Contains("E/vexa_system_CVTRB: VRate: 60000, HTotal: 1440, VTotal: 790, Divison: "
                         "10000000"));
}

// The vdc260 PLL makes multiples of 12 MHz from 288 to 2520 MHz; the pixel
// clock is the PLL over 16 below 36 MHz, else over 8.
TEST_F(CvtTest, Vdc260SnapsClockToVideoPll)
{
    struct Case {
        uint32_t h, v, divider;
    };
    for (const Case &c : {Case{640, 480, 16}, Case{1280, 720, 8}, Case{1920, 1080, 8}}) {
        SCOPED_TRACE(std::to_string(c.h));
        ResolutionTiming t{};
        ASSERT_EQ(CalculateCVTRBStandard_VDC260(c.h, c.v, &t), 0);
        const uint64_t pll = uint64_t(t.clock) * 1000 * c.divider;
        const uint64_t requested = uint64_t(PClock) * 10000 * c.divider;
        EXPECT_EQ(pll % 12000000, 0u);
        EXPECT_GE(pll, requested);
        EXPECT_LT(pll, requested + 12000000);
        EXPECT_EQ(t.htotal, 1000 * t.clock / (t.vtotal * 60));
        EXPECT_EQ(t.vrefresh, 60u);
    }
}

TEST_F(CvtTest, Vdc260FpsKeepsRequestedRateForLaterCalls)
{
    ResolutionTiming t{};
    ASSERT_EQ(CalculateCVTRBStandard_VDC260_fps(1920, 1080, 50, &t), 0);
    EXPECT_EQ(VRate, 50000);
    EXPECT_EQ(t.vrefresh, 50u);
    EXPECT_EQ(board().log_lines().front(),
              "D/vexa_system_CVTRB: CalculateCVTRBStandard_VDC260_fps CVTRB: hactive: 1920, "
              "vactive: 1080, fps: 50");
    // The plain wrapper now runs at 50 Hz too.
    ResolutionTiming at50{};
    ASSERT_EQ(CalculateCVTRBStandard(1920, 1080, &at50), 0);
    EXPECT_NEAR(double(at50.clock), 50.0 * at50.htotal * at50.vtotal / 1000.0, 10.0);
}

TEST_F(CvtTest, FloatEngineReducedBlanking)
{
    CvtMode m{};
    ASSERT_EQ(vert_refresh(1024, 600, 60.0f, 0, 1, 0, 0, &m), 0);
    // No aspect band fits 1024x600: vsync 10, and the minimum blanking of
    // 3 + 10 + 6 lines wins over the 460 us rule (18 lines).
    EXPECT_EQ(m.hsync_start, 1072);
    EXPECT_EQ(m.hsync_end, 1104);
    EXPECT_EQ(m.htotal, 1184);
    EXPECT_EQ(m.vsync_start, 603);
    EXPECT_EQ(m.vsync_end, 613);
    EXPECT_EQ(m.vtotal, 619);
    EXPECT_NEAR(m.clock, 43.973f, 0.0005f);
    EXPECT_NEAR(m.v_freq_actual, 60.0f, 0.01f);

    ResolutionTiming t{};
    EXPECT_EQ(convert_cvt_to_resolution(&m, &t), 60);
    EXPECT_EQ(t.clock, 43973u);
    EXPECT_EQ(t.vtotal, 619u);
}

TEST_F(CvtTest, FloatEngineNormalBlankingAndPulldown)
{
    CvtMode m{};
    ASSERT_EQ(vert_refresh(1920, 1080, 60.0f, 0, 0, 0, 0, &m), 0);
    // Cells of one pixel: 25.5 % duty gives 658 blank pixels (656 with the
    // published 8-pixel cell).
    EXPECT_EQ(m.htotal, 2578);
    EXPECT_EQ(m.hsync_end - m.hsync_start, 206);
    EXPECT_EQ(m.htotal - m.hsync_end, 329);
    EXPECT_EQ(m.vsync_start, 1083);
    EXPECT_EQ(m.vsync_end, 1088);
    EXPECT_EQ(m.reduced_blank, 0);

    CvtMode pulled{};
    ASSERT_EQ(vert_refresh(1920, 1080, 60.0f, 0, 0, 0, 1, &pulled), 0);
    EXPECT_NEAR(pulled.clock, m.clock * 1000.0f / 1001.0f, 0.001f);
    EXPECT_NEAR(pulled.v_freq_actual, 59.94f, 0.05f);
}

TEST_F(CvtTest, RefreshSnapsToNearbyStandardRates)
{
    CvtMode m{};
    ResolutionTiming t{};
    const std::pair<float, int> cases[] = {{59.94f, 60}, {61.9f, 60}, {62.0f, 62}, {50.6f, 50}, {30.5f, 30},
                                           {45.0f, 45}, {48.9f, 48}};
    for (auto [actual, snapped] : cases) {
        m.v_freq_actual = actual;
        EXPECT_EQ(convert_cvt_to_resolution(&m, &t), snapped) << actual;
        EXPECT_EQ(t.vrefresh, uint32_t(snapped));
    }
}

TEST_F(CvtTest, ModelinePrinterShowsReducedBlankingPolarity)
{
    CvtMode m{};
    ASSERT_EQ(vert_refresh(1024, 600, 60.0f, 0, 1, 0, 0, &m), 0);
    ::testing::internal::CaptureStdout();
    print_xf86_mode(&m);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "# 1024x600 @ 60.000 Hz Reduced Blank (CVT) field rate 59.999 Hz; hsync: 37.139 "
              "kHz; pclk: 43.97 MHz\n"
              "Modeline \"1024x600_60.00R\"  43.97  1024 1072 1104 1184  600 603 613 619 "
              "+hsync -vsync\n");
}

} // namespace
} // namespace vexa::test
