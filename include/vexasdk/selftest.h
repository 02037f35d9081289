/*
 * Diagnostics: the boot/update configuration record config_info and its
 * loader parseConfigInfo.
 *
 * parseConfigInfo runs the product configuration loader, publishes the
 * board's product information as "ro.product.*" properties and fills
 * config_info from the product INI file ("/vendor/etc/product_pz25.ini" for
 * module id 8459, else "/vendor/etc/product.ini"). A string key that is
 * missing leaves its field empty (and is logged); a value longer than its
 * field is cut to fit (the cut is logged). A missing integer key reads -1.
 *
 * Errors: 0 or -1; messages under the tag "vexa_system_hidl_service".
 *
 * Threads: call parseConfigInfo once, before other threads read config_info;
 * a later call zeroes and refills the record in place. The record is
 * allocated on the first call and never freed.
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

VEXA_EXTERN_C_END

#endif
