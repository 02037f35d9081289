// The MCU watchdog line and the start-up status line, watched by the MCU model.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>

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

// Board time is real time plus the sleeps a fast clock skips: the sleeps
// alone are checked, whatever real time a loaded machine adds.
uint64_t real_ns()
{
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

TEST_F(WatchdogTest, CloseSendsFiveShortPulsesEndingHigh)
{
    bi_mcu_watchdog_open(kLine);
    const uint64_t start = board().now_ns();
    const uint64_t real_start = real_ns();
    EXPECT_EQ(bi_mcu_watchdog_close(kLine), 0);
    const uint64_t slept = board().now_ns() - start - (real_ns() - real_start);
    EXPECT_GE(slept + 1000000u, 50000000u);
    EXPECT_LE(slept, 50000000u + 1000000u);
    EXPECT_EQ(board().line(kLine), 1);
    const auto w = seen();
    EXPECT_TRUE(w.closed);
    EXPECT_FALSE(w.fed);
    EXPECT_EQ(w.edges, 12u);
}

TEST_F(WatchdogTest, ModelNoticesWhenFeedingStops)
{
    const uint64_t start = board().now_ns();
    const uint64_t real_start = real_ns();
    // Thirty 1 s pulses in the calling thread.
    EXPECT_EQ(bi_mcu_watchdog_start_feed_test(kLine), 0);
    const uint64_t slept = board().now_ns() - start - (real_ns() - real_start);
    EXPECT_GE(slept + 1000000u, 30000000000u);
    EXPECT_LE(slept, 30000000000u + 1000000u);
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

// The feeder never stops, so it runs in a service process of its own that
// the test ends; its drives reach this process's model through the board's
// host, each with the service's board time (its fast clock steps half a
// second a level).
TEST_F(WatchdogTest, FeederTogglesTheLineEveryHalfSecond)
{
    int out[2];
    ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const std::string line = std::to_string(kLine);
    const char *argv[] = {VEXA_FEEDER_PROCESS, board().root().c_str(), line.c_str(), nullptr};
    pid_t service = -1;
    const int spawned = posix_spawn(&service, VEXA_FEEDER_PROCESS, &actions, nullptr,
                                    const_cast<char *const *>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    ASSERT_EQ(spawned, 0);
    // The service says so once the feeder runs (or ends at once).
    char said[16] = {};
    const ssize_t n = read(out[0], said, sizeof said - 1);
    close(out[0]);
    EXPECT_EQ(std::string(said, n > 0 ? static_cast<size_t>(n) : 0), "feeding\n");

    // The host takes the service's records in when it is asked something.
    std::optional<vexa::sim::McuWatchdogView> w;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while ((!w || w->edges < 6) && std::chrono::steady_clock::now() < deadline) {
        usleep(1000);
        w = vexa::sim::mcu_watchdog(board(), UINT64_MAX / 2);
    }
    kill(service, SIGKILL);
    int status = 0;
    waitpid(service, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the feeder did not start";
    ASSERT_TRUE(w.has_value());
    EXPECT_GE(w->edges, 6u);
    const auto model = mcu().watchdog(mcu().watchdog(0).last_change_ns);
    EXPECT_TRUE(model.fed);
    EXPECT_FALSE(model.closed);
}

} // namespace
