/*
 * Product configuration: the product record and its loader, and the INI
 * accessors the loader uses.
 *
 * Every board-dependent fact (which GPIO line drives which lamp, which tty is
 * which serial port, where partitions live) comes from the product INI file,
 * read by bi_init_product_config() into the process-wide record bi_product.
 * Module id 8459 reads "/vendor/etc/product_pz25.ini", every other id
 * "/vendor/etc/product.ini".
 *
 * Errors: functions return a signed status, 0 or a value on success and -1 on
 * failure, and log under the tag "vexa_system_bi_common".
 *
 * Threads: call bi_init_product_config() once, before other threads use the
 * library; a second call zeroes and refills the record in place, so a reader
 * running at the same time can see it half filled. The record and the loaded
 * INI dictionary live until the process ends; nothing frees them.
 */
#ifndef VEXASDK_PRODUCT_CONFIG_H
#define VEXASDK_PRODUCT_CONFIG_H

#include <stdint.h>

#include "vexasdk/export.h"

VEXA_EXTERN_C_BEGIN

/* A GPIO entry. The loader sets type to 1 for every entry it reads and
 * gpio_id to the INI integer, -1 when the key is missing: judge an entry by
 * its id. The same pair holds a mode or type number for otg_mode,
 * mcu_wdt_pulse and mcu_wdt_startup_type. */
typedef struct {
    int32_t type;
    int32_t gpio_id;
} bi_gpio_entry_t;

/* A path: the INI string, "UNDEF" when the key is missing, empty when the INI
 * file could not be loaded. */
typedef struct {
    char path[256];
} bi_path_entry_t;

/* An I2C audio codec. 8-bit fields keep the low 8 bits of the INI integer, so
 * a missing key reads 0xff. */
typedef struct {
    int32_t type;
    char path[64];
    uint8_t device_addr;
    uint8_t enable_addr;
    uint8_t channel_addr;
    uint8_t volume_addr;
    uint8_t status_addr;
    uint8_t enable;
    uint8_t disable;
} bi_i2c_audio_t;

/* An I2C RTC or clock chip. */
typedef struct {
    int32_t type;
    char path[64];
    uint8_t device_addr;
    uint8_t status_addr;
} bi_i2c_chip_t;

typedef struct {
    int32_t type;
    char path[64];
    float vref;
    int32_t n;
} bi_adc_board_id_t;

typedef struct {
    int32_t type;
    char path[64];
    int32_t r1;
    int32_t r2;
} bi_adc_voltage_t;

typedef struct {
    int32_t type;
    char path[64];
    float vin;
    int32_t r1;
} bi_adc_temperature_t;

/* The product record, in the order of its fields. The INI keys "4g_reset" and
 * "4g_power" fill reset_4g and power_4g (a C name cannot start with a digit). */
typedef struct {
    int32_t mod_id;
    char product_name[64];

    bi_path_entry_t serial_485_1;
    bi_path_entry_t serial_485_2;
    bi_path_entry_t serial_232_1;
    bi_path_entry_t serial_232_2;
    bi_path_entry_t serial_hdmi_1;
    bi_path_entry_t serial_lora_1;
    bi_path_entry_t serial_ttl_1;
    bi_path_entry_t serial_ttl_2;

    struct {
        char wdt_dev[64];
        uint32_t wdt_timeout;
        uint32_t wdt_interval;
    } watchdog;

    bi_path_entry_t hdmi_edid;

    bi_path_entry_t fpga_drv;
    int32_t fpga_drv_id;
    bi_path_entry_t fpga_fw;
    bi_path_entry_t fpga_program;
    bi_path_entry_t fpga_parameter;
    bi_path_entry_t hex_parameter;

    struct {
        int32_t type;
        int32_t protocol_type;
    } fpga_protocol;

    bi_path_entry_t spi_fpga;

    bi_i2c_audio_t audio_0;
    bi_i2c_audio_t audio_1;
    bi_i2c_chip_t rtc_0;
    bi_i2c_chip_t clock_0;

    bi_path_entry_t rtc_device;

    bi_gpio_entry_t led_network;
    bi_gpio_entry_t led_sys;
    bi_gpio_entry_t led_4gwork;
    bi_gpio_entry_t led_position;
    bi_gpio_entry_t led_switch;
    bi_gpio_entry_t led_running;
    bi_gpio_entry_t led_tri_red;
    bi_gpio_entry_t led_tri_green;
    bi_gpio_entry_t led_tri_blue;
    bi_gpio_entry_t led_cloud;
    bi_gpio_entry_t simple_fan_1;
    bi_gpio_entry_t usb_select_0;
    bi_gpio_entry_t usb_select_1;
    bi_gpio_entry_t factory_tools;
    bi_gpio_entry_t interior_relay;
    bi_gpio_entry_t peripheral_relay_1;
    bi_gpio_entry_t peripheral_relay_2;
    bi_gpio_entry_t peripheral_relay_3;
    bi_gpio_entry_t peripheral_relay_4;
    bi_gpio_entry_t pc_ctrl;
    bi_gpio_entry_t sub_card_led;
    bi_gpio_entry_t headphone_power;
    bi_gpio_entry_t ops_usb;
    bi_gpio_entry_t ops_switch;
    bi_gpio_entry_t ops_on;
    bi_gpio_entry_t ops_control;
    bi_gpio_entry_t ops_detect;
    bi_gpio_entry_t otg_mode;
    bi_gpio_entry_t mcu_wdt_switch;
    bi_gpio_entry_t mcu_wdt_pulse;
    bi_gpio_entry_t mcu_wdt_startup_type;
    bi_gpio_entry_t lora_check;
    bi_gpio_entry_t reset_4g;
    bi_gpio_entry_t power_4g;
    bi_gpio_entry_t fpga_control_gpio;
    bi_gpio_entry_t fpga_config_gpio;
    bi_gpio_entry_t fpga_done_gpio;

    bi_adc_board_id_t adc_board_id;
    bi_adc_voltage_t adc_board_voltage;
    bi_adc_temperature_t adc_board_temperature;

    char usb_path[4][256];

    char screen_mode[256];
    char hdmi_in_path[4][256];
    char hdmi_out_path[4][256];

    int32_t phy_num;
    char phy_state_cmd[4][256];

    int32_t external_relay_num;
} bi_product_config_t;

/* The process-wide product record; null until bi_init_product_config() has
 * run. Owned by the library. */
VEXA_API extern bi_product_config_t *bi_product;

/* Allocates (on the first call) and fills bi_product from the product INI
 * file. Failures are logged; the record then stays null (allocation) or all
 * zero (product information unreadable). */
VEXA_API void bi_init_product_config(void);

/* Parses an INI file; returns the iniparser dictionary, or null after
 * "cannot parse file: <path>" on standard error. */
VEXA_API void *bi_common_load_ini_file(const char *path);

/* Lookups of "section:key". A null dictionary prints "ini empty " on standard
 * error and returns -1 (-1.0). A missing key returns -1 (-1.0). */
VEXA_API int32_t bi_common_ini_get_int(void *dict, const char *section, const char *key);
VEXA_API double bi_common_ini_get_double(void *dict, const char *section, const char *key);
VEXA_API int32_t bi_common_ini_get_boolean(void *dict, const char *section, const char *key);

/* The longest text bi_common_ini_get_string() writes, NUL included: the
 * largest path field of the record. */
#define BI_COMMON_INI_STRING_MAX 256

/* Copies the value, or "UNDEF" when the key is missing, into dst and returns
 * 0. dst must hold BI_COMMON_INI_STRING_MAX bytes: a longer value is cut to
 * fit and the cut is logged at error priority. A null dictionary leaves dst
 * untouched and returns -1. */
VEXA_API int32_t bi_common_ini_get_string(void *dict, const char *section, const char *key,
                                          char *dst);

/* Releases a dictionary (null is fine); returns 0. */
VEXA_API int32_t bi_common_ini_free(void *dict);

/* ---- Common file utilities ----
 *
 * Flag files at fixed offsets, file and directory copies, JSON files applied
 * as system properties, and deleting, mounting and formatting through the
 * shell. They log under the tag "vexa_system_bi_base".
 *
 * Errors: -1 for null arguments and flag files that cannot be opened (with
 * "open file error!: <system error>" on standard error). Shell commands are
 * checked only where stated. A path handed to rm, cp, chmod, chown or
 * mkfs.ext4 must be a plain absolute path: one that starts with '-', is
 * relative, has a ".." component, names "/" itself or holds shell
 * metacharacters is refused with the error line
 * "<function>: refusing path \"<path>\": <reason>" and -1, and nothing is
 * run. A command that does not fit its buffer is not run at all ("<function>:
 * command does not fit in <size> bytes: <command>").
 *
 * Threads: no locking; callers serialise use of the same files.
 */

struct cJSON;

/* Writes size bytes of data at byte offset of the file, creating it when
 * missing (the gap reads as zeros); 0 or -1. Write results are not checked. */
VEXA_API int32_t bi_base_save_flag(const char *path, uint32_t offset, uint32_t size,
                                   const void *data);
/* Reads size bytes at offset into data; 0 (a short read is not reported) or -1. */
VEXA_API int32_t bi_base_gain_flag(const char *path, uint32_t offset, uint32_t size, void *data);
/* Writes 64 zero bytes at the start of the file, creating it; 0 or -1. */
VEXA_API int32_t bi_base_init_flag(const char *path);
/* Copies src_dir/name to dst_dir/name in 128 KiB chunks. Both files stay open
 * afterwards, as they always have (a long-standing leak kept for
 * compatibility); the destination is flushed, so the copy is whole on return. */
VEXA_API void bi_base_copy_file(const char *dst_dir, const char *src_dir, const char *name);
/* Replaces dst's contents with a copy of src's ("rm -rf DST/(everything)", "mkdir -p",
 * "cp -rf src/. dst", "chmod -R 0777", "chown -R system", then sync). Runs
 * none of them when a path is refused or one command would not fit 512
 * bytes. */
VEXA_API void bi_base_copy_dir(const char *src, const char *dst);
/* 0 when the directory can be opened, else -1. */
VEXA_API int32_t bi_base_dir_check(const char *path);
/* The whole file plus a NUL in a new buffer (free() it), or null when the
 * file cannot be opened or is empty. */
VEXA_API char *bi_base_open_json(const char *path);
/* Walks a cJSON tree; returns the number of children of node (a non-positive
 * count at once). */
VEXA_API int32_t bi_base_analyze_json(const struct cJSON *node);
/* Sets the system property KEY to VALUE for every top-level string member;
 * nested members are walked but not applied. Returns the number of children. */
VEXA_API int32_t bi_base_analyze_json_pro(const struct cJSON *node);
/* Runs "rm  -rf PATH"; -1 for a null or unsafe path, else 0 whatever rm did. */
VEXA_API int32_t bi_base_delete_file(const char *path);
/* Mounts device on dir as ext4 with synchronous writes, creating dir. A dir
 * that already holds lost+found counts as mounted (0). A failed mount is
 * retried once after unmounting dir; returns the mount's (or the failed
 * unmount's) result. */
VEXA_API int32_t bi_base_mount_sub(const char *device, const char *dir);
/* Does nothing; 0. */
VEXA_API int32_t bi_base_umount_sub(const char *dir);
/* Runs "mkfs.ext4 -F DEVICE"; -1 for a null or unsafe device, else 0. */
VEXA_API int32_t bi_base_format_ext4_sub(const char *device);

/* ---- end of common file utilities ---- */

VEXA_EXTERN_C_END

#endif
