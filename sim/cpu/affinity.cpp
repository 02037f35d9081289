// The OS layer's processor calls on the virtual board: the core count is the
// number of cpuN folders, as the C library counts them on a device, and an
// affinity request is recorded as board state instead of reaching the
// host's scheduler.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

#include "platform/os.h"
#include "sim/cpu/cpu.h"
#include "sim/processes.h"
#include "sim/state.h"

namespace fs = std::filesystem;

namespace vexa::sim {
namespace {

const char kAffinity[] = "affinity";

long count_cores(const Board::State &s)
{
    const Folder folder = s.folder();
    const std::string dir = "/sys/devices/system/cpu";
    long count = 0;
    static const std::regex core("cpu[0-9]+");
    for (const auto &name : folder.list(dir).value_or(std::vector<std::string>())) {
        if (std::regex_match(name, core) && folder.is_directory(dir + "/" + name))
            ++count;
    }
    return count;
}

std::map<int, uint64_t> parse_affinity(const std::string &text)
{
    std::map<int, uint64_t> masks;
    std::istringstream in(text);
    int pid;
    std::string mask;
    while (in >> pid >> mask)
        masks[pid] = std::strtoull(mask.c_str(), nullptr, 16);
    return masks;
}

void record_affinity(const Board::State &s, int pid, uint64_t mask)
{
    with_board_lock(s, [&] {
        auto masks = parse_affinity(read_state(s, kAffinity));
        masks[pid] = mask;
        std::ostringstream out;
        for (const auto &[p, m] : masks)
            out << p << " 0x" << std::hex << m << std::dec << '\n';
        write_state(s, kAffinity, out.str());
    });
}

std::optional<uint64_t> find_affinity(const std::string &text, int pid)
{
    const auto masks = parse_affinity(text);
    const auto it = masks.find(pid);
    return it == masks.end() ? std::nullopt : std::optional<uint64_t>(it->second);
}

} // namespace

// The state file is replaced whole on every change, so a plain read sees
// one version of it.
std::optional<uint64_t> cpu_affinity(const Board &board, int pid)
{
    return find_affinity(board.read_file(std::string("/.board/") + kAffinity), pid);
}

} // namespace vexa::sim

namespace vexa::os {

long nprocessors_conf()
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("nprocessors_conf", "", long);
    return sim::count_cores(s);
}

// Like the kernel: a process the board does not have is ESRCH, a set
// without one of the board's cores EINVAL; pid 0 is the caller.
int sched_setaffinity(pid_t pid, size_t setsize, const cpu_set_t *set)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("sched_setaffinity", std::to_string(pid), int);
    if (pid < 0 || (pid > 0 && !sim::process_exists(s, pid))) {
        errno = ESRCH;
        return -1;
    }
    if (set == nullptr) {
        errno = EFAULT;
        return -1;
    }
    const long cores = std::min<long>(sim::count_cores(s), 64);
    uint64_t mask = 0;
    for (long core = 0; core < cores; ++core) {
        if (CPU_ISSET_S(core, setsize, set))
            mask |= uint64_t{1} << core;
    }
    if (mask == 0) {
        errno = EINVAL;
        return -1;
    }
    sim::record_affinity(s, pid == 0 ? ::getpid() : pid, mask);
    return 0;
}

int sched_getcpu()
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("sched_getcpu", "", int);
    const auto mask = sim::find_affinity(sim::read_state(s, sim::kAffinity), ::getpid());
    if (!mask || *mask == 0)
        return 0;
    int core = 0;
    while (!(*mask & (uint64_t{1} << core)))
        ++core;
    return core;
}

} // namespace vexa::os
