/*
 * Diagnostics: the boot/update configuration record config_info and its
 * loader parseConfigInfo, and the configurable self-test.
 *
 * parseConfigInfo runs the product configuration loader, publishes the
 * board's product information as "ro.product.*" properties and fills
 * config_info from the product INI file ("/vendor/etc/product_pz25.ini" for
 * module id 8459, else "/vendor/etc/product.ini"). A string key that is
 * missing leaves its field empty (and is logged); a value longer than its
 * field is cut to fit (the cut is logged). A missing integer key reads -1.
 *
 * The self-test runs the items of test_option_table that the INI's
 * [self_test] self_test_items ("1-2-12") enables, in table order, writes one
 * "NAME:VALUE\r\n" line per item to "/sdcard/self_test_results.txt" (each
 * followed by one more newline; the file is removed first) and returns the
 * lines in a reply record:
 *   0  4  0xFFFFFFF4 (little-endian)      8  1  1 when a check failed
 *   4  2  0                               9  1  number of item ids read
 *   6  2  text length + 2, little-endian  10 n  the lines (at most 512 bytes)
 *
 * Errors: 0 or -1; messages under the tag "vexa_system_hidl_service". A
 * reply buffer too small for the record is refused with -1 (nothing written
 * to it).
 *
 * Threads: call parseConfigInfo once, before other threads read config_info;
 * a later call zeroes and refills the record in place. The record is
 * allocated on the first call and never freed. The self-test's enable flags
 * and item count are process-wide: configure and run it from one thread.
 */
#ifndef VEXASDK_SELFTEST_H
#define VEXASDK_SELFTEST_H

#include <stdint.h>

#include "vexasdk/export.h"

VEXA_EXTERN_C_BEGIN

/* The update configuration record (1092 bytes). */
typedef struct {
    char product[64];
    int32_t mod_id;
    int32_t reserved;
    int32_t mcu_updating;  /* 1 while an MCU firmware update runs */
    int32_t fpga_updating; /* 1 while an FPGA firmware update runs */
    int32_t mcu_type;      /* 1 when the INI value is negative */
    char mcu_serial[16];   /* chip family text: "gd32...", "stm32...", "n32..." */
    char mcu_fw_path[128];
    char mcu_fw_version[64];
    char mcu_uart_path[128];
    int32_t mcu_baud_rate;
    int32_t mcu_wdt_switch;
    int32_t mcu_wdt_pulse;
    int32_t mcu_wdt_startup_type;
    char mcu_sock_path[128];
    int32_t fpga_control_gpio; /* 999 when missing or below 1 */
    int32_t fpga_config_gpio;
    int32_t fpga_done_gpio;
    char fpga_drv_path[128];
    char fpga_fw_path[128];
    char fpga_fw_version[64];
    char fpga_parameter[64];
    char hex_parameter[64];
    char self_test_items[64];
    int32_t audio_num; /* 0 when below 1 */
} config_info_t;

/* The process-wide record; null until parseConfigInfo has run. */
VEXA_API extern config_info_t *config_info;

/* Allocates (once), zeroes and fills config_info. 0, or -1 when the record
 * cannot be allocated or the product information cannot be read. */
VEXA_API int32_t parseConfigInfo(void);

/* Number of self-test items. */
#define BI_SELF_TEST_ITEMS 12

/* A check: writes "NAME:VALUE\r\n" (at most len bytes, terminated) into buf;
 * 0 when it ran (whatever it found), -1 for null arguments. */
typedef int32_t (*bi_test_check_t)(const char *name, char *buf, int32_t len);

typedef struct {
    int32_t id;
    const char *name;
    bi_test_check_t check;
    uint8_t enable; /* set by parseAndConfigTestItem, never cleared */
} bi_test_option_t;

/* The twelve items, in their order: 1 "RTC-Status", 2 "ES8316", 3
 * "AP-Status", 4 "WIFI-Status", 5 "IClock-Chip", 6 "ARM-Temperature", 7
 * "Available-Memory", 8 "CPU-Usage-Rate", 9 "Resolution", 10
 * "Display-Interface-Switch", 11 "Network-Card-Phy", 12 "FPGA-Done-Status". */
VEXA_API extern bi_test_option_t test_option_table[BI_SELF_TEST_ITEMS];

/* Enables the items of config_info's self_test_items (unknown numbers are
 * ignored); the number of item ids read, or -1 when the list is not set. */
VEXA_API int32_t parseAndConfigTestItem(void);
/* Runs the enabled items; the reply length (text + 10) or -1 (null reply,
 * no items read, result file not writable, buffer too small). length is the
 * size of reply, which is zeroed first. */
VEXA_API int32_t runSelfTestAndGetResult(uint8_t *reply, uint32_t length);

/* The checks of the table. OK/Error checks: RTC chip state 0, every
 * configured codec's state (config_info's audio_num, at most 2), access
 * point and station present, clock chip state 0, eth1 listing command ran,
 * FPGA done status not negative. Measurements: CPU temperature
 * ("%.2f°C"), available memory in GiB ("%.2fG"), CPU usage ("%.2f%%"),
 * the display's mode, the video output's state ("enabled", or
 * "disenabled<TEXT>"); "Error" when they cannot be read. */
VEXA_API int32_t checkRtcState(const char *name, char *buf, int32_t len);
VEXA_API int32_t checkES8316State(const char *name, char *buf, int32_t len);
VEXA_API int32_t checkWifiApState(const char *name, char *buf, int32_t len);
VEXA_API int32_t checkWifiStaState(const char *name, char *buf, int32_t len);
VEXA_API int32_t checkIDT6965State(const char *name, char *buf, int32_t len);
VEXA_API int32_t getARMTemperature(const char *name, char *buf, int32_t len);
VEXA_API int32_t getAvailableMemory(const char *name, char *buf, int32_t len);
VEXA_API int32_t getCpuUsageStatus(const char *name, char *buf, int32_t len);
VEXA_API int32_t getARMResolution(const char *name, char *buf, int32_t len);
VEXA_API int32_t getArmHdmiStatus(const char *name, char *buf, int32_t len);
VEXA_API int32_t checktNetworkCardPhy(const char *name, char *buf, int32_t len);
VEXA_API int32_t checktFpgaDoneStatus(const char *name, char *buf, int32_t len);

/* Runs command (the caller's own text, through the shell) and copies its
 * first output line, newline included, into out (len bytes, terminated; empty
 * without output). 0, or -1 when it cannot be run. */
VEXA_API int32_t getShellRes(const char *command, char *out, int32_t len);
/* Appends line and a newline to the result file; 0 or -1. */
VEXA_API int32_t writeToFile(const char *line);

VEXA_EXTERN_C_END

#endif
