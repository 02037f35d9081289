// The MCU watchdog line and the start-up status line, watched by the MCU model.
#include <unistd.h>

#include "mcu_fixture.h"
#include "platform/os.h"
#include "vexasdk/mcu.h"

namespace {

constexpr int kLine = 91; // mcu_wdt_switch of the default board

class WatchdogTest : public vexa::test::McuTest {
protected:
    std::vector<std::string> wdt_log() { return log_of("vexa_system_bi_watchdog"); }
    vexa::sim::McuModel::Watchdog seen() { return mcu().watchdog(board().now_ns()); }
};

TEST_F(WatchdogTest, IdsBelowOneTouchNoLine)
{
    for (int id : {0, -1}) {
        EXPECT_EQ(bi_mcu_watchdog_open(id), -1);
        EXPECT_EQ(bi_mcu_watchdog_close(id), -1);
        EXPECT_EQ(bi_mcu_watchdog_start_feed(id), -1);
        EXPECT_EQ(bi_mcu_watchdog_start_feed_test(id), -1);
        EXPECT_EQ(bi_mcu_check_startup_status(id), -1);
        EXPECT_EQ(wdtPulseThreadHandle(&id), nullptr);
    }
    EXPECT_TRUE(board().lines().empty());
    EXPECT_TRUE(logged("D/vexa_system_bi_watchdog: bi_mcu_watchdog_close gpio_id is -1"));
    EXPECT_TRUE(logged("D/vexa_system_bi_watchdog: wdtPulseThreadHandle gpio_id is 0"));
    EXPECT_EQ(wdtPulseThreadHandle(nullptr), nullptr);
}

TEST_F(WatchdogTest, OpenDrivesTheLineLowOnce)
{
    board().set_line(kLine, 1);
    EXPECT_EQ(bi_mcu_watchdog_open(kLine), 0);
    EXPECT_EQ(board().line(kLine), 0);
    EXPECT_THAT(wdt_log(), ::testing::ElementsAre(
                               "D/vexa_system_bi_watchdog: bi_mcu_watchdog_open is called",
                               "D/vexa_system_bi_watchdog: gpio_id=91, value=0"));
}

TEST_F(WatchdogTest, CloseSendsFiveShortPulsesEndingHigh)
{
    bi_mcu_watchdog_open(kLine);
    const uint64_t start = board().now_ns();
    EXPECT_EQ(bi_mcu_watchdog_close(kLine), 0);
    EXPECT_GE(board().now_ns() - start, 50000000u);
    EXPECT_LT(board().now_ns() - start, 1000000000u); // the rest is real time spent
    EXPECT_EQ(board().line(kLine), 1);
    const auto w = seen();
    EXPECT_TRUE(w.closed);
    EXPECT_FALSE(w.fed);
    EXPECT_EQ(w.edges, 12u);
}

TEST_F(WatchdogTest, ModelNoticesWhenFeedingStops)
{
    const uint64_t start = board().now_ns();
    // Thirty 1 s pulses in the calling thread.
    EXPECT_EQ(bi_mcu_watchdog_start_feed_test(kLine), 0);
    EXPECT_GE(board().now_ns() - start, 30000000000u);
    EXPECT_LT(board().now_ns() - start, 31000000000u);
    EXPECT_EQ(seen().edges, 60u);
    EXPECT_TRUE(seen().fed);
    vexa::os::sleep_us(4000000);
    EXPECT_FALSE(seen().fed);
    EXPECT_FALSE(seen().closed);
}

TEST_F(WatchdogTest, StartupStatusIsTheLinesLevel)
{
    board().set_line(93, 1);
    EXPECT_EQ(bi_mcu_check_startup_status(93), 1);
    EXPECT_TRUE(logged("I/vexa_system_bi_watchdog: gpio_id=93, value=1"));
    board().set_line(93, 0);
    EXPECT_EQ(bi_mcu_check_startup_status(93), 0);
}

// The feeder never stops, so it runs in a child process that ends with the
// check; the test process never holds a feeder.
TEST_F(WatchdogTest, FeederTogglesTheLineEveryHalfSecond)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const uint64_t start = board().now_ns();
            const int rc = bi_mcu_watchdog_start_feed(kLine);
            const bool waited = board().now_ns() - start >= 500000000u;
            // The feeder's own clock steps decide the period: wait for pulses.
            for (int i = 0; i < 2000 && seen().edges < 6; ++i)
                usleep(1000);
            const auto w = seen();
            _exit(rc == 0 && waited && w.edges >= 6 && w.fed && !w.closed ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
