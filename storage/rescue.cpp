// Rescue backup and restore on the reserve partition.
#include <cJSON.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "platform/log.h"
#include "platform/os.h"
#include "platform/shell.h"
#include "vexasdk/product_config.h"
#include "vexasdk/storage.h"

namespace {

const char kTag[] = "vexa_system_bi_rescue";
const char kPartition[] = "/dev/block/mmcblk2p22";
const char kMountPoint[] = "/Reserve0";
const char kFlagFile[] = "/Reserve0/flag.hex";
const char kBackupDir[] = "/Reserve0/RescueParty";
const char kBackupDirNew[] = "/Reserve0/RescueParty1";
const char kPropertyFile[] = "property.json";
const char kPresetDir[] = "/Reserve0/perProgram";
const char kFpgaRegData[] = "/sdcard/vexa/lumaplay_terminal/config/HWFPGAConfig/fpgaRegData.hex";
const char kScreenPartition[] = "/dev/block/by-name/screen";

// Flag file fields: offset and length.
constexpr uint32_t kStateAt = 0;
constexpr uint32_t kRecoverTabAt = 1;
constexpr uint32_t kRecoverNumAt = 2;
constexpr uint32_t kTimeAt = 3;
constexpr uint32_t kTimeLen = 32;
constexpr uint32_t kScreenTabAt = 35;

constexpr uint8_t kBackupRunning = 0x55;
constexpr uint8_t kBackupDone = 0xAA;

constexpr size_t kCustomPathMax = 128;
constexpr size_t kFpgaDataMax = 1u << 20;
constexpr uint64_t kOneSecondUs = 1000000;

std::mutex g_time_lock;

bool exists(const char *path)
{
    return vexa::os::access(path, F_OK) == 0;
}

// The library never moves the caller's working directory: "changing into" a
// directory of the backup checks that it could be entered.
bool can_enter(const char *path)
{
    struct stat st;
    return vexa::os::stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

int mount_reserve()
{
    return bi_base_mount_sub(kPartition, kMountPoint);
}

// Mounts, and when that fails tries once more (after a pause when asked).
int mount_reserve_twice(bool pause)
{
    int rc = mount_reserve();
    if (rc != 0) {
        if (pause)
            vexa::os::sleep_us(kOneSecondUs);
        rc = mount_reserve();
    }
    return rc;
}

int unmount_reserve()
{
    return bi_base_umount_sub(kMountPoint);
}

int read_byte(uint32_t offset, uint8_t *value)
{
    return bi_base_gain_flag(kFlagFile, offset, 1, value);
}

int write_byte(uint32_t offset, uint8_t value)
{
    return bi_base_save_flag(kFlagFile, offset, 1, &value);
}

// Removes a directory through the shell; true when it is gone afterwards.
bool remove_dir(const char *path)
{
    return bi_base_delete_file(path) == 0 && !exists(path);
}

void write_property_file(const char *dir)
{
    char path[512];
    std::snprintf(path, sizeof path, "%s/%s", dir, kPropertyFile);
    VEXA_LOGI(kTag, "%s to %s\n", "bi_rescue_backup_property", path);
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> object(cJSON_CreateObject(), cJSON_Delete);
    if (!object) {
        VEXA_LOGE(kTag, "Failed to create JSON object\n");
        return;
    }
    std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_Print(object.get()), cJSON_free);
    if (!text) {
        VEXA_LOGE(kTag, "Failed to serialize JSON object\n");
        return;
    }
    FILE *f = vexa::os::fopen(path, "w");
    if (f == nullptr) {
        VEXA_LOGE(kTag, "Failed to open file %s\n", path);
        return;
    }
    if (std::fprintf(f, "%s\n", text.get()) < 0)
        VEXA_LOGE(kTag, "Failed to write to file %s\n", path);
    std::fclose(f);
}

// Checks the path list of the custom-data calls; 0 or -1 (logged).
int check_custom_paths(const char *func, const char **paths, int32_t count, int line)
{
    if (paths == nullptr) {
        VEXA_LOGE(kTag, "error: backup_string not init!\n");
        return -1;
    }
    for (int32_t i = 0; i < count; ++i) {
        if (paths[i] == nullptr || std::strlen(paths[i]) >= kCustomPathMax) {
            VEXA_LOGE(kTag, "%s, %d, patch len > %d, error!\n", func, line,
                      static_cast<int>(kCustomPathMax));
            return -1;
        }
        if (!vexa::shell_paths_safe(kTag, func, {paths[i]}))
            return -1;
    }
    return 0;
}

// "/Reserve0/RescueParty" + path, at most 128 characters with its NUL.
bool backup_target(const char *func, const char *path, char (&out)[kCustomPathMax])
{
    const int n = std::snprintf(out, sizeof out, "%s%s", kBackupDir, path);
    if (n < 0 || static_cast<size_t>(n) >= sizeof out) {
        VEXA_LOGE(kTag, "%s, %s%s is longer than %d characters, error!\n", func, kBackupDir, path,
                  static_cast<int>(kCustomPathMax - 1));
        return false;
    }
    return true;
}

// The target-name buffer of the custom-data calls: count x 128 bytes.
std::unique_ptr<char[]> name_buffer(int32_t count)
{
    const size_t n = count > 0 ? static_cast<size_t>(count) * kCustomPathMax : 1;
    std::unique_ptr<char[]> buf(new (std::nothrow) char[n]());
    if (!buf)
        VEXA_LOGE(kTag, "error: malloc failed!\n");
    return buf;
}

} // namespace

extern "C" {

VEXA_API int32_t bi_rescue_backup_data(void)
{
    if (vexa::os::umount(kMountPoint) == 0)
        vexa::os::sleep_us(kOneSecondUs);
    VEXA_LOGI(kTag, "%s, %s, %s\n", __func__, kPartition, kMountPoint);
    const int mounted = mount_reserve_twice(false);
    if (mounted != 0) {
        unmount_reserve();
        return mounted;
    }
    write_byte(kStateAt, kBackupRunning);

    int line = 0;
    if (exists(kBackupDirNew) && !remove_dir(kBackupDirNew))
        VEXA_LOGE(kTag, "%s, %d, error!\n", __func__, 172);
    if (vexa::os::mkdir(kBackupDirNew, 0777) != 0) {
        line = 220;
    } else if (!can_enter(kBackupDirNew)) {
        line = 181;
    } else {
        write_property_file(kBackupDirNew);
        if (!can_enter(kMountPoint)) {
            line = 201;
        } else if (exists(kBackupDir) && !remove_dir(kBackupDir)) {
            line = 208;
        } else if (vexa::os::rename(kBackupDirNew, kBackupDir) != 0) {
            line = 216;
        }
    }
    if (line != 0) {
        VEXA_LOGE(kTag, "%s, %d, error!\n", __func__, line);
        unmount_reserve();
        return -1;
    }

    const time_t now = std::time(nullptr);
    if (now == static_cast<time_t>(-1))
        std::printf("time error");
    char stamp[kTimeLen] = {0};
    std::snprintf(stamp, sizeof stamp, "%ld", static_cast<long>(now));
    bi_base_save_flag(kFlagFile, kTimeAt, kTimeLen, stamp);
    VEXA_LOGI(kTag, "%s, backup time %s\n", __func__, stamp);
    write_byte(kStateAt, kBackupDone);
    unmount_reserve();
    VEXA_LOGI(kTag, "return 0\n");
    return 0;
}

VEXA_API int32_t bi_rescue_save_fpga_parameter_to_emmc(void)
{
    std::unique_ptr<uint8_t[]> data(new (std::nothrow) uint8_t[kFpgaDataMax]);
    if (!data)
        return -1;
    struct stat st;
    if (vexa::os::stat(kFpgaRegData, &st) != 0) {
        VEXA_LOGE(kTag, "%s file inexistence ... \n", kFpgaRegData);
        return -1;
    }
    VEXA_LOGI(kTag, "%s 文件大小：%d\n", __func__, static_cast<int>(st.st_size));
    if (st.st_size > static_cast<off_t>(kFpgaDataMax)) {
        VEXA_LOGE(kTag, "%s: %s is larger than %zu bytes\n", __func__, kFpgaRegData, kFpgaDataMax);
        return -1;
    }
    const size_t size = static_cast<size_t>(st.st_size);
    int fd = vexa::os::open(kFpgaRegData, O_RDONLY);
    if (fd < 0) {
        VEXA_LOGE(kTag, "open %s failed\n", kFpgaRegData);
        return -1;
    }
    const ssize_t got = vexa::os::read(fd, data.get(), size);
    vexa::os::close(fd);
    if (got < 0 || static_cast<size_t>(got) != size) {
        VEXA_LOGE(kTag, "read fpga block failed \n");
        return -1;
    }
    fd = vexa::os::open(kScreenPartition, O_WRONLY);
    if (fd < 0) {
        VEXA_LOGE(kTag, "open %s failed\n", kScreenPartition);
        return -1;
    }
    const ssize_t put = vexa::os::pwrite(fd, data.get(), size, 0);
    vexa::os::close(fd);
    if (put < 0 || static_cast<size_t>(put) != size) {
        VEXA_LOGE(kTag, "write fpga block failed \n");
        return -1;
    }
    return 0;
}

VEXA_API int32_t bi_rescue_restore_data(void)
{
    const int mounted = mount_reserve_twice(false);
    if (mounted != 0) {
        unmount_reserve();
        return mounted;
    }
    if (!exists(kBackupDir)) {
        VEXA_LOGE(kTag, "%s, backup data is null\n", __func__);
        write_byte(kRecoverTabAt, 0);
        unmount_reserve();
        return -1;
    }
    if (!can_enter(kBackupDir)) {
        VEXA_LOGE(kTag, "%s, %d, error!\n", __func__, 270);
        unmount_reserve();
        return -1;
    }

    char path[512];
    std::snprintf(path, sizeof path, "%s/%s", kBackupDir, kPropertyFile);
    std::unique_ptr<char, decltype(&std::free)> text(bi_base_open_json(path), std::free);
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> tree(text ? cJSON_Parse(text.get()) : nullptr,
                                                         cJSON_Delete);
    if (!tree)
        VEXA_LOGE(kTag, "cjson error...\r\n");
    else
        bi_base_analyze_json_pro(tree.get());

    if (bi_rescue_save_fpga_parameter_to_emmc() != 0) {
        vexa::os::sleep_us(kOneSecondUs);
        bi_rescue_save_fpga_parameter_to_emmc();
    }

    uint8_t restores = 0;
    if (read_byte(kRecoverNumAt, &restores) != 0)
        VEXA_LOGE(kTag, "%s, error!\n", __func__);
    else
        write_byte(kRecoverNumAt, static_cast<uint8_t>(restores + 1));
    if (!can_enter("/"))
        VEXA_LOGE(kTag, "%s, %d, error!\n", __func__, 298);
    write_byte(kRecoverTabAt, 0);
    unmount_reserve();
    vexa::os::sync();
    vexa::os::reboot(nullptr);
    return 0;
}

VEXA_API int32_t bi_rescue_get_data_status(void)
{
    VEXA_LOGI(kTag, "%s\n", __func__);
    const int mounted = mount_reserve_twice(false);
    if (mounted != 0) {
        unmount_reserve();
        return mounted;
    }
    uint8_t state = 0;
    const int rc = read_byte(kStateAt, &state);
    unmount_reserve();
    if (rc != 0) {
        VEXA_LOGE(kTag, "%s, error!\n", __func__);
        return -1;
    }
    return state;
}

VEXA_API int32_t bi_rescue_get_backup_time(char *buf, int32_t len)
{
    std::lock_guard<std::mutex> hold(g_time_lock);
    if (buf == nullptr || len < static_cast<int32_t>(kTimeLen)) {
        VEXA_LOGE(kTag, "%s, get fail\n", __func__);
        return -1;
    }
    mount_reserve();
    const int rc = bi_base_gain_flag(kFlagFile, kTimeAt, kTimeLen, buf);
    unmount_reserve();
    if (rc != 0) {
        VEXA_LOGE(kTag, "%s, error!\n", __func__);
        return -2;
    }
    // The field is NUL-padded text; a damaged one still ends inside the buffer.
    if (len > static_cast<int32_t>(kTimeLen))
        buf[kTimeLen] = '\0';
    else
        buf[kTimeLen - 1] = '\0';
    return 0;
}

VEXA_API int32_t bi_rescue_set_recover_tab(uint32_t value)
{
    const int mounted = mount_reserve_twice(true);
    if (mounted != 0)
        return mounted;
    const int written = write_byte(kRecoverTabAt, static_cast<uint8_t>(value));
    const int unmounted = unmount_reserve();
    return written != 0 ? -1 : unmounted != 0 ? -2 : 0;
}

VEXA_API int32_t bi_rescue_set_restore_screen_tab(uint32_t value)
{
    const int mounted = mount_reserve_twice(true);
    if (mounted != 0)
        return mounted;
    const int written = write_byte(kScreenTabAt, static_cast<uint8_t>(value));
    const int unmounted = unmount_reserve();
    return written != 0 ? -1 : unmounted != 0 ? -2 : 0;
}

VEXA_API int32_t bi_rescue_get_recover_tab(void)
{
    mount_reserve();
    uint8_t tab = 0;
    const int rc = read_byte(kRecoverTabAt, &tab);
    if (rc != 0) {
        unmount_reserve();
        VEXA_LOGE(kTag, "%s, error!\n", __func__);
        return -1;
    }
    VEXA_LOGI(kTag, "%s flag: 0x%02x\n", __func__, tab);
    // A restore request is answered once.
    if (tab == 1 || tab == 2) {
        bi_rescue_set_recover_tab(0);
        VEXA_LOGI(kTag, "%s reset flag to 0x00\n", __func__);
    }
    unmount_reserve();
    return tab;
}

VEXA_API int32_t bi_rescue_get_recover_num(void)
{
    mount_reserve();
    uint8_t count = 0;
    const int rc = read_byte(kRecoverNumAt, &count);
    unmount_reserve();
    if (rc != 0) {
        VEXA_LOGE(kTag, "%s, error!\n", __func__);
        return -1;
    }
    VEXA_LOGI(kTag, "%s flag: %d\n", __func__, count);
    return count;
}

VEXA_API int32_t bi_rescue_get_restore_screen_tab(void)
{
    const int mounted = mount_reserve_twice(true);
    if (mounted != 0)
        return -1;
    uint8_t tab = 0;
    const int rc = read_byte(kScreenTabAt, &tab);
    unmount_reserve();
    if (rc != 0) {
        VEXA_LOGE(kTag, "%s, error!\n", __func__);
        return -1;
    }
    VEXA_LOGI(kTag, "%s flag: 0x%02x\n", __func__, tab);
    return tab;
}

VEXA_API int32_t bi_rescue_save_prestore_program(const char *src)
{
    if (src != nullptr && !vexa::shell_paths_safe(kTag, __func__, {src}))
        return -1;
    const int mounted = mount_reserve_twice(false);
    if (mounted != 0)
        return mounted;
    if (exists(kPresetDir) && !remove_dir(kPresetDir)) {
        VEXA_LOGE(kTag, "%s, %d, error!\n", __func__, 536);
        unmount_reserve();
        return -1;
    }
    vexa::os::mkdir(kPresetDir, 0777);
    if (src == nullptr || !exists(src)) {
        VEXA_LOGE(kTag, "%s, %d, error, %s is null!\n", __func__, 544, src ? src : "(null)");
        unmount_reserve();
        return -2;
    }
    bi_base_copy_dir(src, kPresetDir);
    return unmount_reserve();
}

VEXA_API int32_t bi_rescue_recover_prestore_program(const char *dst)
{
    if (dst == nullptr || !vexa::shell_paths_safe(kTag, __func__, {dst}))
        return -1;
    const int mounted = mount_reserve_twice(false);
    if (mounted != 0)
        return mounted;
    if (!exists(kPresetDir)) {
        VEXA_LOGE(kTag, "%s error dir is null\n", __func__);
        unmount_reserve();
        return -1;
    }
    if (!exists(dst))
        vexa::os::mkdir(dst, 0777);
    bi_base_copy_dir(kPresetDir, dst);
    unmount_reserve();
    return 0;
}

VEXA_API int32_t bi_rescue_backup_custom_data(const char **paths, int32_t count)
{
    auto names = name_buffer(count);
    if (!names)
        return -1;
    VEXA_LOGI(kTag, "%s, %s, %s buf_len=%d\n", __func__, kPartition, kMountPoint,
              count > 0 ? count * static_cast<int>(kCustomPathMax) : 0);
    if (check_custom_paths(__func__, paths, count, 647) != 0)
        return -1;
    for (int32_t i = 0; i < count; ++i) {
        char(&target)[kCustomPathMax] =
            *reinterpret_cast<char(*)[kCustomPathMax]>(names.get() + i * kCustomPathMax);
        if (!backup_target(__func__, paths[i], target))
            return -1;
        vexa::os::mkdir(target, 0777);
    }
    for (int32_t i = 0; i < count; ++i) {
        const char *target = names.get() + i * kCustomPathMax;
        bi_base_copy_dir(paths[i], target);
        VEXA_LOGI(kTag, "copy %s to %s\n", paths[i], target);
    }
    VEXA_LOGI(kTag, "return 0\n");
    return 0;
}

VEXA_API int32_t bi_rescue_restore_custom_data(const char **paths, int32_t count)
{
    auto names = name_buffer(count);
    if (!names)
        return -1;
    if (check_custom_paths(__func__, paths, count, 694) != 0)
        return -1;
    if (!exists(kBackupDir)) {
        VEXA_LOGE(kTag, "%s, backup data is null\n", __func__);
        return -1;
    }
    if (!can_enter(kBackupDir)) {
        VEXA_LOGE(kTag, "%s, %d, error!\n", __func__, 688);
        return -1;
    }
    for (int32_t i = 0; i < count; ++i) {
        char(&source)[kCustomPathMax] =
            *reinterpret_cast<char(*)[kCustomPathMax]>(names.get() + i * kCustomPathMax);
        if (!backup_target(__func__, paths[i], source))
            return -1;
        if (!exists(source)) {
            VEXA_LOGE(kTag, "Restore failed no data: %s -> %s", source, paths[i]);
            return -1;
        }
        bi_base_copy_dir(source, paths[i]);
        VEXA_LOGI(kTag, "Restore successful: %s -> %s", source, paths[i]);
    }
    vexa::os::sync();
    return 0;
}

} // extern "C"
