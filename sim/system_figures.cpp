// The board's system figures (vexa::os::sysinfo): its memory from its
// /proc/meminfo, its loads from /proc/loadavg, its processes from its
// process table and its uptime from its last boot (ROOT/.board/boot). Nothing
// of the machine the board runs on.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

#include "platform/os.h"
#include "sim/processes.h"
#include "sim/state.h"

namespace vexa::sim {
namespace {

// "Key:   N kB" lines: the value in bytes, 0 when missing.
unsigned long long meminfo_bytes(const std::string &text, const std::string &key)
{
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, key.size() + 1, key + ":") != 0)
            continue;
        return std::strtoull(line.c_str() + key.size() + 1, nullptr, 10) * 1024;
    }
    return 0;
}

} // namespace
} // namespace vexa::sim

namespace vexa::os {

int sysinfo(struct sysinfo *info)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("sysinfo", "", int);
    if (!info) {
        errno = EFAULT;
        return -1;
    }
    std::memset(info, 0, sizeof *info);
    const std::string mem = s.folder().read("/proc/meminfo").value_or("");
    info->mem_unit = 1;
    info->totalram = sim::meminfo_bytes(mem, "MemTotal");
    info->freeram = sim::meminfo_bytes(mem, "MemFree");
    info->sharedram = sim::meminfo_bytes(mem, "Shmem");
    info->bufferram = sim::meminfo_bytes(mem, "Buffers");
    info->totalswap = sim::meminfo_bytes(mem, "SwapTotal");
    info->freeswap = sim::meminfo_bytes(mem, "SwapFree");
    // The loads as the kernel keeps them: fixed point, 16 bits of fraction.
    std::istringstream loads(s.folder().read("/proc/loadavg").value_or(""));
    for (auto &load : info->loads) {
        double value = 0;
        if (loads >> value)
            load = static_cast<unsigned long>(value * 65536.0 + 0.5);
    }
    info->procs = static_cast<unsigned short>(sim::process_table(s).size());
    const long long now = static_cast<long long>(::time(nullptr)) + s.clock_offset_ns.load() / 1000000000;
    const long long boot = std::atoll(sim::read_state(s, "boot").c_str());
    info->uptime = boot > 0 && now > boot ? static_cast<long>(now - boot) : 0;
    return 0;
}

} // namespace vexa::os
