#include <cstring>

#include "display_fixture.h"

namespace vexa::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TablesTest : public DisplayTest {};

TEST_F(TablesTest, StandardSixtyHertzModesComeFromCeaThenDmt)
{
    DetailedTiming t;
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(select_standard_resolution(&t, 1920, 1080, 60.0f), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "select_standard_resolution: vdisplay and hdisplay and freq(60) in "
              "cea_standard_resolution table\n");
    EXPECT_EQ(t.h_active, 1920);
    EXPECT_EQ(t.h_blank, 280);
    EXPECT_EQ(t.h_sync_offset, 88);
    EXPECT_EQ(t.h_sync_width, 44);
    EXPECT_EQ(t.v_active, 1080);
    EXPECT_EQ(t.v_blank, 45);
    EXPECT_EQ(t.v_sync_offset, 4);
    EXPECT_EQ(t.v_sync_width, 5);
    EXPECT_EQ(t.pixel_clock, 148500000u);
    EXPECT_EQ(t.sync_type, 3);
    EXPECT_EQ(t.sync_flags, 0);

    // The first 1280-wide row of that height; 1280x720 is CEA before any DMT row.
    ASSERT_EQ(select_standard_resolution(&t, 1280, 768, 60.0f), 0);
    EXPECT_EQ(t.h_blank, 1664 - 1280);
    ASSERT_EQ(select_standard_resolution(&t, 1280, 720, 60.0f), 0);
    EXPECT_EQ(t.h_blank, 370);
    // The clock follows the totals, not the row's clock column.
    ASSERT_EQ(select_standard_resolution(&t, 640, 480, 60.0f), 0);
    EXPECT_EQ(t.pixel_clock, 800u * 525 * 60);

    EXPECT_EQ(select_standard_resolution(&t, 1920, 1080, 59.94f), -1);
    EXPECT_EQ(select_standard_resolution(&t, 1024, 600, 60.0f), -1);
    EXPECT_THAT(board().log_lines(), IsEmpty());
}

TEST_F(TablesTest, DmtTimingKnowsOnlyFiveSizes)
{
    TimingTableRow row{};
    ASSERT_EQ(GetDmtTiming(1920, 1080, 600, &row), 1);
    EXPECT_EQ(row.mode_number, 17u);
    EXPECT_EQ(row.htotal, 2200);
    EXPECT_EQ(row.v_sync_back, 41);
    ASSERT_EQ(GetDmtTiming(3840, 2160, 604, &row), 1);
    EXPECT_EQ(row.mode_number, 21u);
    EXPECT_EQ(GetDmtTiming(3840, 2160, 605, &row), 0);
    EXPECT_EQ(GetDmtTiming(1920, 1080, 500, &row), 0);
    EXPECT_EQ(GetDmtTiming(1280, 720, 600, &row), 0);
}

TEST_F(TablesTest, VideoTimingFillsRowLayoutFromModeTable)
{
    TimingTableRow row{};
    row.mode_number = 99;
    ASSERT_EQ(GetVideoTiming(1280, 720, 60, &row), 1);
    EXPECT_EQ(row.mode_number, 99u);
    EXPECT_EQ(row.h_freq, 450); // 60 x 750 / 100
    EXPECT_EQ(row.v_freq, 600);
    EXPECT_EQ(row.htotal, 1650);
    EXPECT_EQ(row.vtotal, 750);
    EXPECT_EQ(row.h_blank, 370);
    EXPECT_EQ(row.h_sync, 40);
    EXPECT_EQ(row.h_sync_back, 260);
    EXPECT_EQ(row.v_blank, 30);
    EXPECT_EQ(row.v_sync, 5);
    EXPECT_EQ(row.v_sync_back, 25);
    EXPECT_EQ(GetVideoTiming(1280, 720, 59, &row), 0);
    EXPECT_EQ(GetVideoTiming(1024, 600, 60, &row), 0);
}

TEST_F(TablesTest, ClosestLargerSplitWidth)
{
    const std::pair<uint32_t, uint32_t> cases[] = {
        {4225, 4352}, {4224, 4224}, {0, 4224}, {16256, 16256}, {16257, 16320},
        {16300, 16320}, {16353, 16368}, {16368, 16368}, {20000, 16368}};
    for (auto [in, out] : cases) {
        uint32_t w = in;
        findClosestLarger(&w);
        EXPECT_EQ(w, out) << in;
    }
}

TEST_F(TablesTest, DiscountSplitsWideScreens)
{
    int32_t w = 0, h = 0, f = 0;
    ASSERT_EQ(calculateDiscountResolution(5000, 1080, &w, &h, &f), 0);
    EXPECT_EQ(f, 4);
    EXPECT_EQ(w, 1250);
    EXPECT_EQ(h, 4320);
    ASSERT_EQ(calculateDiscountResolution(8193, 100, &w, &h, &f), 0);
    EXPECT_EQ(f, 8);
    EXPECT_EQ(w, 1026);
    ASSERT_EQ(calculateDiscountResolution(4096, 1080, &w, &h, &f), 0);
    EXPECT_EQ(f, 1);
    EXPECT_EQ(w, 4096);
    EXPECT_EQ(h, 1080);
    ASSERT_EQ(calculateDiscountResolution(4098, 7, &w, &h, &f), 0);
    EXPECT_EQ(w, 1026); // ceil(4098 / 4) = 1025, raised to even

    EXPECT_EQ(calculateDiscountResolution(16369, 1080, &w, &h, &f), -3);
    EXPECT_EQ(calculateDiscountResolution(5000, 600000000, &w, &h, &f), -5);
    EXPECT_EQ(calculateDiscountResolution(0, 1080, &w, &h, &f), -1);
    EXPECT_EQ(calculateDiscountResolution(5000, 1080, nullptr, &h, &f), -2);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_resolution: calculateDiscountResolution: resolution "
                            "height Overflow",
                            "E/vexa_system_bi_resolution: calculateDiscountResolution: illegal "
                            "resolution",
                            "E/vexa_system_bi_resolution: calculateDiscountResolution: illegal "
                            "input resolution"));
}

TEST_F(TablesTest, FixedClockCalculators)
{
    ResolutionTiming t{};
    ASSERT_EQ(calculateActiveResolutionGm2k(1920, 1, &t), 0);
    EXPECT_EQ(t.clock, 148500u);
    EXPECT_EQ(t.htotal, 2080u);
    EXPECT_EQ(t.vtotal, 1189u);
    EXPECT_EQ(t.vdisplay, 1144u);
    EXPECT_EQ(t.vsync_end, 1152u);
    ASSERT_EQ(calculateActiveResolutionGm2k(200, 1, &t), 0);
    EXPECT_EQ(t.vdisplay, 3820u); // capped

    ASSERT_EQ(calculateActiveResolutionRk3328(1921, 1080, &t), 0);
    EXPECT_EQ(t.hdisplay, 1922u);
    EXPECT_EQ(t.htotal, 2082u);
    EXPECT_EQ(t.clock, 148500u);
    EXPECT_EQ(t.vtotal, 1188u);
    // Above the last PLL frequency the clock is taken as it is.
    ASSERT_EQ(calculateActiveResolutionRk3328(4000, 2160, &t), 0);
    EXPECT_EQ(t.clock, 594000u);
    ASSERT_EQ(calculateActiveResolutionRk3328(4096, 2400, &t), 0);
    EXPECT_EQ(t.clock, 4256u * 60 * 2445 / 1000);

    EXPECT_EQ(calculateActiveResolutionGm2k(0, 1, &t), -1);
    EXPECT_EQ(calculateActiveResolutionRk3328(1920, 0, &t), -1);
    EXPECT_THAT(board().log_lines(), ElementsAre("E/vexa_system_bi_resolution: GMB2K: illegal data",
                                                 "E/vexa_system_bi_resolution: 3328: illegal data"));
}

TEST_F(TablesTest, AlternativeCalculatorRunsAtTheClockLimit)
{
    ResolutionBorder config{1, 0, 4096, 0, 4096, 0, 148500, calculateActiveResolutionGm2k,
                            calculateActiveResolutionRk3328};
    ResolutionTiming t{};
    ASSERT_EQ(calculateResolutionTimming(1921, 1080, &config, &t), 0);
    EXPECT_EQ(t.hdisplay, 1922u) << "148.5 MHz reaches the limit";
    EXPECT_EQ(board().log_lines().at(1),
              "D/vexa_system_bi_resolution: Using alternative timing calculation");

    config.max_clock = 148501;
    ASSERT_EQ(calculateResolutionTimming(1921, 1080, &config, &t), 0);
    EXPECT_EQ(t.hdisplay, 1921u);

    board().clear_log();
    EXPECT_EQ(calculateResolutionTimming(0, 1080, &config, &t), -1);
    EXPECT_EQ(calculateResolutionTimming(1920, 1080, nullptr, &t), -1);
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_resolution: calculateResolutionTimming: Invalid "
                            "resolution dimensions!",
                            "E/vexa_system_bi_resolution: calculateResolutionTimming: Invalid "
                            "input parameters!"));
}

} // namespace
} // namespace vexa::test
