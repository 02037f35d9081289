// The board's system files and tables: sysfs and proc files that the
// peripherals read and write, the mount table, the process table, the CPU
// state and the USB list.
//
//   ROOT/.board/fstab        the board's own mounts, "DEVICE TARGET TYPE OPTIONS FREQ PASSNO
//                            SIZE_KB USED_KB"; df() lists them with those figures, then the
//                            mounts recorded in .board/mounts, each the size of its partition
//                            (never the figures of the machine the board runs on)
//   ROOT/.board/processes    "PID PPID UID STATE RSS_KB NAME" a line (sim/processes.h);
//                            killing one removes it, init (1) is not killed (EPERM), a
//                            missing pid is ESRCH; a reset lays out the boot table again
//   /proc/meminfo, /proc/loadavg  the figures vexa::os::sysinfo gives, with the table's
//                            process count and the uptime since ROOT/.board/boot
//   ROOT/.board/usb_list     "BUS:DEV VID:PID NAME" a line
//   ROOT/.board/sysinfo.conf cpu_usage=PERCENT (the CPU temperature is
//                            /sys/class/thermal/thermal_zone0/temp)
//
// Writes to the fan, infrared and low-power files replace their contents, as
// sysfs attributes do. "cat FILE | ..." is carried out on the board's files.
#ifndef VEXA_SIM_SYSINFO_H
#define VEXA_SIM_SYSINFO_H

#include <functional>
#include <string>
#include <vector>

#include "sim/state.h"

namespace vexa::sim {

// The sysfs files whose writes replace the whole value, with the values each
// takes (a write of any other is EINVAL and leaves the file as it was):
//   thermal/cooling_device0/cur_state   0 to its max_state (10)
//   irblaster0/carrier_freq             10000 to 60000 (Hz)
//   irblaster0/duty_cycle               1 to 99 (percent)
//   irblaster0/send                     1 to 512 durations, each digits then 's'
//   low_power_ctrl/status               "enable" or "disable"
// (one trailing newline allowed, as the kernel's parsers allow it).
struct SysfsAttributeRule {
    std::string path;
    std::function<bool(const Board::State &, const std::string &value)> takes;
};
const std::vector<SysfsAttributeRule> &sysfs_attributes();

} // namespace vexa::sim

#endif
