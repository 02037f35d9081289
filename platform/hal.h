// The maker's closed hardware-abstraction libraries (libvexahal, libvexahalcbb,
// libvexahalcommon, libvexasdkcommon) as this library calls them.
//
// On the device these symbols come from the maker's libraries; on a host the
// virtual board (libvexaboard) provides them. The library never defines them.
#ifndef VEXA_PLATFORM_HAL_H
#define VEXA_PLATFORM_HAL_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "vexasdk/peripherals.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Product information: fills a caller-zeroed 2048-byte record; the module id
 * stands at byte 64 as decimal text. 0 on success. */
#define HAL_PRODUCT_INFO_SIZE 2048
#define HAL_PRODUCT_INFO_MODID_OFFSET 64
int hal_info_get_product_info(char *buffer);

/* GPIO lines: negative on failure. */
int hal_gpio_set_value(int gpio_id, int value);
int hal_gpio_get_value(int gpio_id);
int64_t hal_gpio_config(int gpio_id, int a, int value, int b, int c, int d);

/* Serial lines: open returns a descriptor (> 0 on success). */
int hal_serial_open(const char *path, int baudrate, unsigned int databits,
                    unsigned int stopbits, char parity);
int hal_serial_write(int fd, const void *buf, int len);
int hal_serial_blocking_read(int fd, void *buf, int len, int timeout);
int hal_serial_nonblocking_read(int fd, void *buf, int len);
int hal_serial_close(int fd);

/* Raw block devices or files, at a byte offset; negative on failure. */
int hal_block_read(const char *path, uint32_t offset, void *buf, uint32_t len);
int hal_block_write(const char *path, uint32_t offset, const void *buf, uint32_t len);

/* Numbered vendor-storage items; the two words are passed through. */
int hal_vendor_storage_read(int item, void *buf, uint32_t a, uint32_t b);
int hal_vendor_storage_write(int item, const void *buf, uint32_t a, uint32_t b);

/* sysfs-style text files. */
int hal_sys_read(const char *path, char *buf, int size);
int hal_sys_write(const char *path, const char *text, int len);

/* I2C register access; negative on failure. */
int hal_i2c_reg_read(const char *path, uint8_t dev_addr, uint8_t reg_addr, uint8_t *out);
int hal_i2c_reg_write(const char *path, uint8_t dev_addr, uint8_t reg_addr, uint8_t value);

/* RTC alarms of the RTC device node dev: alarm 1 wakes the board for a boot,
 * alarm 2 for a wake-up; times as the kernel's struct rtc_time. 0 or negative. */
struct rtc_time;
int hal_rtc_set_alarm1_enable(const char *dev, int enable);
int hal_rtc_set_alarm2_enable(const char *dev, int enable);
int hal_rtc_set_boot_time(const char *dev, const struct rtc_time *time);
int hal_rtc_set_wake_time(const char *dev, const struct rtc_time *time);
int hal_rtc_get_boot_time(const char *dev, struct rtc_time *time);
int hal_rtc_get_wake_time(const char *dev, struct rtc_time *time);

/* The kernel watchdog of wdt->dev. open arms it with a timeout in seconds and
 * keeps the descriptor in wdt->fd; feed arms it when needed and feeds it once;
 * feed_loop feeds it count times, wdt->interval seconds apart; test arms it
 * and feeds it `feeds` times, then stops feeding so that it resets the board;
 * close disarms the watchdog of a device path. 0 or negative. */
int hal_watchdog_open(bi_watchdog_t *wdt, uint32_t timeout);
int hal_watchdog_feed(bi_watchdog_t *wdt, uint32_t timeout);
int hal_watchdog_feed_loop(bi_watchdog_t *wdt, uint32_t count);
int hal_watchdog_test(bi_watchdog_t *wdt, uint32_t timeout, uint32_t feeds);
int hal_watchdog_close(const char *dev);

/* Product information, the USB device list ("BUS:DEV VID:PID NAME" a line,
 * returns the number of devices), the CPU state and two test hooks. */
int hal_info_set_product_info(const char *buffer);
int hal_info_get_usb_list(char *buf, int32_t size);
int hal_info_get_cpu_state(bi_cpu_state_t *state);
int hal_info_test(int32_t value);
int hal_info_test1(int32_t value);

/* The hardware clock: fills *out (when not null) and returns it. */
time_t show_clock(time_t *out);

/* A mounted file system as df() lists it. Nodes come newest entry first, so
 * the first node's index is the number of entries less one. The caller frees
 * each node and its four texts with free(). */
struct hal_filesystem_info {
    int32_t index;
    char *device;
    char *mount_point;
    char *type;
    char *options;
    int8_t freq;
    int8_t passno;
    uint32_t bsize, frsize, blocks, bfree, bavail, files, ffree, favail, fsid, flag, namemax;
    struct hal_filesystem_info *next;
};
/* The mount of mount_point (index 0), or every mount when it is null; null
 * on failure. */
struct hal_filesystem_info *df(const char *mount_point);

/* Processes: the ids (at most max) of the processes called name, and their
 * records; the number found, or negative. kill ends a process: 0 or negative. */
int hal_system_get_pid(const char *name, int32_t *pids, int32_t max);
int hal_get_process_info_by_name(const char *name, bi_process_info_t *ps, int32_t max);
int hal_system_kill_pid(int32_t pid);

/* SPI transfers on a device node (the FPGA's spi_fpga device): write sends
 * len bytes, read clocks in len bytes (sending zeros), write_read is full
 * duplex (the bytes received replace the bytes sent in buf). len on success,
 * negative on failure. */
int hal_spi_write(const char *dev, const void *buf, uint32_t len);
int hal_spi_read(const char *dev, void *buf, uint32_t len);
int hal_spi_write_read(const char *dev, void *buf, uint32_t len);

/* FPGA program loaders. The request of the synchronous loader: the driver id
 * and the program file's path, zeroed before filling. Both load the program
 * file and return when the FPGA is configured: 0 (sync) or non-negative
 * (temp) on success; a failed load (no file, a program the FPGA refuses, a
 * done pin that never rises) is non-zero (sync) or negative (temp). */
#define HAL_FPGA_PATH_SIZE 128
typedef struct {
    uint32_t fpga_drv_id;
    char path[HAL_FPGA_PATH_SIZE];
} hal_fpga_load_request_t;
int hal_fpga_load_program_sync(const hal_fpga_load_request_t *request);
/* A load through the driver node drv_path (the board's "/dev/fpga_load"). */
int hal_fpga_load_program_sync_temp(const char *drv_path, const char *program_path);

/* The maker's FPGA UDP library: one process-wide link to the FPGA's register
 * space over Ethernet. FPGA_UDP_Init(interface, reply_timeout_ms) opens it
 * (interface 0: the FPGA's first Ethernet link; a block call waits at most
 * reply_timeout_ms for the FPGA's answer), opening it again replaces it;
 * FPGA_UDP_Close closes it. The block calls move len bytes at a register
 * address over link 1 (the register link) and return len, or a negative
 * value when the link is not open, the FPGA refuses or does not answer.
 * fpgaSwitchGmacToUdp hands the SoC's Ethernet MAC that faces the FPGA over
 * to the UDP link; negative on failure. */
int FPGA_UDP_Init(int interface, int reply_timeout_ms);
int FPGA_UDP_Close(void);
int WriteFPGABlock(int link, uint32_t address, uint32_t len, const void *data);
int ReadFPGABlock(int link, uint32_t address, uint32_t len, void *data);
int fpgaSwitchGmacToUdp(void);

#ifdef __cplusplus
}
#endif

#endif
