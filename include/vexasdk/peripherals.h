/*
 * Board peripherals.
 *
 * GPIO-driven switches and indicators: lamps, relays, power lines, the OPS
 * slot, the USB port selector and the simple fan. Each operation takes its
 * line from the product record (bi_product, see product_config.h), judges the
 * id and calls the HAL.
 *
 * Errors: -1 when the record is missing or the line's id is refused, after an
 * error line in the log ("...invaild <entry>.gpio_id is <id>, need to check
 * ini file."); otherwise the HAL's result unchanged, so a HAL failure comes
 * back as its own negative value. Reads return the level (0 or 1).
 * Most members accept ids above 0. The switch lamp, the LoRa input and the
 * simple fan accept 1 to 998. The interior relay and the two 4G lines accept
 * every id below 1000 but 0, so a missing key (-1) reaches the HAL as line -1.
 * When the record itself is missing, the id printed is -1.
 *
 * Threads: no locking; call from any thread once the record is loaded.
 */
#ifndef VEXASDK_PERIPHERALS_H
#define VEXASDK_PERIPHERALS_H

#include <stdint.h>

#include "vexasdk/export.h"

VEXA_EXTERN_C_BEGIN

/* ---- GPIO-driven switches and indicators ---- */

/* Lamps: state 1 lights, 0 darkens (passed to the HAL unchanged). */
VEXA_API int32_t bi_sysled_set_state(int32_t state);   /* also prints the line on standard output */
VEXA_API int32_t bi_sysled_get_state(void);
VEXA_API int32_t bi_netled_set_state(int32_t state);
VEXA_API int32_t bi_netled_get_state(void);
VEXA_API int32_t bi_4gled_set_state(int32_t state);
VEXA_API int32_t bi_4gled_get_state(void);
VEXA_API int32_t bi_position_led_set_state(int32_t state);
VEXA_API int32_t bi_position_led_get_state(void);
VEXA_API int32_t bi_switchled_set_state(int32_t state);
VEXA_API int32_t bi_switchled_get_state(void);
VEXA_API int32_t bi_runningled_set_state(int32_t state);
VEXA_API int32_t bi_runningled_get_state(void);
VEXA_API int32_t bi_cloudled_set_state(int32_t state);
VEXA_API int32_t bi_cloudled_get_state(void);

/* The tri-colour lamp. The red line is active low: set drives it with the
 * negation of red. get returns 1 when the lines read red 1, green 1, blue 0
 * (red dark, green lit) and 0 otherwise, read failures included. */
VEXA_API int32_t bi_triled_set_state(int32_t red, int32_t green, int32_t blue);
VEXA_API int32_t bi_triled_get_state(void);

VEXA_API int32_t bi_factory_tools_enable(int32_t enable);
VEXA_API int32_t bi_factory_tools_get_status(void);

/* Peripheral relays 1 to 4. Another dev_num logs an error and still calls the
 * HAL with line -1, returning its result. */
VEXA_API int32_t bi_peripheral_relay_enable(int32_t dev_num, int32_t enable);
VEXA_API int32_t bi_peripheral_relay_get_status(int32_t dev_num);

VEXA_API int32_t bi_pc_ctrl_enable(int32_t enable);
VEXA_API int32_t bi_pc_ctrl_get_status(void);
VEXA_API int32_t bi_usb_sub_card_led_enable(int32_t enable);
VEXA_API int32_t bi_usb_sub_card_led_get_status(void);

/* The interior relay and the 4G module's reset and power lines. */
VEXA_API int32_t bi_relay_set_state(int32_t state);
VEXA_API int32_t bi_relay_get_state(void);
VEXA_API int32_t bi_4g_module_set_state(int32_t state);
VEXA_API int32_t bi_4g_module_get_state(void);
VEXA_API int32_t bi_4g_power_set_state(int32_t state);
VEXA_API int32_t bi_4g_power_get_state(void);

VEXA_API int32_t bi_headphone_power_set_state(int32_t state);
VEXA_API int32_t bi_headphone_power_get_state(void);
VEXA_API int32_t bi_lora_get_state(void);
VEXA_API int32_t bi_fan_simple_set_status(int32_t status);
VEXA_API int32_t bi_fan_simple_get_status(void);

/* The OPS (pluggable computer) slot. */
VEXA_API int32_t bi_ops_set_usb_port(int32_t value);
VEXA_API int32_t bi_ops_get_usb_port(void);
VEXA_API int32_t bi_ops_switch_control(int32_t value);
VEXA_API int32_t bi_ops_get_switch_state(void);
VEXA_API int32_t bi_ops_on_set_state(int32_t state);
VEXA_API int32_t bi_ops_on_get_state(void);
VEXA_API int32_t bi_ops_control_set_state(int32_t state);
VEXA_API int32_t bi_ops_control_get_state(void);
VEXA_API int32_t bi_ops_detect_get_state(void);

/* The USB port selector: usb_select_0 carries bit 0 and usb_select_1 bit 1 of
 * the port number 0..3. Set ignores the HAL's results and returns 0, also for
 * a port above 3 (which drives nothing). Get returns the port number, -1 for a
 * pair of levels that is not 0/1. These two do not test the record for null:
 * without one, both ids count as -1 and the pair is refused. */
VEXA_API int32_t bi_usb_set_switch_enable(uint32_t en_usb_id);
VEXA_API int32_t bi_usb_get_switch_enable(void);

/* Writes the number of external relays to *out and returns 0; -1 (out
 * untouched) when the record is missing or the key is missing (-1). */
VEXA_API int32_t bi_get_external_relay_number(int32_t *out);

/* Power modes: they only log that they were called and return 0. */
VEXA_API int32_t bi_power_low_power_mode(void);
VEXA_API int32_t bi_power_normal_mode(void);

/* Bits 0..63 of a 64-bit flag word; a bit number of 64 or more changes
 * nothing and reads as 0. A null word is ignored. */
VEXA_API void bi_set_bit(uint64_t *word, uint32_t n);
VEXA_API void bi_clear_bit(uint64_t *word, uint32_t n);
VEXA_API int32_t bi_get_bit(uint64_t value, uint32_t n);

/* Codec mute of the qrxx boards: status 1 sound on, 0 muted; 0 or -1. */
VEXA_API int32_t bi_set_qrxx_volume_status(int32_t status);

/* Configures a line as an output at value through the HAL; its result. */
VEXA_API int64_t gpio_config(int32_t gpio_id, int32_t value);

/* ---- end of GPIO-driven switches and indicators ---- */

/* ---- Serial ports ------------------------------------------------------
 *
 * Named ports: seven fixed ports whose tty paths come from bi_product
 * (serial_485_1, serial_485_2, serial_232_1, serial_hdmi_1, serial_lora_1,
 * serial_ttl_1, serial_ttl_2), opened through the platform's serial
 * operations. Each keeps one process-wide descriptor (0 before the first
 * open); write, read and close pass it to the platform unchecked and return
 * the platform's result. Reopening an open port does not close the old
 * descriptor. Log tag "vexa_system_bi_serial".
 *
 * Raw layer (sdk_uart_*): any tty, opened read-write without becoming the
 * controlling terminal, configured raw with termios (VMIN 0, VTIME 0: a read
 * returns what is there, possibly nothing). Messages of the raw layer go to
 * standard output.
 *
 * Errors: -1 for a missing record or path, a path of 128 bytes or more, or
 * a failed open or system call; -5 for a null buffer in sdk_uart_read/write.
 *
 * Threads: no locking; use each port from one thread at a time.
 */

/* Opens a named port: 0, or -1 (path not set, or hal_serial_open gave a
 * value of 0 or less, which is stored all the same). */
#define VEXA_SERIAL_PORT_DECLARE(name)                                                           \
    VEXA_API int32_t bi_serial_##name##_open(int32_t baudrate, uint32_t databits,               \
                                             uint32_t stopbits, char parity);                    \
    VEXA_API int32_t bi_serial_##name##_write(const void *buf, int32_t len);                     \
    VEXA_API int32_t bi_serial_##name##_blocking_read(void *buf, int32_t len, int32_t timeout);  \
    VEXA_API int32_t bi_serial_##name##_nonblocking_read(void *buf, int32_t len);                \
    VEXA_API int32_t bi_serial_##name##_close(void);
VEXA_SERIAL_PORT_DECLARE(485)
VEXA_SERIAL_PORT_DECLARE(485_2)
VEXA_SERIAL_PORT_DECLARE(232)
VEXA_SERIAL_PORT_DECLARE(hdmi)
VEXA_SERIAL_PORT_DECLARE(lora)
VEXA_SERIAL_PORT_DECLARE(ttl)
VEXA_SERIAL_PORT_DECLARE(ttl_2)
#undef VEXA_SERIAL_PORT_DECLARE

/* Opens path (O_RDWR | O_NOCTTY, then blocking). The descriptor, or -1 (a
 * descriptor whose flags could not be changed stays open). */
VEXA_API int32_t sdk_uart_open(const char *path);
/* Configures the line: a baud rate outside 300, 1200, 2400, 4800, 9600,
 * 19200, 57600, 115200, 1000000, 4000000 keeps the current speed. flow_ctrl
 * 0 none, 1 RTS/CTS, 2 the XON/XOFF bits set into the control flags (kept as
 * the boards have it). Data bits 5-8, stop bits 1-2, parity N E O S (either
 * case). 0, or -1 with nothing applied. */
VEXA_API int32_t sdk_uart_cfg(int32_t fd, int32_t baudrate, int32_t flow_ctrl, int32_t databits,
                              int32_t stopbits, char parity);
/* sdk_uart_open + sdk_uart_cfg(fd, baudrate, 0, 8, 1, 'N'). Descriptor or -1. */
VEXA_API int32_t sdk_uart_init(const char *path, int32_t baudrate);
/* One write: bytes written, -1 on error, -5 for a null buffer. */
VEXA_API int32_t sdk_uart_write(int32_t fd, const void *buf, uint32_t count);
/* One read, its result unchanged; -5 for a null buffer. */
VEXA_API int32_t sdk_uart_read(int32_t fd, void *buf, uint32_t count);
/* Closes; 0. */
VEXA_API int32_t sdk_uart_close(int32_t fd);

/* ---- end of serial ports ---- */


/* ---- Fan level, ADC, RTC alarms, kernel watchdog and infrared ----------
 *
 * Fan (tag "vexa_system_bi_fan"): the cooling level ("gear", 0..10) of
 * "/sys/class/thermal/cooling_device0/cur_state" and the value of
 * "/proc/fan_arm". ADC (tag "vexa_system_bi_adc"): the board-id, input-voltage
 * and temperature channels whose sysfs paths and resistor values come from
 * the [adc] section of bi_product. RTC (tag "vexa_system_bi_rtc") and kernel
 * watchdog (tag "vexa_system_bi_watchdog"): the device paths of the record
 * (rtc_device, wdt_dev), handed to the platform with the caller's arguments.
 * Infrared (tag "vexa_system_bi_infrared"): the IR blaster of
 * "/sys/class/irblaster/irblaster0/" and the infrared wake switch of the
 * low-power controller.
 *
 * Errors: -1 (-1.0 for the float results) for a missing record, path or
 * device and for files that cannot be opened; -2 for fan files that cannot be
 * read, formatted or written; the platform's own result for the RTC and
 * watchdog operations.
 *
 * Threads: no locking. bi_watchdog_feed() keeps one context, parsed from the
 * record on its first call and never refreshed (a reloaded record is not
 * seen); call it from one thread.
 */

/* Sets the fan level: 0 written as its decimal text; -1 for a gear above 10
 * (nothing is opened) or an open failure, -2 for a failed write. */
VEXA_API int32_t bi_fan_level_set_state(uint32_t gear);
/* The fan level 0..10; -1 when the file cannot be opened, -2 when it cannot be
 * read or holds a value outside 0..10. */
VEXA_API int32_t bi_fan_level_get_state(void);
/* The value of "/proc/fan_arm" (0 or more); -1 or -2 as for the level. */
VEXA_API int32_t bi_fan_level_get_prm(void);

/* The raw value of the adc_board_id channel, or -1. */
VEXA_API int32_t bi_adc_get_board_id(void);
/* Vin = (R1 + R2) x Vref x raw / (2^n - 1) / R2 in volts, or -1.0. A channel
 * that cannot be read gives raw -1, which is passed to the formula as the
 * boards have always done. */
VEXA_API float bi_adc_get_board_voltage(void);
/* The thermistor's temperature (10 kOhm at 25 degrees C, beta 3380) in
 * degrees C, from the divider of R1 and the supply Vin; or -1.0. */
VEXA_API float bi_adc_get_board_temperature(void);

/* The RTC alarms of the rtc_device node, as the kernel's struct rtc_time
 * (include <linux/rtc.h>). Boot is alarm 1, wake alarm 2. The platform's
 * result, or -1 when the record or the path is missing. */
struct rtc_time;
VEXA_API int32_t bi_rtc_set_boot_enable(int32_t enable);
VEXA_API int32_t bi_rtc_set_wake_enable(int32_t enable);
VEXA_API int32_t bi_rtc_set_boot_time(const struct rtc_time *time);
VEXA_API int32_t bi_rtc_set_wake_time(const struct rtc_time *time);
VEXA_API int32_t bi_rtc_get_boot_time(struct rtc_time *time);
VEXA_API int32_t bi_rtc_get_wake_time(struct rtc_time *time);

/* A kernel watchdog context: the device path, the timeout and the feed
 * interval in seconds, then the platform's own storage (its descriptor). */
typedef struct {
    char dev[64];
    uint32_t timeout;
    uint32_t interval;
    int32_t fd;
    uint8_t reserved[28];
} bi_watchdog_t;

/* Fills wdt from the record: wdt_dev (an empty value gives "/dev/watchdog";
 * a missing key gives "UNDEF", which is used as it stands and so fails at
 * the device), wdt_timeout (61 or more, a missing key too, gives 10) and
 * wdt_interval (61 or more gives 2). Without a record wdt is left as it is. */
VEXA_API void bi_watchdog_parse(bi_watchdog_t *wdt);
/* Pass-throughs to the platform's watchdog: arm with a timeout; feed count
 * times; arm, feed `feeds` times and stop feeding (the board then resets);
 * disarm the watchdog of a device path. The platform's result. */
VEXA_API int32_t bi_watchdog_open(bi_watchdog_t *wdt, uint32_t timeout);
VEXA_API int32_t bi_watchdog_feed_loop(bi_watchdog_t *wdt, uint32_t count);
VEXA_API int32_t bi_watchdog_test(bi_watchdog_t *wdt, uint32_t timeout, uint32_t feeds);
VEXA_API int32_t bi_watchdog_close(const char *dev);
/* Feeds the watchdog of the record (context parsed on the first call). */
VEXA_API int32_t bi_watchdog_feed(void);

/* Sends the fixed infrared code (38 kHz carrier, duty 50, one pattern of 68
 * durations); 0 or -1. */
VEXA_API int32_t bi_infrared_write(void);
/* The low-power controller's infrared wake switch: disable non-zero writes
 * "disable", 0 writes "enable"; 0, or -1 when the file cannot be opened.
 * get: 0 enabled, 1 disabled, -1 for unreadable or unknown text. */
VEXA_API int32_t bi_set_irstatus_pz2k(int32_t disable);
VEXA_API int32_t bi_get_irstatus_pz2k(void);

/* ---- end of fan, ADC, RTC, watchdog and infrared ---- */

/* ---- Audio codec, volume and I2C chip state ---------------------------
 *
 * Two audio codecs (i2c_audio_0_*, i2c_audio_1_*), an RTC chip (i2c_rtc_0_*)
 * and a clock chip (i2c_clock_0_*) on I2C buses, as described by the [i2c]
 * section of bi_product. Every access is one register read or write through
 * the platform. Log tag "vexa_system_bi_i2c".
 *
 * Errors: -1 after an error line for a missing record, bus path or address
 * (a field of 0 is "not set") and for failed register reads; the platform's
 * result for the pass-through accesses and the final writes.
 *
 * Threads: no locking. Two callers changing the same codec's volume at once
 * may interleave the read-modify-write of its channel register.
 */

/* Pass-throughs of one register access; the platform's result. */
VEXA_API int32_t bi_i2c_reg_write(const char *path, uint8_t dev_addr, uint8_t reg_addr,
                                  uint8_t value);
VEXA_API int32_t bi_i2c_reg_read(const char *path, uint8_t dev_addr, uint8_t reg_addr,
                                 uint8_t *out);
/* The codec's attenuation for a volume percentage: 0 mutes (0xff), 1 counts
 * as 2, 100 and more (or negative) give 0, else |30 ln(volume/100)| capped at
 * 0xc0. Writes *out_reg and returns 0. */
VEXA_API int32_t bi_volume_to_codec_reg(int32_t volume, uint8_t *out_reg);
/* Writes the codec's enable (enable non-zero) or disable value to its enable
 * register. index 0 or 1. */
VEXA_API int32_t bi_i2c_set_audio_enable(uint32_t index, int32_t enable);
/* 1 when the codec's enable register holds codec 0's enable value (for both
 * codecs, as the boards have always compared), 0 when not, -1 on failure. */
VEXA_API int32_t bi_i2c_get_audio_enable(uint32_t index);
/* Sets bit 2 of the channel register, then writes the converted volume to
 * the volume register; the last write's result or -1. */
VEXA_API int32_t bi_i2c_set_video_inputsrc_volume(uint32_t index, int32_t volume);
/* The raw volume register (0..255, not converted back to a percentage), -1. */
VEXA_API int32_t bi_i2c_get_video_inputsrc_volume(uint32_t index);
/* 0 when the codec's status register has bit 4 clear and bit 5 set, else -1. */
VEXA_API int32_t bi_i2c_get_audio_state(uint32_t index);
/* Bit 7 of the RTC chip's status register (1 or 0), -1. Index 0 only. */
VEXA_API int32_t bi_i2c_get_rtc_state(uint32_t index);
/* 0 when the clock chip's status register reads 0x81, else -1. Index 0 only. */
VEXA_API int32_t bi_i2c_get_clock_chip_state(uint32_t index);

/* ---- end of audio codec and I2C chip state ---- */

/* ---- System information and processes --------------------------------
 *
 * Product information, CPU state, USB list, the hardware clock, memory and
 * load figures, mounted file systems and their usage, the size of the main
 * storage device ("/sys/block/mmcblk2/size"), and processes. Log tags
 * "vexa_system_bi_info" and, for processes, "vexa_system_bi_kill_process".
 *
 * Errors: -1 with the messages of each operation (-2 for a failed mount
 * query); the platform's result for the pass-throughs.
 *
 * Threads: no locking; each call is self-contained.
 */

/* Size of the product information record. */
#define BI_PRODUCT_INFO_SIZE 2048

/* The CPU as the platform reports it. */
typedef struct {
    int32_t temperature; /* thousandths of a degree C */
    float usage;         /* percent busy since the previous reading, 0..100 */
    int32_t cores;       /* cores online */
    int32_t freq_khz;    /* current frequency of core 0 */
} bi_cpu_state_t;

/* A process as the platform reports it. */
typedef struct {
    int32_t pid;
    int32_t ppid;
    int32_t uid;
    char state; /* R, S, D, Z, T */
    char name[64];
    uint64_t rss_kb;
} bi_process_info_t;

/* System figures, as the operating system's sysinfo record holds them
 * (memory in units of mem_unit bytes). */
typedef struct {
    int64_t uptime;
    uint64_t loads[3];
    uint64_t totalram, freeram, sharedram, bufferram, totalswap, freeswap;
    uint16_t procs;
    uint64_t totalhigh, freehigh;
    uint32_t mem_unit;
} bi_sys_info_t;

/* A mounted file system: four texts (at most 127 characters, terminated),
 * backup frequency and fsck order, then statvfs's figures. */
typedef struct {
    char device[128];
    char mount_point[128];
    char type[128];
    char options[128];
    int8_t freq;
    int8_t passno;
    uint64_t bsize, frsize, blocks, bfree, bavail, files, ffree, favail, fsid, flag, namemax;
} bi_mnt_info_t;

/* The largest entry number the mount listings write: an entry the platform
 * numbers BI_MNT_INFO_MAX or more is skipped with an error line rather than
 * written past any array. */
#define BI_MNT_INFO_MAX 64

/* Zeroes buf (BI_PRODUCT_INFO_SIZE bytes) and fills it from the platform; the
 * platform's result, -1 for a null buf. The module id is the decimal text at
 * byte 64. */
VEXA_API int32_t bi_info_get_product_info(char *buf);
/* Pass-throughs; the platform's result. set takes a whole record. */
VEXA_API int32_t bi_info_set_product_info(const char *buf);
/* The USB devices, one "BUS:DEV VID:PID NAME" line each, into buf (size
 * bytes, terminated); the number of devices. */
VEXA_API int32_t bi_info_get_usb_list(char *buf, int32_t size);
VEXA_API int32_t bi_info_get_cpu_state(bi_cpu_state_t *state);
VEXA_API int32_t bi_info_test(int32_t value);
VEXA_API int32_t bi_info_test1(int32_t value);
/* fpga_protocol_type of the record: 0 or 1, else -1. */
VEXA_API int32_t bi_info_get_protocol_type(void);
/* The hardware clock in seconds since the epoch. */
VEXA_API int64_t bi_info_get_hw_clock(void);
/* Fills rec from sysinfo; 0 or -1. */
VEXA_API int32_t bi_info_get_sys_info(bi_sys_info_t *rec);
/* The number of mounted file systems into *count; 0 or -1. */
VEXA_API int32_t bi_info_get_all_mnt_num(int32_t *count);
/* The mount of mount_point into entries[0] (the platform numbers a single
 * mount 0); every mount into entries[i] by its number (entries must hold
 * bi_info_get_all_mnt_num() entries, at most BI_MNT_INFO_MAX). 0, -1 for a
 * null array, -2 when the platform finds nothing. */
VEXA_API int32_t bi_info_get_special_mnt_info(const char *mount_point, bi_mnt_info_t *entries);
VEXA_API int32_t bi_info_get_all_mnt_info(bi_mnt_info_t *entries);
/* The main storage's nominal size in GB (2, 4, ... 256, or the size itself
 * above 256) into *size; 0 or -1. */
VEXA_API int32_t bi_info_read_total_disk_size(double *size);

/* The ids of the processes called name (at most max) into pids; the number
 * found, -1 for a null name. */
VEXA_API int32_t bi_kill_get_process_num(const char *name, int32_t *pids, int32_t max);
/* Their records (at most max) into ps; the number found, -1 for a null name
 * or ps. */
VEXA_API int32_t bi_get_process_info_by_name(const char *name, bi_process_info_t *ps,
                                             int32_t max);
/* Ends the process pid; the platform's result. */
VEXA_API int32_t bi_kill_process_num(int32_t pid);

/* ---- end of system information and processes ---- */

VEXA_EXTERN_C_END

#endif
