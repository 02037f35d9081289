// Checked access to the board's named raw partitions, pass-through access to
// vendor-storage items and the bad-block check. The byte work is the HAL's.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "platform/hal.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/shell.h"
#include "vexasdk/product_config.h"
#include "vexasdk/storage.h"

namespace {
const char *const kTag = "vexa_system_bi_block";
const char *const kBadblocksResult = "/sdcard/block_test_result.txt";

// A named partition: the record field and the name the messages give it.
struct Partition {
    bi_path_entry_t bi_product_config_t::*field;
    const char *name;
};
const Partition kDefined{&bi_product_config_t::hdmi_edid, "hdmi_edid.path"};
const Partition kScreen{&bi_product_config_t::fpga_parameter, "fpga_parameter.path"};
const Partition kProgram{&bi_product_config_t::fpga_program, "fpga_program.path"};

// The partition's path, or null after the check failure was logged.
const char *partition_path(const char *func, const Partition &p)
{
    const char *path = bi_product ? (bi_product->*p.field).path : nullptr;
    if (path == nullptr || path[0] == '\0' || strstr(path, "UNDEF") != nullptr) {
        VEXA_LOGE(kTag, "%s:bi_product is NULL or %s is not set, need to check ini file.\n", func,
                  p.name);
        return nullptr;
    }
    if (vexa::os::access(path, F_OK) != 0) {
        VEXA_LOGE(kTag, "%s: %s not exist\n", func, path);
        return nullptr;
    }
    return path;
}

int32_t read_partition(const char *func, const Partition &p, uint32_t offset, void *buf,
                       uint32_t len)
{
    const char *path = partition_path(func, p);
    return path ? hal_block_read(path, offset, buf, len) : -1;
}

int32_t write_partition(const char *func, const Partition &p, uint32_t offset, const void *buf,
                        uint32_t len)
{
    const char *path = partition_path(func, p);
    return path ? hal_block_write(path, offset, buf, len) : -1;
}

// The buffer as text for the log: at most len bytes, cut at the first zero.
std::string as_text(const void *buf, uint32_t len)
{
    const char *p = static_cast<const char *>(buf);
    const void *end = memchr(p, '\0', len);
    return std::string(p, end ? static_cast<const char *>(end) - p : len);
}

struct PipeClose {
    void operator()(FILE *f) const { vexa::os::pclose(f); }
};
} // namespace

extern "C" {

VEXA_API int32_t bi_block_read_defined(uint32_t offset, void *buf, uint32_t len)
{
    return read_partition(__func__, kDefined, offset, buf, len);
}

VEXA_API int32_t bi_block_write_defined(uint32_t offset, const void *buf, uint32_t len)
{
    return write_partition(__func__, kDefined, offset, buf, len);
}

VEXA_API int32_t bi_block_read_screen(uint32_t offset, void *buf, uint32_t len)
{
    return read_partition(__func__, kScreen, offset, buf, len);
}

VEXA_API int32_t bi_block_write_screen(uint32_t offset, const void *buf, uint32_t len)
{
    return write_partition(__func__, kScreen, offset, buf, len);
}

VEXA_API int32_t bi_block_read_fpga_program(uint32_t offset, void *buf, uint32_t len)
{
    printf("%s\n", __func__);
    return read_partition(__func__, kProgram, offset, buf, len);
}

VEXA_API int32_t bi_block_write_fpga_program(uint32_t offset, const void *buf, uint32_t len)
{
    return write_partition(__func__, kProgram, offset, buf, len);
}

VEXA_API int32_t bi_block_read_data(const char *path, uint32_t offset, void *buf, uint32_t len)
{
    if (path == nullptr) {
        VEXA_LOGE(kTag, "%s name is NULL\n", __func__);
        return -1;
    }
    return hal_block_read(path, offset, buf, len);
}

VEXA_API int32_t bi_block_write_data(const char *path, uint32_t offset, const void *buf,
                                     uint32_t len)
{
    if (path == nullptr) {
        VEXA_LOGE(kTag, "%s name is NULL\n", __func__);
        return -1;
    }
    return hal_block_write(path, offset, buf, len);
}

VEXA_API int32_t bi_block_read_vendor_storage(int32_t item, void *buf, uint32_t len,
                                              uint32_t flags)
{
    if (buf == nullptr) {
        VEXA_LOGD(kTag, "info buffer is NULL\n");
        return -1;
    }
    const int32_t ret = hal_vendor_storage_read(item, buf, len, flags);
    // Logged whatever the result: a failed read shows what the buffer holds.
    VEXA_LOGD(kTag, "read vendor info num:%d, info str:%s\n", int(item), as_text(buf, len).c_str());
    if (ret < 0)
        VEXA_LOGD(kTag, "%s: read failed.\n", __func__);
    return ret;
}

VEXA_API int32_t bi_block_write_vendor_storage(int32_t item, const void *buf, uint32_t len,
                                               uint32_t flags)
{
    if (buf == nullptr) {
        VEXA_LOGD(kTag, "info buffer is NULL\n");
        return -1;
    }
    const int32_t ret = hal_vendor_storage_write(item, buf, len, flags);
    VEXA_LOGD(kTag, "write vendor info num:%d, info str:%s\n", int(item),
              as_text(buf, len).c_str());
    if (ret < 0)
        VEXA_LOGD(kTag, "%s: write failed.\n", __func__);
    return ret;
}

VEXA_API int32_t bi_block_check(const char *device)
{
    char command[512];
    if (!vexa::shell_paths_safe(kTag, __func__, {device}) ||
        !vexa::shell_format(command, sizeof command, kTag, __func__,
                            "/system/bin/badblocks -v -o /sdcard/block_test_result.txt %s", device))
        return -1;
    {
        std::unique_ptr<FILE, PipeClose> pipe(vexa::os::popen(command, "r"));
        if (!pipe) {
            VEXA_LOGE(kTag, "%s, popen %s failed\n", __func__, command);
            return -1;
        }
        // Waits for the check to finish when the pipe closes; its output is
        // not read.
    }
    // A missing result file counts as no bad blocks.
    struct stat st {};
    vexa::os::stat(kBadblocksResult, &st);
    if (st.st_size == 0) {
        VEXA_LOGI(kTag, "%s: no bad blocks found\n", __func__);
        return 0;
    }
    VEXA_LOGE(kTag, "%s: bad blocks(%s) found\n", __func__, device);
    return -1;
}

} // extern "C"
