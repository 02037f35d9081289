// RTC alarms and the kernel watchdog through the board's platform calls.
#include <linux/rtc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "platform/os.h"
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

// The RTC refuses what the kernel and its chip refuse, and keeps the alarm it had.
TEST_F(RtcTest, AlarmTimesTheCalendarOrTheChipDoesNotHaveAreRefused)
{
    const auto kept = at(2028, 2, 29, 6, 30, 0); // a leap day
    ASSERT_EQ(bi_rtc_set_boot_time(&kept), 0);
    const struct {
        struct rtc_time time;
        int error;
    } refused[] = {
        {at(2025, 2, 30, 10, 0, 0), EINVAL}, {at(2025, 2, 29, 10, 0, 0), EINVAL},
        {at(2100, 2, 29, 10, 0, 0), EINVAL}, {at(2025, 4, 31, 10, 0, 0), EINVAL},
        {at(2025, 13, 1, 10, 0, 0), EINVAL}, {at(2025, 0, 1, 10, 0, 0), EINVAL},
        {at(2025, 1, 0, 10, 0, 0), EINVAL},  {at(2025, 1, 1, 24, 0, 0), EINVAL},
        {at(2025, 1, 1, 10, 60, 0), EINVAL}, {at(2025, 1, 1, 10, 0, 60), EINVAL},
        {at(2025, 1, 1, -1, 0, 0), EINVAL},  {at(1969, 12, 31, 23, 59, 59), EINVAL},
        {at(1999, 12, 31, 23, 59, 59), ERANGE}, {at(2100, 1, 1, 0, 0, 0), ERANGE},
    };
    for (const auto &r : refused) {
        errno = 0;
        EXPECT_EQ(bi_rtc_set_boot_time(&r.time), -1) << r.time.tm_year + 1900 << "-" << r.time.tm_mon + 1 << "-"
                                                       << r.time.tm_mday << " " << r.time.tm_hour;
        EXPECT_EQ(errno, r.error) << r.time.tm_year + 1900 << "-" << r.time.tm_mon + 1;
        EXPECT_EQ(bi_rtc_set_wake_time(&r.time), -1);
    }
    EXPECT_EQ(vexa::sim::rtc_state(board(), "/dev/rtc0", "boot_time"), "2028-02-29 06:30:00");
    EXPECT_EQ(vexa::sim::rtc_state(board(), "/dev/rtc0", "wake_time"), "");
    const auto edges = {at(2000, 1, 1, 0, 0, 0), at(2099, 12, 31, 23, 59, 59), at(2000, 2, 29, 12, 0, 0)};
    for (const auto &t : edges)
        EXPECT_EQ(bi_rtc_set_wake_time(&t), 0) << t.tm_year + 1900;
}

TEST_F(RtcTest, ASilentChipFailsEveryCallAndItsRegisters)
{
    const auto t = at(2026, 6, 1, 8, 0, 0);
    ASSERT_EQ(bi_rtc_set_boot_time(&t), 0);
    ASSERT_EQ(board().set_knob("rtc.chip", "silent"), 0);
    struct rtc_time back {};
    errno = 0;
    EXPECT_EQ(bi_rtc_get_boot_time(&back), -1);
    EXPECT_EQ(errno, ENXIO);
    errno = 0;
    EXPECT_EQ(bi_rtc_set_boot_enable(1), -1);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(bi_i2c_get_rtc_state(0), -1) << "the chip's status register answered";
    EXPECT_EQ(bi_i2c_get_clock_chip_state(0), 0) << "the clock chip on the same bus is not the RTC";
    ASSERT_EQ(board().set_knob("rtc.chip", ""), 0);
    ASSERT_EQ(bi_rtc_get_boot_time(&back), 0);
    EXPECT_EQ(back.tm_mday, 1);
    EXPECT_EQ(back.tm_mon, 5);
    EXPECT_EQ(bi_i2c_get_rtc_state(0), 0);
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

// An armed watchdog counts on the board's clock: unfed, it resets the board
// when its timeout is up, and not a moment before.
TEST_F(WatchdogTest, UnfedWatchdogResetsTheBoardWhenItsTimeoutIsUp)
{
    bi_watchdog_t w{};
    bi_watchdog_parse(&w);
    ASSERT_EQ(bi_watchdog_open(&w, 7), 0);
    // (The board's clock also runs in real time: half a second of margin.)
    vexa::os::sleep_us(6500000);
    EXPECT_TRUE(board().reboots().empty());
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "open"), "1");
    vexa::os::sleep_us(600000);
    EXPECT_EQ(board().reboots(), std::vector<std::string>{"watchdog"});
    // The reset stopped it, as at power-on: nothing more happens.
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "open"), "0");
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "expired"), "1");
    vexa::os::sleep_us(60000000);
    EXPECT_EQ(board().reboots().size(), 1u);
}

TEST_F(WatchdogTest, FedEveryIntervalAndClosedItNeverBites)
{
    bi_watchdog_t w{};
    bi_watchdog_parse(&w); // timeout 10, interval 2
    ASSERT_EQ(bi_watchdog_open(&w, w.timeout), 0);
    ASSERT_EQ(bi_watchdog_feed_loop(&w, 20), 0); // 38 s of board time
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "feeds"), "20");
    vexa::os::sleep_us(9000000);
    ASSERT_EQ(bi_watchdog_close(w.dev), 0); // the magic close
    vexa::os::sleep_us(30000000);
    EXPECT_TRUE(board().reboots().empty());
    EXPECT_EQ(vexa::sim::watchdog_state(board(), "/dev/watchdog", "expired"), "0");
}

TEST_F(WatchdogTest, OneOpenerAtATimeAndTimeoutsTheDeviceTakes)
{
    bi_watchdog_t a{}, b{};
    bi_watchdog_parse(&a);
    bi_watchdog_parse(&b);
    for (uint32_t timeout : {0u, 90u, 3600u}) {
        errno = 0;
        EXPECT_EQ(bi_watchdog_open(&a, timeout), -1) << timeout;
        EXPECT_EQ(errno, EINVAL) << timeout;
    }
    ASSERT_EQ(bi_watchdog_open(&a, 89), 0);
    errno = 0;
    EXPECT_EQ(bi_watchdog_open(&b, 10), -1);
    EXPECT_EQ(errno, EBUSY);
    errno = 0;
    EXPECT_EQ(bi_watchdog_feed(), -1) << "the library's own context is a second opener too";
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(bi_watchdog_feed_loop(&a, 1), 0);
    // Another process cannot open it while this one holds it; once the
    // holder closes it (or ends), it can.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        bi_watchdog_t c{};
        bi_watchdog_parse(&c);
        _exit(bi_watchdog_open(&c, 10) == -1 && errno == EBUSY ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a second process opened it";
    ASSERT_EQ(bi_watchdog_close(a.dev), 0);
    EXPECT_EQ(bi_watchdog_open(&b, 10), 0);
    ASSERT_EQ(bi_watchdog_close(b.dev), 0);
    errno = 0;
    configure("wdt_dev", std::string("/dev/watchdog9"));
    bi_watchdog_parse(&a);
    EXPECT_EQ(bi_watchdog_open(&a, 10), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(WatchdogTest, AProcessThatEndsLeavesItCounting)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        bi_watchdog_t c{};
        bi_watchdog_parse(&c);
        _exit(bi_watchdog_open(&c, 5) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    // Its descriptor closed without the magic character: the watchdog runs
    // on, and the next opener may feed it.
    bi_watchdog_t w{};
    bi_watchdog_parse(&w);
    ASSERT_EQ(bi_watchdog_feed_loop(&w, 1), 0);
    vexa::os::sleep_us(10100000);
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
