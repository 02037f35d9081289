// The RTC's alarms and the kernel watchdog of the board.
//
// State lives in ROOT/.board/rtc and ROOT/.board/watchdog, "DEVICE KEY=VALUE"
// a line, so that every process sees the same alarms and the same watchdog:
//   rtc:      alarm1_enable, alarm2_enable, boot_time, wake_time
//             (times as "YYYY-MM-DD HH:MM:SS")
//   watchdog: open (1 armed, 0 closed), timeout, feeds (count), expired
// A device exists when its node exists in the board (/dev/rtc0,
// /dev/watchdog). The RTC is the HYM8563 on I2C: an alarm time the calendar
// does not have (2025-02-30, a month 13, 24:00) is EINVAL, a year outside
// 2000-2099 ERANGE, and with the knob rtc.chip=silent every call fails with
// ENXIO. The watchdog (sim/rtc/watchdog.cpp) resets the board when it is
// armed and not fed within its timeout.
#ifndef VEXA_SIM_RTC_WATCHDOG_H
#define VEXA_SIM_RTC_WATCHDOG_H

#include <string>

#include "sim/board.h"

namespace vexa::sim {

// A value of the RTC or watchdog state ("" when unset).
std::string rtc_state(const Board &board, const std::string &dev, const std::string &key);
std::string watchdog_state(const Board &board, const std::string &dev, const std::string &key);

} // namespace vexa::sim

#endif
