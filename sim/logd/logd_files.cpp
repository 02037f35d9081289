// The log daemon on the virtual board: its configuration properties and the
// system log directory it writes, with the file it is writing now named by
// "persist.vendor.vexa_logd.path".
#include <string>

#include "sim/board.h"

VEXA_SIM_SEEDER(logd)
{
    const std::pair<const char *, const char *> properties[] = {
        {"persist.vendor.vexa_logd.level", "info"},
        {"persist.vendor.vexa_logd.base", "/syslog/logs"},
        {"persist.vendor.vexa_logd.mode", "file"},
        {"persist.vendor.vexa_logd.total_size", "100M"},
        {"persist.vendor.vexa_logd.once_size", "10M"},
        {"persist.vendor.vexa_logd.path", "/syslog/logs/main_0003.log"},
    };
    for (const auto &[key, value] : properties)
        board.set_property(key, value);
    // Rotated files, the current one and the kernel's log in a subdirectory.
    board.write_file("/syslog/logs/main_0001.log", "01-01 08:00:00.000 I/boot: first boot\n");
    board.write_file("/syslog/logs/main_0002.log", "01-01 09:00:00.000 I/player: playlist loaded\n");
    board.write_file("/syslog/logs/main_0003.log", "01-01 10:00:00.000 I/player: playing item 3\n");
    board.write_file("/syslog/logs/kernel/kmsg_0001.log", "[    0.000000] Booting Linux on physical CPU 0x0\n");
}
