// RTC alarms and the kernel watchdog through the board's platform calls.
#include <linux/rtc.h>

#include "sim/rtc/rtc_watchdog.h"
#include "support/board_fixture.h"
#include "vexasdk/peripherals.h"

namespace {

class RtcTest : public vexa::test::ProductTest {};

struct rtc_time at(int y, int mo, int d, int h, int mi, int s)
{
    struct rtc_time t {};
    t.tm_year = y - 1900;
    t.tm_mon = mo - 1;
    t.tm_mday = d;
    t.tm_hour = h;
    t.tm_min = mi;
    t.tm_sec = s;
    return t;
}

TEST_F(RtcTest, AlarmsReachTheRtcOfTheRecord)
{
    ASSERT_EQ(bi_rtc_set_boot_enable(1), 0);
    ASSERT_EQ(bi_rtc_set_wake_enable(0), 0);
    const auto boot = at(2025, 3, 1, 7, 30, 0);
    ASSERT_EQ(bi_rtc_set_boot_time(&boot), 0);
    EXPECT_EQ(vexa::sim::rtc_state(board(), "/dev/rtc0", "alarm1_enable"), "1");
    EXPECT_EQ(vexa::sim::rtc_state(board(), "/dev/rtc0", "alarm2_enable"), "0");
    EXPECT_EQ(vexa::sim::rtc_state(board(), "/dev/rtc0", "boot_time"), "2025-03-01 07:30:00");
    struct rtc_time back {};
    ASSERT_EQ(bi_rtc_get_boot_time(&back), 0);
    EXPECT_EQ(back.tm_hour, 7);
    EXPECT_EQ(back.tm_min, 30);
    EXPECT_EQ(back.tm_mon, 2);
    // No wake time set yet: the platform's failure comes back.
    EXPECT_EQ(bi_rtc_get_wake_time(&back), -1);
    // The set-time operations log the path at error priority.
    EXPECT_EQ(board().log_lines(),
              (std::vector<std::string>{"D/vexa_system_bi_rtc: <bi_rtc_set_boot_enable>, /dev/rtc0",
                                        "D/vexa_system_bi_rtc: <bi_rtc_set_wake_enable>, /dev/rtc0",
                                        "E/vexa_system_bi_rtc: <bi_rtc_set_boot_time>, /dev/rtc0",
                                        "D/vexa_system_bi_rtc: <bi_rtc_get_boot_time>, /dev/rtc0",
                                        "D/vexa_system_bi_rtc: <bi_rtc_get_wake_time>, /dev/rtc0"}));
}

TEST_F(RtcTest, MissingDeviceIsNotFound)
{
    configure("rtc_device", std::nullopt);
    const auto t = at(2025, 1, 1, 0, 0, 0);
    EXPECT_EQ(bi_rtc_set_wake_time(&t), -1);
    EXPECT_EQ(board().log_lines(),
              std::vector<std::string>{"E/vexa_system_bi_rtc: <bi_rtc_set_wake_time>, devices not found"});
    configure("rtc_device", std::string("/dev/rtc9"));
    EXPECT_EQ(bi_rtc_set_boot_enable(1), -1); // the platform finds no such node
}

class WatchdogTest : public vexa::test::ProductTest {};

TEST_F(WatchdogTest, ParseTakesTheRecordWithDefaults)
{
    bi_watchdog_t w{};
    bi_watchdog_parse(&w);
    EXPECT_STREQ(w.dev, "/dev/watchdog");
    EXPECT_EQ(w.timeout, 10u);
    EXPECT_EQ(w.interval, 2u);

    configure("wdt_timeout", std::string("60"));
    bi_watchdog_parse(&w);
    EXPECT_EQ(w.timeout, 60u);
    configure("wdt_timeout", std::string("61"));
    bi_watchdog_parse(&w);
    EXPECT_EQ(w.timeout, 10u);
    EXPECT_EQ(board().log_lines().back(),
              "D/vexa_system_bi_watchdog: bi_watchdog_parse invalid wdt_timeout in ini file, use default:10");
    configure("wdt_interval", std::nullopt);
    bi_watchdog_parse(&w);
    EXPECT_EQ(w.interval, 2u);
    configure("wdt_dev", std::string(""));
    bi_watchdog_parse(&w);
    EXPECT_STREQ(w.dev, "/dev/watchdog");
    EXPECT_TRUE(logged("D/vexa_system_bi_watchdog: bi_watchdog_parse wdt_dev not found, use default"));
    // A missing key reads "UNDEF", which is kept.
    configure("wdt_dev", std::nullopt);
    bi_watchdog_parse(&w);
    EXPECT_STREQ(w.dev, "UNDEF");
}

TEST_F(WatchdogTest, OpenFeedAndCloseReachTheDevice)
{
    bi_watchdog_t w{};
    bi_watchdog_parse(&w);
    ASSERT_EQ(bi_watchdog_open(&w, 20), 0);
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "open"), "1");
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "timeout"), "20");
    ASSERT_EQ(bi_watchdog_feed_loop(&w, 3), 0);
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "feeds"), "3");
    ASSERT_EQ(bi_watchdog_close("/dev/watchdog"), 0);
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "open"), "0");
    EXPECT_EQ(board().log_lines(),
              (std::vector<std::string>{"D/vexa_system_bi_watchdog: bi_watchdog_open is called",
                                        "D/vexa_system_bi_watchdog: bi_watchdog_feed_loop is called",
                                        "D/vexa_system_bi_watchdog: bi_watchdog_close is called, wdt=/dev/watchdog"}));
}

TEST_F(WatchdogTest, UnfedWatchdogResetsTheBoard)
{
    bi_watchdog_t w{};
    bi_watchdog_parse(&w);
    ASSERT_EQ(bi_watchdog_test(&w, 5, 2), 0);
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "feeds"), "2");
    EXPECT_EQ(board().reboots(), std::vector<std::string>{"watchdog"});
}

TEST_F(WatchdogTest, FeedParsesOnceAndKeepsItsContext)
{
    ASSERT_EQ(bi_watchdog_feed(), 0);
    ASSERT_EQ(bi_watchdog_feed(), 0);
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "feeds"), "2");
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "timeout"), "10");
    // A reloaded record is not seen: the context was parsed on the first feed.
    configure("wdt_dev", std::nullopt);
    EXPECT_EQ(bi_watchdog_feed(), 0);
}

} // namespace
