// What the board's system files and process table refuse, as the kernel does.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/hal.h"
#include "platform/os.h"
#include "sim/processes.h"
#include "support/board_fixture.h"
#include "vexasdk/peripherals.h"

namespace {

using ::testing::ElementsAre;

class RefusalTest : public vexa::test::ProductTest {
protected:
    // Writes text through the OS layer, as a program does: its result and errno.
    std::pair<ssize_t, int> write_value(const std::string &path, const std::string &text)
    {
        const int fd = vexa::os::open(path.c_str(), O_WRONLY);
        if (fd < 0)
            return {-2, errno};
        errno = 0;
        const ssize_t n = vexa::os::write(fd, text.data(), text.size());
        const int error = errno;
        vexa::os::close(fd);
        return {n, error};
    }
};

// Each attribute takes its values and refuses others with EINVAL, keeping
// the value it had.
TEST_F(RefusalTest, SysfsAttributesRefuseValuesTheyDoNotTake)
{
    const struct {
        const char *path;
        std::vector<std::string> taken, refused;
    } table[] = {
        {"/sys/class/thermal/cooling_device0/cur_state", {"0", "7\n", "10"}, {"banana", "11", "-1", "", "3 ", "0x3"}},
        {"/sys/class/irblaster/irblaster0/carrier_freq", {"38000", "10000", "60000\n"}, {"9999", "60001", "38k", "0"}},
        {"/sys/class/irblaster/irblaster0/duty_cycle", {"50", "1", "99"}, {"0", "100", "half"}},
        {"/sys/class/irblaster/irblaster0/send", {"892s453s", "1s"}, {"892s453", "s", "12x3s", "1234567s", ""}},
        {"/sys/class/low_power_ctrl/low_power_ctrl/status", {"enable", "disable\n"}, {"on", "Enable", "disable\n\n"}},
    };
    for (const auto &attribute : table) {
        for (const auto &value : attribute.taken) {
            EXPECT_EQ(write_value(attribute.path, value).first, ssize_t(value.size())) << attribute.path << " " << value;
            EXPECT_EQ(board().read_file(attribute.path), value) << attribute.path;
        }
        const std::string kept = attribute.taken.back();
        for (const auto &value : attribute.refused) {
            const auto [n, error] = write_value(attribute.path, value);
            EXPECT_EQ(n, -1) << attribute.path << " took '" << value << "'";
            EXPECT_EQ(error, EINVAL) << attribute.path << " '" << value << "'";
            EXPECT_EQ(board().read_file(attribute.path), kept) << attribute.path;
        }
    }
}

TEST_F(RefusalTest, EveryWriterMeetsTheSameAttribute)
{
    const char *state = "/sys/class/thermal/cooling_device0/cur_state";
    EXPECT_EQ(bi_fan_level_set_state(4), 0);
    EXPECT_EQ(hal_sys_write(state, "banana", 6), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_NE(vexa::os::system("echo banana > /sys/class/thermal/cooling_device0/cur_state"), 0);
    EXPECT_EQ(board().read_file(state), "4");
    EXPECT_EQ(vexa::os::system("echo 9 > /sys/class/thermal/cooling_device0/cur_state"), 0);
    EXPECT_EQ(bi_fan_level_get_state(), 9);
    // A device whose max_state is lower takes less.
    board().write_file("/sys/class/thermal/cooling_device0/max_state", "3\n");
    EXPECT_EQ(bi_fan_level_set_state(4), -2);
    EXPECT_EQ(bi_fan_level_set_state(3), 0);
}

TEST_F(RefusalTest, TheProcessTableRefusesWhatTheKernelRefuses)
{
    const struct {
        int32_t pid;
        int error;
    } refused[] = {{1, EPERM}, {999999, ESRCH}, {0, EINVAL}, {-1, EINVAL}, {211, ESRCH}};
    for (const auto &r : refused) {
        errno = 0;
        EXPECT_EQ(bi_kill_process_num(r.pid), -1) << r.pid;
        EXPECT_EQ(errno, r.error) << r.pid;
    }
    EXPECT_EQ(bi_kill_process_num(612), 0);
    errno = 0;
    EXPECT_EQ(bi_kill_process_num(612), -1);
    EXPECT_EQ(errno, ESRCH);
    std::vector<int> pids;
    for (const auto &p : vexa::sim::board_processes(board()))
        pids.push_back(p.pid);
    EXPECT_THAT(pids, ElementsAre(1, 210, 398, 455, 613));
    // A reset boots the board's processes again.
    board().reset("watchdog");
    pids.clear();
    for (const auto &p : vexa::sim::board_processes(board()))
        pids.push_back(p.pid);
    EXPECT_THAT(pids, ElementsAre(1, 210, 398, 455, 612, 613));
    EXPECT_THAT(board().reboots(), ElementsAre("watchdog"));
}

} // namespace
