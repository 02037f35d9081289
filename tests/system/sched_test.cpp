// CPU scheduling and frequency on the board's CPU files.
#include <string>

#include "sim/cpu/cpu.h"
#include "sim/processes.h"
#include "support/board_fixture.h"
#include "vexasdk/system.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;
using vexa::sim::Fault;

namespace vexa::test {
namespace {

const char kPolicy0[] = "/sys/devices/system/cpu/cpufreq/policy0/scaling_governor";
const char kPolicy4[] = "/sys/devices/system/cpu/cpufreq/policy4/scaling_governor";
const char kTasks[] = "/dev/cpuset/foreground/tasks";

class SchedTest : public BoardTest {
protected:
    // The processes these tests pin, in the board's process table.
    void SetUp() override
    {
        BoardTest::SetUp();
        for (int pid : {5, 7, 9, 12, 31, 55, 77, 345, 4242})
            sim::add_board_process(board(), {pid, 1, 1000, 'S', 4096, "player" + std::to_string(pid)});
    }

    std::vector<std::string> sched_log() { return log_of("vexa_system_bi_sched"); }
    std::optional<uint64_t> affinity(int pid) { return sim::cpu_affinity(board(), pid); }
    // The block queue settings that playback tunes.
    std::string queues()
    {
        std::string text;
        for (const char *file : {"/sys/block/sda/queue/read_ahead_kb", "/sys/block/sda/queue/nr_requests",
                                 "/sys/block/dm-0/queue/read_ahead_kb", "/sys/block/dm-1/queue/read_ahead_kb"})
            text += board().read_file(file);
        return text;
    }
};

TEST_F(SchedTest, BindPinsCoresZeroToThreeEvenWhenCoreSixIsFastest)
{
    sim::set_cpu_cores(board(), {1800000, 1800000, 1800000, 1800000, 2352000, 2352000, 2600000, 2352000});
    board().clear_log();
    EXPECT_EQ(bi_sched_bind_pid_to_main_core(4242), 0);
    EXPECT_EQ(affinity(4242), 0x0fu);
    EXPECT_EQ(board().read_file(kTasks), "4242\n");
    EXPECT_THAT(board().commands(), ElementsAre("echo 4096 > /sys/block/sda/queue/read_ahead_kb",
                                                "echo 512 >  /sys/block/sda/queue/nr_requests",
                                                "echo 4096 > /sys/block/dm-0/queue/read_ahead_kb",
                                                "echo 4096 > /sys/block/dm-1/queue/read_ahead_kb"));
    EXPECT_EQ(queues(), "4096\n512\n4096\n4096\n");
    const auto lines = sched_log();
    EXPECT_THAT(lines, Contains("D/vexa_system_bi_sched: get_max_freq_cpu_index: freq cpu index(6) = 2600000"));
    // The first and last lines of the call, around the count and the search.
    ASSERT_GE(lines.size(), 20u);
    EXPECT_THAT(std::vector<std::string>(lines.begin(), lines.begin() + 4),
                ElementsAre("D/vexa_system_bi_sched: bi_sched_bind_pid_to_main_core: is called, pid = 4242",
                            "D/vexa_system_bi_sched: set_pid_to_tasks: is called, pid = 4242",
                            "D/vexa_system_bi_sched: set_pid_to_tasks: Successfully added pid 4242 to tasks",
                            "D/vexa_system_bi_sched: get_cpu_core_number: is called"));
    EXPECT_THAT(std::vector<std::string>(lines.end() - 6, lines.end()),
                ElementsAre("I/vexa_system_bi_sched: get_max_freq_cpu_index: max freq cpu index(6) = 2600000",
                            "I/vexa_system_bi_sched: bi_sched_bind_pid_to_main_core: cpu-0 included in CPU set",
                            "I/vexa_system_bi_sched: bi_sched_bind_pid_to_main_core: cpu-1 included in CPU set",
                            "I/vexa_system_bi_sched: bi_sched_bind_pid_to_main_core: cpu-2 included in CPU set",
                            "I/vexa_system_bi_sched: bi_sched_bind_pid_to_main_core: cpu-3 included in CPU set",
                            "I/vexa_system_bi_sched: bi_sched_bind_pid_to_main_core: now Process 4242 is running on CPU 0"));
}

TEST_F(SchedTest, OnTwoCoresBindListsTwoAndTheBoardKeepsTheCoresItHas)
{
    sim::set_cpu_cores(board(), {1000000, 1200000});
    board().clear_log();
    EXPECT_EQ(bi_sched_bind_pid_to_main_core(7), 0);
    EXPECT_EQ(affinity(7), 0x03u);
    EXPECT_THAT(sched_log(), Not(Contains("I/vexa_system_bi_sched: bi_sched_bind_pid_to_main_core: cpu-2 included in CPU set")));
    EXPECT_THAT(sched_log(), Contains("I/vexa_system_bi_sched: get_cpu_core_number: detect cpu cores: 2"));
}

TEST_F(SchedTest, TheFastestCoreIsTheFirstOfTheHighestReadable)
{
    struct Case {
        std::vector<int> cores;
        int32_t count;
        int32_t fastest;
    };
    const Case cases[] = {
        {{100, 300, 300, 200}, 4, 1}, // an equal later core does not replace it
        {{100, -1, 50}, 3, 0},        // an unreadable core is skipped
        {{-1, -1, 90}, 3, 2},
        {{100, 300}, 1, 0},           // only cores below count are read
        {{-1, -1}, 2, -1},
        {{100}, 0, -1},
    };
    for (const Case &c : cases) {
        sim::set_cpu_cores(board(), c.cores);
        EXPECT_EQ(get_max_freq_cpu_index(c.count), c.fastest) << ::testing::PrintToString(c.cores);
    }
    board().write_file("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "fast\n");
    EXPECT_EQ(get_max_freq_cpu_index(1), -1);
}

TEST_F(SchedTest, WithNoReadableFrequencyBindFailsAfterTuningAndTheCpuset)
{
    sim::set_cpu_cores(board(), {-1, -1, -1, -1});
    board().clear_log();
    EXPECT_EQ(bi_sched_bind_pid_to_main_core(31), -1);
    EXPECT_EQ(queues(), "4096\n512\n4096\n4096\n");
    EXPECT_EQ(board().read_file(kTasks), "31\n");
    EXPECT_EQ(affinity(31), std::nullopt);
    EXPECT_THAT(sched_log(),
                Contains("E/vexa_system_bi_sched: bi_sched_bind_pid_to_main_core: Unable to find the high-performance core"));
    EXPECT_THAT(sched_log(), Contains("I/vexa_system_bi_sched: get_max_freq_cpu_index: max freq cpu index(-1) = -1"));
}

TEST_F(SchedTest, ACpusetFailureIsOnlyLogged)
{
    board().inject(Fault::on("write").at(kTasks).once());
    EXPECT_EQ(bi_sched_bind_pid_to_main_core(55), 0);
    EXPECT_THAT(sched_log(), Contains("E/vexa_system_bi_sched: set_pid_to_tasks: Failed to write pid 55 to tasks"));
    EXPECT_THAT(sched_log(), Contains("E/vexa_system_bi_sched: bi_sched_bind_pid_to_main_core: set pid_num to tasks failed"));
    board().remove_file(kTasks);
    board().clear_log();
    EXPECT_EQ(set_pid_to_tasks(55), -1);
    EXPECT_THAT(sched_log(), ElementsAre("D/vexa_system_bi_sched: set_pid_to_tasks: is called, pid = 55",
                                         "E/vexa_system_bi_sched: set_pid_to_tasks: Failed to open tasks"));
    EXPECT_EQ(affinity(55), 0x0fu);
}

TEST_F(SchedTest, TheCpusetListsEachProcessOnce)
{
    EXPECT_EQ(set_pid_to_tasks(12), 0);
    EXPECT_EQ(set_pid_to_tasks(345), 0);
    EXPECT_EQ(set_pid_to_tasks(12), 0);
    EXPECT_EQ(board().read_file(kTasks), "12\n345\n");
    EXPECT_EQ(set_pid_to_tasks(-3), -1) << "the kernel refuses what is not a process id";
}

TEST_F(SchedTest, UnbindOnFourCoresSetsAllFourAndLeavesTheRestTuned)
{
    sim::set_cpu_cores(board(), {1800000, 1800000, 1800000, 1800000});
    ASSERT_EQ(bi_sched_bind_pid_to_main_core(77), 0);
    board().clear_log();
    board().clear_commands();
    EXPECT_EQ(bi_sched_unbind_pid_from_main_core(77), 0);
    EXPECT_EQ(affinity(77), 0x0fu);
    EXPECT_THAT(board().commands(), ElementsAre("echo 1024 > /sys/block/sda/queue/read_ahead_kb"));
    EXPECT_EQ(queues(), "1024\n512\n4096\n4096\n");
    EXPECT_EQ(board().read_file(kTasks), "77\n");
    EXPECT_THAT(sched_log(), ElementsAre("D/vexa_system_bi_sched: bi_sched_unbind_pid_from_main_core: is called, pid = 77",
                                         "D/vexa_system_bi_sched: get_cpu_core_number: is called",
                                         "I/vexa_system_bi_sched: get_cpu_core_number: detect cpu cores: 4",
                                         "I/vexa_system_bi_sched: bi_sched_unbind_pid_from_main_core: Process 77 "
                                         "affinity set to all CPUs (0-3)"));
}

TEST_F(SchedTest, UnbindCoversEveryCoreUpToThirtyTwo)
{
    const std::pair<size_t, uint64_t> boards[] = {{8, 0xff}, {32, 0xffffffff}, {40, 0xffffffff}};
    for (const auto &[cores, mask] : boards) {
        sim::set_cpu_cores(board(), std::vector<int>(cores, 1000000));
        board().clear_log();
        EXPECT_EQ(bi_sched_unbind_pid_from_main_core(9), 0);
        EXPECT_EQ(affinity(9), mask) << cores;
        EXPECT_THAT(sched_log(), Contains("I/vexa_system_bi_sched: bi_sched_unbind_pid_from_main_core: Process 9 "
                                          "affinity set to all CPUs (0-" + std::to_string(cores - 1) + ")"));
    }
}

TEST_F(SchedTest, CountAndAffinityFailuresFailBothCalls)
{
    board().inject(Fault::on("nprocessors_conf"));
    EXPECT_EQ(bi_sched_bind_pid_to_main_core(5), -1);
    EXPECT_EQ(bi_sched_unbind_pid_from_main_core(5), -1);
    EXPECT_EQ(get_cpu_core_number(), -1);
    const auto lines = sched_log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "E/vexa_system_bi_sched: get_cpu_core_number: failed to get cpu core number"), 3);
    EXPECT_THAT(lines, Contains("E/vexa_system_bi_sched: bi_sched_bind_pid_to_main_core: invalid cpu core count is -1"));
    EXPECT_THAT(lines, Contains("E/vexa_system_bi_sched: bi_sched_unbind_pid_from_main_core: invalid cpu core count is -1"));

    board().clear_faults();
    board().inject(Fault::on("sched_setaffinity").at("5").returns(-1, ESRCH));
    board().clear_log();
    EXPECT_EQ(bi_sched_bind_pid_to_main_core(5), -1);
    EXPECT_EQ(bi_sched_unbind_pid_from_main_core(5), -1);
    EXPECT_THAT(sched_log(), Contains("E/vexa_system_bi_sched: bi_sched_bind_pid_to_main_core: sched_setaffinity failed"));
    EXPECT_THAT(sched_log(), Contains("E/vexa_system_bi_sched: bi_sched_unbind_pid_from_main_core: sched_setaffinity failed"));
    EXPECT_EQ(affinity(5), std::nullopt);
}

TEST_F(SchedTest, TheGovernorGoesToBothClusters)
{
    board().clear_log();
    EXPECT_EQ(bi_sched_adjust_cpu_freq("performance"), 0);
    EXPECT_EQ(board().read_file(kPolicy0), "performance\n");
    EXPECT_EQ(board().read_file(kPolicy4), "performance\n");
    EXPECT_THAT(sched_log(), ElementsAre("I/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: Governor 'performance' is supported.",
                                         "I/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: set policy0 to performance",
                                         "I/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: set policy4 to performance"));
}

TEST_F(SchedTest, AnEmptyOrUnknownGovernorTouchesNoFile)
{
    board().clear_log();
    EXPECT_EQ(bi_sched_adjust_cpu_freq(""), -1);
    EXPECT_EQ(bi_sched_adjust_cpu_freq(nullptr), -1);
    EXPECT_EQ(bi_sched_adjust_cpu_freq("turbo"), -1);
    EXPECT_EQ(board().read_file(kPolicy0), "schedutil\n");
    EXPECT_EQ(board().read_file(kPolicy4), "schedutil\n");
    EXPECT_THAT(sched_log(), ElementsAre("E/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: invalid governor is NULL",
                                         "E/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: invalid governor is NULL",
                                         "E/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: Governor 'turbo' is not supported."));
    board().remove_file("/sys/devices/system/cpu/cpufreq/policy0/scaling_available_governors");
    board().clear_log();
    EXPECT_EQ(is_governor_supported("performance"), 0);
    EXPECT_THAT(sched_log(), ElementsAre("E/vexa_system_bi_sched: is_governor_supported: Failed to open "
                                         "scaling_available_governors file"));
}

TEST_F(SchedTest, AFragmentPassesTheCheckButTheKernelRefusesIt)
{
    board().clear_log();
    EXPECT_EQ(bi_sched_adjust_cpu_freq("perf"), 0);
    EXPECT_EQ(board().read_file(kPolicy0), "schedutil\n");
    EXPECT_THAT(sched_log(), Contains("E/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: write perf to policy0 "
                                      "failed: Invalid argument"));
    EXPECT_THAT(sched_log(), Contains("I/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: set policy4 to perf"));
}

TEST_F(SchedTest, WithoutPolicyFourTheResultIsMinusOneAndPolicyZeroKeepsTheGovernor)
{
    board().remove_file("/sys/devices/system/cpu/cpufreq/policy4");
    board().clear_log();
    EXPECT_EQ(bi_sched_adjust_cpu_freq("powersave"), -1);
    EXPECT_EQ(board().read_file(kPolicy0), "powersave\n");
    EXPECT_THAT(sched_log(), ElementsAre("I/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: Governor 'powersave' is supported.",
                                         "I/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: set policy0 to powersave",
                                         "E/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: Cannot open policy4 file to "
                                         "set CPU frequency"));
    board().remove_file("/sys/devices/system/cpu/cpufreq/policy0/scaling_governor");
    board().clear_log();
    EXPECT_EQ(bi_sched_adjust_cpu_freq("powersave"), -1);
    EXPECT_THAT(sched_log(), Contains("E/vexa_system_bi_sched: bi_sched_adjust_cpu_freq: Cannot open policy0 file to "
                                      "set CPU frequency"));
}

} // namespace
} // namespace vexa::test
