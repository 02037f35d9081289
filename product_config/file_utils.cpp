// Small file-system helpers shared by the library: flag files at fixed
// offsets, file and directory copies, JSON files applied as properties, and
// deleting, mounting and formatting through the shell.
#include <cJSON.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/android.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/shell.h"
#include "platform/unique.h"
#include "vexasdk/product_config.h"

namespace {

const char kTag[] = "vexa_system_bi_base";

using vexa::UniqueFile;

// Opens a flag file for update, creating it when it does not exist yet.
FILE *open_for_update(const char *path)
{
    FILE *f = vexa::os::fopen(path, "rb+");
    if (f == nullptr) {
        f = vexa::os::fopen(path, "wb+");
        if (f != nullptr)
            VEXA_LOGD(kTag, "new file\n");
    }
    if (f == nullptr)
        std::fprintf(stderr, "open file error!: %s\n", std::strerror(errno));
    return f;
}

// "dir/name" into a buffer of cap bytes; false (and an error line) when it
// does not fit: a cut path names another file.
bool format_path(char *buf, size_t cap, const char *func, const char *dir, const char *name)
{
    const int n = std::snprintf(buf, cap, "%s/%s", dir, name);
    if (n < 0 || static_cast<size_t>(n) >= cap) {
        VEXA_LOGE(kTag, "%s: %s/%s is longer than %zu bytes\n", func, dir, name, cap - 1);
        return false;
    }
    return true;
}

// Runs a command of one path that removes or formats what it names.
int32_t run_on_path(const char *func, const char *fmt, const char *path)
{
    if (path == nullptr) {
        VEXA_LOGE(kTag, "%s, dir is null\n", func);
        return -1;
    }
    char cmd[256];
    if (!vexa::shell_paths_safe(kTag, func, {path}) ||
        !vexa::shell_format(cmd, sizeof cmd, kTag, func, fmt, path))
        return -1;
    vexa::os::system(cmd);
    return 0;
}

} // namespace

extern "C" {

VEXA_API int32_t bi_base_save_flag(const char *path, uint32_t offset, uint32_t size,
                                   const void *data)
{
    if (path == nullptr || (data == nullptr && size > 0)) {
        VEXA_LOGE(kTag, "%s, dir is null\n", __func__);
        return -1;
    }
    UniqueFile f(open_for_update(path));
    if (!f)
        return -1;
    std::fseek(f.get(), static_cast<long>(offset), SEEK_SET);
    if (size > 0)
        std::fwrite(data, size, 1, f.get());
    return 0;
}

VEXA_API int32_t bi_base_gain_flag(const char *path, uint32_t offset, uint32_t size, void *data)
{
    if (path == nullptr || (data == nullptr && size > 0)) {
        VEXA_LOGE(kTag, "%s, dir is null\n", __func__);
        return -1;
    }
    UniqueFile f(vexa::os::fopen(path, "rb"));
    if (!f) {
        std::fprintf(stderr, "open file error!: %s\n", std::strerror(errno));
        return -1;
    }
    std::fseek(f.get(), static_cast<long>(offset), SEEK_SET);
    if (size > 0)
        std::fread(data, size, 1, f.get());
    return 0;
}

VEXA_API int32_t bi_base_init_flag(const char *path)
{
    if (path == nullptr) {
        VEXA_LOGE(kTag, "%s, dir is null\n", __func__);
        return -1;
    }
    UniqueFile f(open_for_update(path));
    if (!f)
        return -1;
    static const unsigned char zeros[64] = {0};
    std::fwrite(zeros, sizeof zeros, 1, f.get());
    return 0;
}

VEXA_API void bi_base_copy_file(const char *dst_dir, const char *src_dir, const char *name)
{
    if (dst_dir == nullptr || src_dir == nullptr || name == nullptr) {
        VEXA_LOGE(kTag, "%s, dir is null\n", __func__);
        return;
    }
    char src_path[512];
    char dst_path[512];
    if (!format_path(src_path, sizeof src_path, __func__, src_dir, name) ||
        !format_path(dst_path, sizeof dst_path, __func__, dst_dir, name))
        return;
    FILE *src = vexa::os::fopen(src_path, "rb");
    if (src == nullptr) {
        std::fprintf(stderr, "open file error!: %s\n", std::strerror(errno));
        return;
    }
    FILE *dst = vexa::os::fopen(dst_path, "wb");
    if (dst == nullptr) {
        std::fprintf(stderr, "open file error!: %s\n", std::strerror(errno));
        return;
    }
    constexpr size_t kChunk = 131072;
    std::unique_ptr<char[]> chunk(new char[kChunk]);
    size_t got;
    while ((got = std::fread(chunk.get(), 1, kChunk, src)) > 0) {
        size_t done = 0;
        while (done < got) {
            const size_t n = std::fwrite(chunk.get() + done, 1, got - done, dst);
            if (n == 0)
                break;
            done += n;
        }
        if (done < got)
            break;
    }
    // Both files stay open, as they always have; the destination is flushed
    // so that the copy is whole when this returns.
    std::fflush(dst);
}

VEXA_API void bi_base_copy_dir(const char *src, const char *dst)
{
    if (src == nullptr || dst == nullptr) {
        VEXA_LOGE(kTag, "%s, dir is null\n", __func__);
        return;
    }
    // Every command is made before the first runs: one that does not fit
    // stops them all, rather than leaving a half-done copy.
    char remove[512], make[512], copy[512], mode[512], owner[512];
    const char *f = __func__;
    if (!vexa::shell_paths_safe(kTag, f, {src, dst}) ||
        !vexa::shell_format(remove, sizeof remove, kTag, f, "rm -rf %s/*", dst) ||
        !vexa::shell_format(make, sizeof make, kTag, f, "mkdir -p %s", dst) ||
        !vexa::shell_format(copy, sizeof copy, kTag, f, "cp -rf %s/. %s", src, dst) ||
        !vexa::shell_format(mode, sizeof mode, kTag, f, "chmod -R 0777 %s", dst) ||
        !vexa::shell_format(owner, sizeof owner, kTag, f, "chown -R system %s", dst))
        return;
    vexa::os::system(remove);
    if (vexa::os::system(make) != 0) {
        VEXA_LOGE(kTag, "Failed to create directory: %s\n", dst);
        return;
    }
    if (vexa::os::system(copy) != 0) {
        VEXA_LOGE(kTag, "Failed to copy files from %s to %s\n", src, dst);
        return;
    }
    vexa::os::system(mode);
    vexa::os::system(owner);
    vexa::os::sync();
}

VEXA_API int32_t bi_base_dir_check(const char *path)
{
    if (path == nullptr)
        return -1;
    DIR *dir = vexa::os::opendir(path);
    if (dir == nullptr)
        return -1;
    closedir(dir);
    return 0;
}

VEXA_API char *bi_base_open_json(const char *path)
{
    UniqueFile f(path ? vexa::os::fopen(path, "rb") : nullptr);
    if (!f) {
        VEXA_LOGD(kTag, "%s Open file fail!\n", __func__);
        return nullptr;
    }
    std::fseek(f.get(), 0, SEEK_END);
    const long size = std::ftell(f.get());
    std::fseek(f.get(), 0, SEEK_SET);
    char *text = static_cast<char *>(std::malloc(size > 0 ? static_cast<size_t>(size) + 1 : 1));
    if (text == nullptr)
        return nullptr;
    const size_t got = size > 0 ? std::fread(text, 1, static_cast<size_t>(size), f.get()) : 0;
    if (got == 0) {
        VEXA_LOGD(kTag, "%s 读取文件失败!\n", __func__);
        std::free(text);
        return nullptr;
    }
    text[got] = '\0';
    return text;
}

VEXA_API int32_t bi_base_analyze_json(const cJSON *node)
{
    const int size = cJSON_GetArraySize(node);
    if (size <= 0)
        return size;
    for (const cJSON *child = node->child; child != nullptr; child = child->next) {
        if ((cJSON_IsObject(child) || cJSON_IsArray(child)) && !cJSON_IsNull(child))
            bi_base_analyze_json(child);
    }
    return size;
}

VEXA_API int32_t bi_base_analyze_json_pro(const cJSON *node)
{
    const int size = cJSON_GetArraySize(node);
    if (size <= 0)
        return size;
    // Only the top level sets properties: nested strings are walked over.
    for (const cJSON *child = node->child; child != nullptr; child = child->next) {
        if (cJSON_IsString(child) && child->string != nullptr && child->valuestring != nullptr)
            property_set(child->string, child->valuestring);
        else if (cJSON_IsObject(child) || cJSON_IsArray(child))
            bi_base_analyze_json(child);
    }
    return size;
}

VEXA_API int32_t bi_base_delete_file(const char *path)
{
    return run_on_path(__func__, "rm  -rf %s", path);
}

VEXA_API int32_t bi_base_mount_sub(const char *device, const char *dir)
{
    if (device == nullptr || dir == nullptr) {
        VEXA_LOGE(kTag, "%s, dir is null\n", __func__);
        return -1;
    }
    struct stat st;
    if (vexa::os::stat(dir, &st) != 0)
        vexa::os::mkdir(dir, 0777);
    char found[512];
    if (!format_path(found, sizeof found, __func__, dir, "lost+found"))
        return -1;
    if (vexa::os::stat(found, &st) == 0) {
        VEXA_LOGD(kTag, "%s Has been mounted\n", device);
        return 0;
    }
    if (vexa::os::mount(device, dir, "ext4", MS_SYNCHRONOUS, nullptr) == 0)
        return 0;
    const int unmounted = vexa::os::umount(dir);
    if (unmounted != 0) {
        std::fprintf(stderr, "error: %s\n", std::strerror(errno));
        return unmounted;
    }
    return vexa::os::mount(device, dir, "ext4", MS_SYNCHRONOUS, nullptr);
}

VEXA_API int32_t bi_base_umount_sub(const char *dir)
{
    return 0;
}

VEXA_API int32_t bi_base_format_ext4_sub(const char *device)
{
    return run_on_path(__func__, "mkfs.ext4 -F %s", device);
}

} // extern "C"
