// Mounted file systems and their usage, from the platform's df().
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/hal.h"
#include "platform/log.h"
#include "vexasdk/peripherals.h"

namespace {

constexpr const char *kTag = "vexa_system_bi_info";

// Frees one node of df()'s list and its texts.
struct NodeFree {
    void operator()(hal_filesystem_info *node) const
    {
        std::free(node->device);
        std::free(node->mount_point);
        std::free(node->type);
        std::free(node->options);
        std::free(node);
    }
};
using Node = std::unique_ptr<hal_filesystem_info, NodeFree>;

// Frees a whole list.
void free_list(hal_filesystem_info *head)
{
    while (head) {
        Node node(head);
        head = head->next;
    }
}

void copy_text(char (&dst)[128], const char *src)
{
    std::strncpy(dst, src ? src : "", sizeof dst - 1);
    dst[sizeof dst - 1] = '\0';
}

void log_entry(const bi_mnt_info_t &e)
{
    VEXA_LOGD(kTag, "Filesystem Information:\n");
    VEXA_LOGD(kTag, "  Device Path: %s\n", e.device);
    VEXA_LOGD(kTag, "  Mount Point: %s\n", e.mount_point);
    VEXA_LOGD(kTag, "  Filesystem Type: %s\n", e.type);
    VEXA_LOGD(kTag, "  Mount Options: %s\n", e.options);
    VEXA_LOGD(kTag, "  Backup Frequency (in days): %d\n", e.freq);
    VEXA_LOGD(kTag, "  fsck Check Order: %d\n", e.passno);
    VEXA_LOGD(kTag, "\nFilesystem Usage Information:\n");
    const std::pair<const char *, uint64_t> figures[] = {
        {"  Block Size: %lu bytes\n", e.bsize},
        {"  Fragment Size: %lu bytes\n", e.frsize},
        {"  Total Size (in fragments): %lu\n", e.blocks},
        {"  Free Blocks: %lu\n", e.bfree},
        {"  Available Free Blocks (for unprivileged users): %lu\n", e.bavail},
        {"  Total Inodes: %lu\n", e.files},
        {"  Free Inodes: %lu\n", e.ffree},
        {"  Available Free Inodes (for unprivileged users): %lu\n", e.favail},
        {"  Filesystem ID: %lu\n", e.fsid},
        {"  Mount Flags: %lu\n", e.flag},
        {"  Maximum Filename Length: %lu\n", e.namemax},
    };
    for (auto &[fmt, value] : figures)
        __android_log_print(ANDROID_LOG_DEBUG, kTag, fmt, static_cast<unsigned long>(value));
}

int32_t list_mounts(const char *mount_point, bi_mnt_info_t *entries)
{
    if (!entries) {
        VEXA_LOGD(kTag, "mnt_info is NULL\n");
        return -1;
    }
    hal_filesystem_info *head = df(mount_point);
    if (!head) {
        VEXA_LOGD(kTag, "c_filesystem_info is NULL\n");
        return -2;
    }
    while (head) {
        Node node(head);
        head = head->next;
        const int32_t index = node->index;
        if (index < 0 || index >= BI_MNT_INFO_MAX) {
            VEXA_LOGE(kTag, "%s: mount entry %d is out of range, skipped\n", __func__, index);
            continue;
        }
        bi_mnt_info_t &e = entries[index];
        copy_text(e.device, node->device);
        copy_text(e.mount_point, node->mount_point);
        copy_text(e.type, node->type);
        copy_text(e.options, node->options);
        e.freq = node->freq;
        e.passno = node->passno;
        e.bsize = node->bsize;
        e.frsize = node->frsize;
        e.blocks = node->blocks;
        e.bfree = node->bfree;
        e.bavail = node->bavail;
        e.files = node->files;
        e.ffree = node->ffree;
        e.favail = node->favail;
        e.fsid = node->fsid;
        e.flag = node->flag;
        e.namemax = node->namemax;
        // The single-mount listing always prints entry 0, as it always has.
        log_entry(mount_point ? entries[0] : e);
    }
    return 0;
}

} // namespace

extern "C" VEXA_API int32_t bi_info_get_all_mnt_num(int32_t *count)
{
    VEXA_LOGD(kTag, "%s> %d\n", __func__, 228);
    hal_filesystem_info *head = df(nullptr);
    if (!head) {
        VEXA_LOGD(kTag, "c_filesystem_info is NULL\n");
        return -1;
    }
    if (count)
        *count = head->index + 1;
    free_list(head);
    return 0;
}

extern "C" VEXA_API int32_t bi_info_get_special_mnt_info(const char *mount_point,
                                                         bi_mnt_info_t *entries)
{
    // A null mount point would list every mount into a one-entry array.
    if (!mount_point) {
        VEXA_LOGD(kTag, "mnt_info is NULL\n");
        return -1;
    }
    return list_mounts(mount_point, entries);
}

extern "C" VEXA_API int32_t bi_info_get_all_mnt_info(bi_mnt_info_t *entries)
{
    return list_mounts(nullptr, entries);
}
