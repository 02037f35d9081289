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
 * seconds. Returns 0 whether or not tar succeeded, as the daemon's tools
 * have always had it: a failed tar or chmod is logged as an error under
 * "vexa_system_bi_vexa_logd" ("bi_vexa_logd_compress: tar of DIR into
 * ARCHIVE failed (exit N)"), and tar may have left a partial or empty
 * archive (a missing dir gives an empty one). A caller that needs the
 * archive checks for that error line, or that dir exists before and the
 * archive after; vexactl does both. Also 0 without doing anything when the
 * two paths together have 998 characters or more; -2 dir null, -3 archive
 * null; -1 when dir or archive is not a plain absolute path (shell
 * metacharacters, a ".." component, "/" itself). */
VEXA_API int32_t bi_vexa_logd_compress(const char *dir, const char *archive);
/* Removes every entry of dir ("/system/bin/rm -r DIR/NAME"), files and
 * subdirectories alike, except the daemon's current log file: the entry whose
 * name is the last 13 characters of "persist.vendor.vexa_logd.path" (the
 * whole path when it is shorter). 0 when every other entry was removed; -1
 * when the path property is empty or dir is not a plain absolute path; -2
 * dir longer than 1004 characters; -3 no memory; -4 dir cannot be opened;
 * -5 when an entry stays. An entry whose name is not plain text for the
 * shell, or too long for the command, is never passed to rm: it stays, is
 * logged as an error and makes the result -5 wherever it comes. A removal
 * rm fails counts as the directory's tools have always counted it: only the
 * last one run decides between -5 and 0 (earlier failures are logged as
 * errors); check the directory when every entry matters. */
VEXA_API int32_t bi_vexa_logd_clear(const char *dir);

/* ---- end of log daemon configuration ---- */

/* ---- USB ports, OTG and the USB bulk device channel ---- */

/*
 * Ports 1 to 4 are switched through the text files named by the product
 * record's usb1_path .. usb4_path ("1" on, "0" off). A port whose entry is
 * missing, empty or "UNDEF" logs the configuration error and then fails as a
 * missing file: the library never opens a path it was not given. The OTG
 * role of the USB 2 PHY is the file
 * "/sys/devices/platform/fe8a0000.usb2-phy/otg_mode" ("host" or
 * "peripheral").
 */

/* Writes "1" (state non-zero) or "0" to port index (1..4). 0 or -1. */
VEXA_API int32_t bi_set_usb_state(int32_t index, int32_t state);
/* The decimal value of the first byte of port index's file ("x" reads 0), or
 * -1. */
VEXA_API int32_t bi_get_usb_state(int32_t index);
/* 0 host, 1 peripheral, -1 for anything else or a failed read. */
VEXA_API int32_t bi_otg_get_mode(void);
/* Writes "host" (mode 0) or "peripheral" (mode 1); the platform write's result
 * (negative on failure), or -1 for another mode. */
VEXA_API int32_t bi_otg_set_mode(int32_t mode);

/* The channel's port record, 10 bytes. */
typedef struct vexa_usb_port {
    uint16_t vendor_id;
    uint16_t product_id;
    uint8_t interface_class;
    uint8_t selector;         /* stored, not used by the search */
    uint8_t transfer_type;    /* endpoint attributes & 3: 2 bulk, 3 interrupt */
    uint8_t endpoint_in;      /* IN endpoint address (bit 7 set), 0 when none */
    uint8_t endpoint_out;     /* OUT endpoint address, 0 when none */
    uint8_t interface_number;
} vexa_usb_port_t;

struct libusb_device_handle;
struct libusb_device;

/* The channel's state, owned by the library: the open handle and the matched
 * device (null while closed), the device list held while open, and the port
 * record. Read them; do not free or change them. */
VEXA_API extern struct libusb_device_handle *vexa_usb_handle;
VEXA_API extern struct libusb_device *vexa_usb_dev;
VEXA_API extern struct libusb_device **vexa_usb_devs;
VEXA_API extern vexa_usb_port_t vexa_usb_port;
/* The buses on which bi_usb_get_vexa_devices accepts devices (1 and 5), and
 * the interface classes it does not accept (audio, HID, printer, mass
 * storage, hub, CDC data, smart card, video, personal healthcare, wireless
 * controller). Read on every call: a client may change them. */
VEXA_API extern int32_t Vexa_usb_devices_bus[2];
VEXA_API extern int32_t Nonsupport_bInterfaceClass[10];

/*
 * Opens the channel to the first device with vendor_id and product_id:
 * initialises libusb (default context), finds in the device's configurations
 * the first alternate setting of interface_class that has an IN and an OUT
 * endpoint of transfer_type (the search stops at the endpoint that completes
 * the pair), opens the device and claims that interface, detaching a kernel
 * driver when the first claim fails. A device with no such alternate setting
 * still opens, with both endpoint addresses 0 and interface 0. An open
 * channel is closed first. On success copies the port record to *out_port
 * (when not null) and returns 0; the channel then stays open until
 * bi_usb_close. Failures: -2 libusb cannot start, no USB device at all, or
 * the device has no configuration; -1 no matching device or a descriptor
 * cannot be read; the negative libusb code of a failed device-list query;
 * -5 the device cannot be opened; -6 the kernel driver cannot be detached;
 * -7 the interface cannot be claimed. A failed open leaves the channel
 * closed with no state behind.
 */
VEXA_API int32_t bi_usb_open(uint16_t vendor_id, uint16_t product_id, uint8_t interface_class,
                             uint8_t selector, uint8_t transfer_type, vexa_usb_port_t *out_port);
/* Releases the interface, closes the device and libusb, and clears the
 * channel's state; safe when it is closed. Returns 0. */
VEXA_API int32_t bi_usb_close(void);
/* One bulk transfer of length bytes from buffer to the OUT endpoint, waiting
 * at most timeout_ms (0: no limit). The number of bytes sent (may be less
 * than length), or -1: null buffer, length 0 or below, channel closed, or
 * the transfer failed (a timeout included). */
VEXA_API int32_t bi_usb_blocking_write(const uint8_t *buffer, int32_t length, uint32_t timeout_ms);
/* One bulk transfer from the IN endpoint into buffer, at most length bytes;
 * the number received, or -1 as for the write. */
VEXA_API int32_t bi_usb_blocking_read(uint8_t *buffer, int32_t length, uint32_t timeout_ms);

/* A device that bi_usb_get_vexa_devices accepts. */
typedef struct vexa_usb_device_info {
    uint8_t bus;
    uint8_t address;
    uint16_t vendor_id;
    uint16_t product_id;
    uint8_t configuration;    /* bConfigurationValue of the accepted interface's configuration */
    uint8_t interface_number; /* its first interface of a supported class */
    uint8_t interface_class;
    uint8_t reserved;
} vexa_usb_device_info_t;

#define VEXA_USB_DEVICES_MAX 16

typedef struct vexa_usb_devices {
    int32_t count; /* entries filled in devices */
    vexa_usb_device_info_t devices[VEXA_USB_DEVICES_MAX];
} vexa_usb_devices_t;

/*
 * Lists the devices a client may talk to over the channel: devices on the
 * buses of Vexa_usb_devices_bus, other than a root hub (address 1), with an
 * interface whose class is not in Nonsupport_bInterfaceClass. A device is
 * accepted at its first such interface (configurations and interfaces in
 * order, every alternate setting); its walk ends there. Zeroes *out and
 * fills it in the order libusb lists the devices; returns the number of
 * accepted devices (entries beyond VEXA_USB_DEVICES_MAX are counted in the
 * result, not stored), -1 when out is null (nothing is done), -2 when libusb
 * cannot start, or the negative libusb code of a failed list query. The
 * channel's state is not touched (libusb's default context is shared and
 * counted: an open channel stays open).
 */
VEXA_API int32_t bi_usb_get_vexa_devices(vexa_usb_devices_t *out);

/* ---- end of USB ports, OTG and the USB bulk device channel ---- */

VEXA_EXTERN_C_END

#endif
