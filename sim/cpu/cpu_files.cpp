// The CPU's files on the virtual board: cores with their maximum
// frequencies, the two clusters' cpufreq policies, the block queues that
// playback tunes, and the foreground cpuset. The governor and cpuset files
// behave as the kernel's do when written.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "sim/board.h"
#include "sim/cpu/cpu.h"
#include "sim/processes.h"

namespace fs = std::filesystem;

namespace vexa::sim {
namespace {

const char kCpuDir[] = "/sys/devices/system/cpu";
const char kForegroundTasks[] = "/dev/cpuset/foreground/tasks";
const char kGovernors[] = "interactive conservative ondemand userspace powersave performance schedutil \n";
// policyN is the cluster that starts at core N.
constexpr int kPolicies = 8;

// Default: a big.LITTLE board, cores 0-3 at 1.8 GHz and 4-7 at 2.352 GHz.
const std::vector<int> kDefaultCores = {1800000, 1800000, 1800000, 1800000,
                                        2352000, 2352000, 2352000, 2352000};

std::string cpu_range(size_t count)
{
    if (count == 0)
        return "\n";
    return count == 1 ? std::string("0\n") : "0-" + std::to_string(count - 1) + "\n";
}

// The written text without the blanks and newline a shell's echo adds.
std::string trimmed(const char *buf, size_t count)
{
    std::string text(buf, count);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

std::string contents_of(int fd)
{
    std::string text;
    char buf[512];
    ssize_t n;
    off_t offset = 0;
    while ((n = ::pread(fd, buf, sizeof buf, offset)) > 0) {
        text.append(buf, static_cast<size_t>(n));
        offset += n;
    }
    return text;
}

bool replace_contents(int fd, const std::string &text)
{
    return ::ftruncate(fd, 0) == 0 &&
           ::pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

// scaling_governor: a write must name one of the policy's available
// governors whole, or the kernel refuses it with EINVAL; it reads back as
// "NAME\n".
class GovernorFile : public DeviceModel {
public:
    GovernorFile(Folder folder, std::string available)
        : folder_(std::move(folder)), available_(std::move(available))
    {
    }

    ssize_t write(int fd, const void *buf, size_t count) override
    {
        const std::string name = trimmed(static_cast<const char *>(buf), count);
        if (!offered(name)) {
            errno = EINVAL;
            return -1;
        }
        if (!replace_contents(fd, name + "\n")) {
            errno = EIO;
            return -1;
        }
        return static_cast<ssize_t>(count);
    }

private:
    bool offered(const std::string &name) const
    {
        std::istringstream in(folder_.read(available_).value_or(""));
        std::string word;
        while (in >> word) {
            if (word == name)
                return true;
        }
        return false;
    }

    Folder folder_;
    std::string available_; // board path of the policy's scaling_available_governors
};

// A cpuset's tasks: each write adds one process of the board (decimal text;
// 0 is the writer; another number ESRCH); the file lists them one a line.
class CpusetTasks : public DeviceModel {
public:
    explicit CpusetTasks(std::weak_ptr<Board::State> state) : state_(std::move(state)) {}

    // Readable whatever the opener asked for: a write looks at the list.
    int open(const Folder &folder, const std::string &board_path, int flags, mode_t mode) override
    {
        return folder.open(board_path, (flags & ~(O_ACCMODE | O_CREAT)) | O_RDWR, mode);
    }

    ssize_t write(int fd, const void *buf, size_t count) override
    {
        const std::string text = trimmed(static_cast<const char *>(buf), count);
        static const std::regex number("[0-9]{1,10}");
        if (!std::regex_match(text, number)) {
            errno = EINVAL;
            return -1;
        }
        long pid = std::strtol(text.c_str(), nullptr, 10);
        if (pid == 0)
            pid = ::getpid();
        auto s = state_.lock();
        if (!s || !process_exists(*s, int(pid))) {
            errno = ESRCH;
            return -1;
        }
        std::string tasks = contents_of(fd);
        std::istringstream in(tasks);
        long listed;
        while (in >> listed) {
            if (listed == pid)
                return static_cast<ssize_t>(count);
        }
        tasks += std::to_string(pid) + "\n";
        if (!replace_contents(fd, tasks)) {
            errno = EIO;
            return -1;
        }
        return static_cast<ssize_t>(count);
    }

private:
    std::weak_ptr<Board::State> state_;
};

std::string policy_dir(int policy) { return std::string(kCpuDir) + "/cpufreq/policy" + std::to_string(policy); }

} // namespace

void set_cpu_cores(const Board &board, const std::vector<int> &max_freq_khz)
{
    const Folder folder = board.folder();
    static const std::regex core("cpu[0-9]+");
    for (const auto &name : folder.list(kCpuDir).value_or(std::vector<std::string>())) {
        if (std::regex_match(name, core))
            folder.remove_all(std::string(kCpuDir) + "/" + name);
    }
    for (size_t i = 0; i < max_freq_khz.size(); ++i) {
        const std::string dir = std::string(kCpuDir) + "/cpu" + std::to_string(i);
        if (max_freq_khz[i] < 0)
            folder.make_dirs(dir + "/cpufreq");
        else
            board.write_file(dir + "/cpufreq/cpuinfo_max_freq", std::to_string(max_freq_khz[i]) + "\n");
    }
    board.write_file(std::string(kCpuDir) + "/possible", cpu_range(max_freq_khz.size()));
    board.write_file(std::string(kCpuDir) + "/present", cpu_range(max_freq_khz.size()));
}

} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_SEEDER(cpu)
{
    set_cpu_cores(board, kDefaultCores);
    for (int policy : {0, 4}) {
        board.write_file(policy_dir(policy) + "/scaling_available_governors", kGovernors);
        board.write_file(policy_dir(policy) + "/scaling_governor", "schedutil\n");
        board.write_file(policy_dir(policy) + "/affected_cpus",
                         policy == 0 ? "0 1 2 3\n" : "4 5 6 7\n");
    }
    for (const char *queue : {"sda", "dm-0", "dm-1"})
        board.write_file(std::string("/sys/block/") + queue + "/queue/read_ahead_kb", "128\n");
    board.write_file("/sys/block/sda/queue/nr_requests", "64\n");
    board.write_file(kForegroundTasks, "");
}

VEXA_SIM_ATTACHER(cpu)
{
    for (int policy = 0; policy < kPolicies; ++policy) {
        const std::string dir = policy_dir(policy);
        board.add_model(dir + "/scaling_governor",
                        std::make_shared<GovernorFile>(board.folder(), dir + "/scaling_available_governors"));
    }
    board.add_model(kForegroundTasks, std::make_shared<CpusetTasks>(attached()));
}
