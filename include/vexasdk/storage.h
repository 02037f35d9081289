/*
 * Persistent storage: raw named partitions and vendor storage, the U-Boot
 * environment, rescue backup and restore, upgrade flags and factory reset.
 */
#ifndef VEXASDK_STORAGE_H
#define VEXASDK_STORAGE_H

#include <stdint.h>
#ifdef VEXASDK_UBOOTENV_SHORT_NAMES
#include <pthread.h>
#endif

#include "vexasdk/export.h"

VEXA_EXTERN_C_BEGIN

/* ---- Block partitions and vendor storage ---- */

/*
 * The named raw partitions come from the product record: "defined" (EDID
 * data and display parameters) from hdmi_edid_path, the screen parameters
 * from fpga_parameter, the FPGA program from fpga_program_path.
 *
 * Errors: the HAL's result is returned as it is (0 or more on success,
 * negative on failure); a check failure (no record, a path that is empty,
 * "UNDEF" or missing, a null argument) returns -1. Messages go to the log
 * under "vexa_system_bi_block".
 *
 * Threads: no lock is taken; callers serialise access to one partition.
 */

/* Read or write len bytes at a byte offset of the named partition. */
VEXA_API int32_t bi_block_read_defined(uint32_t offset, void *buf, uint32_t len);
VEXA_API int32_t bi_block_write_defined(uint32_t offset, const void *buf, uint32_t len);
VEXA_API int32_t bi_block_read_screen(uint32_t offset, void *buf, uint32_t len);
VEXA_API int32_t bi_block_write_screen(uint32_t offset, const void *buf, uint32_t len);
/* Also prints its own name on standard output. */
VEXA_API int32_t bi_block_read_fpga_program(uint32_t offset, void *buf, uint32_t len);
VEXA_API int32_t bi_block_write_fpga_program(uint32_t offset, const void *buf, uint32_t len);

/* Any partition or file, without an existence check. */
VEXA_API int32_t bi_block_read_data(const char *path, uint32_t offset, void *buf, uint32_t len);
VEXA_API int32_t bi_block_write_data(const char *path, uint32_t offset, const void *buf,
                                     uint32_t len);

/* A numbered vendor-storage item; len (the buffer's size in bytes) and flags
 * go to the HAL unchanged. The buffer is logged as text, at most len bytes. */
VEXA_API int32_t bi_block_read_vendor_storage(int32_t item, void *buf, uint32_t len,
                                              uint32_t flags);
VEXA_API int32_t bi_block_write_vendor_storage(int32_t item, const void *buf, uint32_t len,
                                               uint32_t flags);

/* Runs badblocks over the device into "/sdcard/block_test_result.txt": 0 when
 * the result file is empty or missing, -1 when it lists bad blocks, when the
 * command cannot run, or when the device is not a plain absolute path (see
 * the file utilities in vexasdk/product_config.h) or does not fit the
 * 512-byte command; nothing is run then. */
VEXA_API int32_t bi_block_check(const char *device);

/* ---- end of block partitions and vendor storage ---- */

/* ---- U-Boot environment ---- */

/*
 * The U-Boot environment store over one module-wide store; the same store as
 * the C++ class Ubootenv (vexasdk/Ubootenv.h), which documents the partition,
 * its rules and how a save survives a power cut. Variables are named with the
 * prefix "ubootenv.var." (the partition stores them without it). These
 * functions print their messages on standard output, not to the system log.
 *
 * The store's lower operations and its state are exported under their short
 * names as well (init, save, get_value, mEnvData, ...: see the end of this
 * section). Names that short easily clash with a program's own, so they are
 * declared only when VEXASDK_UBOOTENV_SHORT_NAMES is defined before this
 * header is included.
 *
 * Errors: ubootenv_init returns 0, -2 (no device or no copy could be read) or
 * -3 (MEMGETINFO failed); ubootenv_update_value returns 0 (unchanged or
 * saved), -1 (not initialised, or a name holding '='), -2 (not a variable)
 * or the last save result
 * (-1 open, -2 erase, -3 write or flush, -4 MEMGETINFO, -5 memory, -6
 * read-back, -7 seek failed).
 *
 * Several writers: an update takes the lock every writer of the partition
 * takes (flock on the device, in any process) and starts from the partition
 * as the others left it, so no writer's update is saved over (see
 * Ubootenv.h, "Several writers").
 *
 * Threads: a mutex (mEnvLock) guards ubootenv_update_value,
 * ubootenv_get_value and ubootenv_reinit. Call ubootenv_init and
 * ubootenv_destroy while no other thread uses the store; the short-named
 * operations take no lock. A returned value points into the store: it stays
 * valid until ubootenv_reinit or ubootenv_destroy, and its text changes in
 * place when the same variable is updated.
 */

/* One variable of an environment store; entries keep the partition's order. */
typedef struct ubootenv_attribute {
    struct ubootenv_attribute *next; /* null at the end of the list */
    char key[256];
    char value[4096];
} ubootenv_attribute;

/* "ubootenv.var.": the prefix of every variable name. */
VEXA_API extern const char *const PROFIX_UBOOTENV_VAR;

/* Picks the environment device and reads it; 0, -2 or -3. */
VEXA_API int32_t ubootenv_init(void);
/* Frees the image and every entry; the store is uninitialised afterwards. */
VEXA_API void ubootenv_destroy(void);
/* Sets the prefixed variable name to value and writes both copies. */
VEXA_API int32_t ubootenv_update_value(const char *name, const char *value);
/* The value of the prefixed variable name, or null (owned by the store). */
VEXA_API const char *ubootenv_get_value(const char *name);
/* Prints every entry on standard output. */
VEXA_API void ubootenv_print_values(void);
/* Writes every entry to fd as "[ubootenv] key: [K], value: [V]\n"; returns
 * the last write's result. */
VEXA_API int32_t ubootenv_dump(int32_t fd);
/* Frees everything and reads the partition again; 0. */
VEXA_API int32_t ubootenv_reinit(void);

#ifdef VEXASDK_UBOOTENV_SHORT_NAMES
/* The module-wide store's state, as Ubootenv's members of the same names. */
VEXA_API extern char mEnvPartitionName[32];     /* device path, "" when none */
VEXA_API extern uint32_t mEnvPartitionSize;     /* image size S */
VEXA_API extern uint32_t mEnvSize;              /* data size, S - 4 */
VEXA_API extern uint8_t *mEnvData;              /* the image (S bytes), owned */
VEXA_API extern ubootenv_attribute mEnvAttrHeader; /* first entry */
VEXA_API extern pthread_mutex_t mEnvLock;
VEXA_API extern uint8_t mEnvInitDone;           /* 1 once a read succeeded */

/* The lower operations, as the Ubootenv members of the same meaning. */
/* init(): picks the device and reads it (without clearing the path first,
 * unlike ubootenv_init); 0, -2 or -3. */
VEXA_API int32_t init(void);
/* 1 for a name that begins with "ubootenv.var." and is longer, else 0. */
VEXA_API int32_t is_env(const char *name);
/* The value of key (without prefix), or null when absent or not initialised. */
VEXA_API const char *get_value(const char *key);
/* Sets key (without prefix): 2 replaced, 1 created (create non-zero), 0
 * absent and not created. Takes no lock and writes nothing. */
VEXA_API int32_t set_value(const char *key, const char *value, int32_t create);
/* Writes both copies from the entries; the save results above. */
VEXA_API int32_t save(void);
/* Reads the partition: 0; -1 open failed; -2 out of memory; -3 second copy
 * has a bad CRC. */
VEXA_API int32_t read_partition_data(void);
/* Prints the property count (always 0) and marks the store initialised; 0. */
VEXA_API int32_t property_load(void);
/* Rebuilds the entries from the image's data area. */
VEXA_API void parse_attribute(void);
/* Rebuilds the image's data area from the entries. */
VEXA_API void format_attribute(void);
#endif

/* ---- end of U-Boot environment ---- */

/* ---- Rescue backup and restore ---- */

/*
 * The reserve partition "/dev/block/mmcblk2p22", mounted on "/Reserve0",
 * keeps a rescue copy of the settings ("/Reserve0/RescueParty"), a preset
 * program directory ("/Reserve0/perProgram"), copies of caller-chosen
 * directories, and the flag file "/Reserve0/flag.hex":
 *   byte 0      backup state: 0x55 while a backup is written, 0xAA once done
 *   byte 1      recover tab (restore request); 1 and 2 are answered once
 *   byte 2      restore counter (8-bit, wraps)
 *   bytes 3-34  backup time: seconds since 1970 as decimal text, NUL-padded
 *   byte 35     restore-screen tab
 * Each call mounts the partition (most retry once) and releases it before
 * returning. The library never changes the caller's working directory: where
 * the backup "changes into" a directory it checks that it could.
 *
 * Errors: as listed per function; messages go to the log under the tag
 * "vexa_system_bi_rescue". A caller's directory path that is not a plain
 * absolute path (it starts with '-', is relative, has a ".." component, names
 * "/" itself or holds shell metacharacters) is refused with -1 and an error
 * line before anything is mounted, removed or copied.
 *
 * Threads: only bi_rescue_get_backup_time takes a lock. Do not run two of the
 * others at once: they share the mount point.
 */

/* Writes a new settings backup and stamps the time; 0, -1, or the mount error. */
VEXA_API int32_t bi_rescue_backup_data(void);
/* Applies the settings backup, copies the FPGA register data to the screen
 * partition, counts the restore, clears the recover tab and restarts the
 * board; 0 when the restart did not happen at once, -1, or the mount error. */
VEXA_API int32_t bi_rescue_restore_data(void);
/* Copies ".../HWFPGAConfig/fpgaRegData.hex" (at most 1 MiB; larger files are
 * refused) to offset 0 of "/dev/block/by-name/screen"; 0 or -1. */
VEXA_API int32_t bi_rescue_save_fpga_parameter_to_emmc(void);
/* Flag byte 0 (0x55 or 0xAA after a backup), -1, or the mount error. */
VEXA_API int32_t bi_rescue_get_data_status(void);
/* Copies the 32-byte backup-time field into buf (len at least 32; the text is
 * always NUL-terminated within the buffer); 0, -1 bad buffer, -2 read failed. */
VEXA_API int32_t bi_rescue_get_backup_time(char *buf, int32_t len);
/* Flag byte 1; a value of 1 or 2 is reset to 0 once read. -1 on failure. */
VEXA_API int32_t bi_rescue_get_recover_tab(void);
/* Flag byte 2, or -1. */
VEXA_API int32_t bi_rescue_get_recover_num(void);
/* Flag byte 35, or -1. */
VEXA_API int32_t bi_rescue_get_restore_screen_tab(void);
/* Store the low byte of value in flag byte 1 / 35; 0, -1 write failed, -2
 * unmount failed, or the mount error. */
VEXA_API int32_t bi_rescue_set_recover_tab(uint32_t value);
VEXA_API int32_t bi_rescue_set_restore_screen_tab(uint32_t value);
/* Replaces "/Reserve0/perProgram" with a copy of src; the unmount's result,
 * -1 old copy cannot be removed (or src unsafe), -2 src null or missing. */
VEXA_API int32_t bi_rescue_save_prestore_program(const char *src);
/* Copies "/Reserve0/perProgram" into dst (created when missing); 0 or -1. */
VEXA_API int32_t bi_rescue_recover_prestore_program(const char *dst);
/* Copies each directory of paths (count entries, each shorter than 128
 * characters) to "/Reserve0/RescueParty" + path; 0 or -1. Mounts nothing: the
 * reserve partition must be mounted already. */
VEXA_API int32_t bi_rescue_backup_custom_data(const char **paths, int32_t count);
/* Copies each "/Reserve0/RescueParty" + path back to path, stopping at the
 * first path without a backup (-1; earlier ones stay restored); 0 or -1. */
VEXA_API int32_t bi_rescue_restore_custom_data(const char **paths, int32_t count);

/* ---- end of rescue backup and restore ---- */

/* ---- Upgrade flags and factory reset ---- */

/*
 * Marks for the next boot and the update service. Messages go to the log
 * under the tag "vexa_system_bi_misc".
 *
 * Errors: as listed per function. Threads: no shared state beyond the files
 * and properties they write; no locking.
 */

/* Writes the recovery command file "/cache/recovery/command" (--wipe_cache,
 * --wipe_data, --reason=WipeAllFlash; 47 bytes), then runs
 * "/system/bin/reboot recovery". Mode 1 (screen backup) is not supported and
 * is logged. 0; -1 command file cannot be opened; -2 write failed. */
VEXA_API int32_t bi_restore_factory_setting(uint32_t mode);
/* Non-zero: "persist.upgrade.flag" = "demote" and "persist.upgrade.version" =
 * "ro.build.version.incremental" without a leading v/V (-1 when the version
 * reads empty). Zero: "persist.upgrade.flag" = "false". */
VEXA_API int32_t bi_set_system_downgrade_flag(uint32_t flag);
/* 1 when "persist.upgrade.flag" is exactly "demote", 0 otherwise, -1 when it
 * reads empty. */
VEXA_API int32_t bi_get_system_downgrade_flag(void);
/* Removes the three picture-quality data files under "/mnt/vendor/param/pq";
 * 0 when all were removed, -1 when any removal failed. */
VEXA_API int32_t bi_reset_ssmdata(void);
/* Logs and returns 0; removes nothing. */
VEXA_API int32_t bi_demote_clean_files(void);
/* 1 for 1920x1080, 3840x2160 and 1280x720 at 60 Hz, else 0. */
VEXA_API int32_t bi_get_res_beable_hdr(uint32_t width, uint32_t height, uint32_t rate);

/* ---- end of upgrade flags and factory reset ---- */

VEXA_EXTERN_C_END

#endif
