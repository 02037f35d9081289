// The board's system files and tables: sysfs and proc files that the
// peripherals read and write, the mount table, the process table, the CPU
// state and the USB list.
//
//   ROOT/.board/fstab        the board's own mounts, "DEVICE TARGET TYPE OPTIONS FREQ PASSNO";
//                            df() lists them, then the mounts recorded in .board/mounts,
//                            with the host's figures of the mapped folders
//   ROOT/.board/processes    "PID PPID UID STATE RSS_KB NAME" a line; killing one removes it
//   ROOT/.board/usb_list     "BUS:DEV VID:PID NAME" a line
//   ROOT/.board/sysinfo.conf cpu_usage=PERCENT (the CPU temperature is
//                            /sys/class/thermal/thermal_zone0/temp)
//
// Writes to the fan, infrared and low-power files replace their contents, as
// sysfs attributes do. "cat FILE | ..." is carried out on the board's files.
#ifndef VEXA_SIM_SYSINFO_H
#define VEXA_SIM_SYSINFO_H

#include <string>
#include <vector>

#include "sim/board.h"

namespace vexa::sim {

// The sysfs files whose writes replace the whole value.
const std::vector<std::string> &sysfs_attributes();

} // namespace vexa::sim

#endif
