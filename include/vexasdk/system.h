/*
 * System services: CPU scheduling and frequency, the log daemon's
 * configuration, USB port switching, the OTG role and the USB bulk device
 * channel.
 *
 * Errors: each operation returns a signed status: 0 (or a count, a state, a
 * length) on success and a negative code on failure, as listed per
 * operation, after a line in the log. Scheduling logs under
 * "vexa_system_bi_sched", the log daemon under "vexa_system_bi_vexa_logd",
 * USB under "vexa_system_bi_ops_usb_port". Some texts keep their original
 * spelling ("Erorr") and language (the USB channel's Chinese lines):
 * clients match them.
 *
 * Threads: no operation takes a lock. Scheduling and the log daemon act on
 * settings of the whole system (kernel files, properties, log files), so the
 * last caller wins. The USB channel is process-wide state (vexa_usb_handle,
 * vexa_usb_dev, vexa_usb_devs, vexa_usb_port) meant for one user thread at a
 * time: open, close, read and write must not run at once from two threads.
 */
#ifndef VEXASDK_SYSTEM_H
#define VEXASDK_SYSTEM_H

#include <stdint.h>

#include "vexasdk/export.h"

VEXA_EXTERN_C_BEGIN

/* ---- CPU scheduling and frequency ---- */

/*
 * The main cores are cores 0 to 3. Binding a process also enlarges the
 * read-ahead of the board's block devices ("echo 4096 >
 * /sys/block/sda/queue/read_ahead_kb" and three more shell commands, results
 * ignored) and adds the process to the foreground cpuset
 * ("/dev/cpuset/foreground/tasks"); unbinding restores only sda's read-ahead
 * (1024). The governor is set for both CPU clusters (cpufreq policy0 and
 * policy4).
 */

/* Pins pid to cores 0-3 (mask 0x0f, whatever the core count and whichever
 * core is fastest). 0; -1 when the core count cannot be read, when no core's
 * maximum frequency ("/sys/devices/system/cpu/cpuN/cpufreq/cpuinfo_max_freq")
 * can be read, or when the affinity call fails. A failed cpuset write is
 * only logged. */
VEXA_API int32_t bi_sched_bind_pid_to_main_core(int32_t pid);
/* Lets pid run on every core again (cores 0 to count-1, at most 32). 0 or -1. */
VEXA_API int32_t bi_sched_unbind_pid_from_main_core(int32_t pid);
/* Sets the cpufreq governor of policy0, then of policy4. 0; -1 when governor
 * is null or empty, when it is not found in policy0's
 * scaling_available_governors (any part of a line counts: "perf" passes), or
 * when a policy's scaling_governor cannot be opened (policy0 then keeps the
 * new governor). The kernel may still refuse the written name: that is
 * logged as an error ("<func>: write <name> to policyN failed: <reason>") and
 * the result stays 0. */
VEXA_API int32_t bi_sched_adjust_cpu_freq(const char *governor);

/* The steps of the above, each usable alone. */
/* The number of configured processors, or -1. */
VEXA_API int32_t get_cpu_core_number(void);
/* The index of the first core with the highest cpuinfo_max_freq among cores
 * 0 to count-1 (unreadable cores are skipped), or -1 when none was read. */
VEXA_API int32_t get_max_freq_cpu_index(int32_t count);
/* 1 when name occurs in a line of policy0's scaling_available_governors,
 * else 0 (also when the file cannot be opened). */
VEXA_API int32_t is_governor_supported(const char *name);
/* Writes pid as decimal text to "/dev/cpuset/foreground/tasks". 0 or -1. */
VEXA_API int32_t set_pid_to_tasks(int32_t pid);

/* ---- end of CPU scheduling and frequency ---- */

VEXA_EXTERN_C_END

#endif
