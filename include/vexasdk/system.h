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

/* ---- Log daemon configuration ---- */

/*
 * The log daemon reads its configuration from persistent properties, one per
 * field of vexa_logd_config_t ("persist.vendor.vexa_logd.level", ".base",
 * ".mode", ".total_size", ".once_size"); the file it writes now is named by
 * "persist.vendor.vexa_logd.path". Values are the daemon's own texts and are
 * passed through.
 */
typedef struct vexa_logd_config {
    char level[8];
    char base[128];
    char mode[64];
    char total_size[8];
    char once_size[8];
} vexa_logd_config_t;

/* Writes each non-empty field, in the order above, to its property; empty
 * fields leave their property as it is. 0, or the negative result of the
 * first failed write (later fields are then not written), after "set
 * <property> failed". A field with no NUL within its capacity is not written
 * either: it fails with -1 and its own error line. */
VEXA_API int32_t bi_vexa_logd_set_configure(vexa_logd_config_t config);
/* Fills *out from the five properties (unset ones stay empty); returns the
 * length of the once_size value (0 when unset), or -1 when out is null. A
 * value longer than its field is not copied: the field stays empty and an
 * error line names the property. */
VEXA_API int32_t bi_vexa_logd_get_configure(vexa_logd_config_t *out);
/* Packs dir into the gzip-compressed tar archive ("/system/bin/tar -zcf
 * ARCHIVE DIR"), then makes it readable and writable by all ("chmod 666").
 * For dir "/syslog/logs" the video and display tools are first told to stop
 * ("sys.video_tools.state", "sys.display_tools.state" = "true") and given 2
 * seconds. Returns 0 whether or not tar succeeded (a failed tar or chmod is
 * logged as an error; check the archive), and also 0 without doing anything
 * when the two paths together have 998 characters or more; -2 dir null, -3
 * archive null; -1 when dir or archive is not a plain absolute path (shell
 * metacharacters, a ".." component, "/" itself). */
VEXA_API int32_t bi_vexa_logd_compress(const char *dir, const char *archive);
/* Removes every entry of dir ("/system/bin/rm -r DIR/NAME"), files and
 * subdirectories alike, except the daemon's current log file: the entry whose
 * name is the last 13 characters of "persist.vendor.vexa_logd.path" (the
 * whole path when it is shorter). 0; -1 when the path property is empty or
 * dir is not a plain absolute path; -2 dir longer than 1004 characters; -3
 * no memory; -4 dir cannot be opened; -5 when the last removal failed
 * (earlier failures are logged as errors but do not change the result). An
 * entry whose name is not plain text for the shell, or too long for the
 * command, is left in place and logged. */
VEXA_API int32_t bi_vexa_logd_clear(const char *dir);

/* ---- end of log daemon configuration ---- */

VEXA_EXTERN_C_END

#endif
