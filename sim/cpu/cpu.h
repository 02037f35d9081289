// The board's CPU: its cores are the folders
// ROOT/sys/devices/system/cpu/cpuN (each with cpufreq/cpuinfo_max_freq in
// kHz), so the core count and the cores' speeds are configured by laying
// those files out; the two clusters' cpufreq policies (policy0, policy4)
// keep their governor files there too. The foreground cpuset is
// ROOT/dev/cpuset/foreground/tasks.
//
// Affinity requests are recorded in ROOT/.board/affinity ("PID MASK" a
// line, MASK in hex), never applied to the host's scheduler; the core a
// process "runs on" is the lowest core of its recorded affinity (0 without
// one).
#ifndef VEXA_SIM_CPU_CPU_H
#define VEXA_SIM_CPU_CPU_H

#include <cstdint>
#include <optional>
#include <vector>

#include "sim/board.h"

namespace vexa::sim {

// Replaces the board's cores with one core per entry, with that maximum
// frequency in kHz (-1: the core has no readable cpuinfo_max_freq).
// "possible" and "present" follow.
void set_cpu_cores(const Board &board, const std::vector<int> &max_freq_khz);

// The affinity last set for pid (bit N = core N), if any.
std::optional<uint64_t> cpu_affinity(const Board &board, int pid);

} // namespace vexa::sim

#endif
