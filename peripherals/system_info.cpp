// Product, CPU, USB, clock and memory information, and the main storage's
// nominal size.
#include <sys/sysinfo.h>

#include <cstdio>
#include <cstring>

#include "platform/hal.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/unique.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

static_assert(BI_PRODUCT_INFO_SIZE == HAL_PRODUCT_INFO_SIZE, "one product information size");

namespace {

constexpr const char *kTag = "vexa_system_bi_info";
constexpr const char *kDiskSize = "/sys/block/mmcblk2/size";

} // namespace

extern "C" VEXA_API int32_t bi_info_get_product_info(char *buf)
{
    if (!buf) {
        VEXA_LOGD(kTag, "ob_product_info is NULL\n");
        return -1;
    }
    std::memset(buf, 0, BI_PRODUCT_INFO_SIZE);
    const int ret = hal_info_get_product_info(buf);
    if (ret < 0)
        VEXA_LOGD(kTag, "%s: hal_info_get_product_info failed.\n", __func__);
    return ret;
}

extern "C" VEXA_API int32_t bi_info_set_product_info(const char *buf)
{
    return hal_info_set_product_info(buf);
}

extern "C" VEXA_API int32_t bi_info_get_usb_list(char *buf, int32_t size)
{
    return hal_info_get_usb_list(buf, size);
}

extern "C" VEXA_API int32_t bi_info_get_cpu_state(bi_cpu_state_t *state)
{
    return hal_info_get_cpu_state(state);
}

extern "C" VEXA_API int32_t bi_info_test(int32_t value)
{
    VEXA_LOGD(kTag, "vexa<%s> %d\n", __func__, 39);
    return hal_info_test(value);
}

extern "C" VEXA_API int32_t bi_info_test1(int32_t value)
{
    VEXA_LOGD(kTag, "vexa<%s> %d\n", __func__, 46);
    return hal_info_test1(value);
}

extern "C" VEXA_API int32_t bi_info_get_protocol_type(void)
{
    if (!bi_product) {
        VEXA_LOGD(kTag, "vexa_bi_product NULL!!!\n");
        return -1;
    }
    const int32_t type = bi_product->fpga_protocol.protocol_type;
    if (type == 0 || type == 1)
        return type;
    VEXA_LOGD(kTag, "vexa protocol type unclear:%d\n", type);
    return -1;
}

extern "C" VEXA_API int64_t bi_info_get_hw_clock(void)
{
    time_t t = 0;
    const long now = static_cast<long>(show_clock(&t));
    VEXA_LOGD(kTag, "time [%ld]\n", now);
    return now;
}

extern "C" VEXA_API int32_t bi_info_get_sys_info(bi_sys_info_t *rec)
{
    if (!rec) {
        VEXA_LOGD(kTag, "ob_system_info is NULL\n");
        return -1;
    }
    struct sysinfo si;
    if (vexa::os::sysinfo(&si) != 0) {
        VEXA_LOGD(kTag, "sysinfo failed\n");
        return -1;
    }
    rec->uptime = si.uptime;
    for (int i = 0; i < 3; ++i)
        rec->loads[i] = si.loads[i];
    rec->totalram = si.totalram;
    rec->freeram = si.freeram;
    rec->sharedram = si.sharedram;
    rec->bufferram = si.bufferram;
    rec->totalswap = si.totalswap;
    rec->freeswap = si.freeswap;
    rec->procs = si.procs;
    rec->totalhigh = si.totalhigh;
    rec->freehigh = si.freehigh;
    rec->mem_unit = si.mem_unit;
    // The figures are in memory units, whatever the "KB" says.
    VEXA_LOGD(kTag, "ob_system_info->uptime:%ld\n", static_cast<long>(rec->uptime));
    VEXA_LOGD(kTag, "Load Averages: [1 minute: %lu, 5 minutes: %lu, 15 minutes: %lu]\n",
              static_cast<unsigned long>(rec->loads[0]), static_cast<unsigned long>(rec->loads[1]),
              static_cast<unsigned long>(rec->loads[2]));
    VEXA_LOGD(kTag, "Total RAM: %lu KB\n", static_cast<unsigned long>(rec->totalram));
    VEXA_LOGD(kTag, "Free RAM: %lu KB\n", static_cast<unsigned long>(rec->freeram));
    VEXA_LOGD(kTag, "Shared RAM: %lu KB\n", static_cast<unsigned long>(rec->sharedram));
    VEXA_LOGD(kTag, "Buffered RAM: %lu KB\n", static_cast<unsigned long>(rec->bufferram));
    VEXA_LOGD(kTag, "Total Swap: %lu KB\n", static_cast<unsigned long>(rec->totalswap));
    VEXA_LOGD(kTag, "Free Swap: %lu KB\n", static_cast<unsigned long>(rec->freeswap));
    VEXA_LOGD(kTag, "Number of Processes: %u\n", static_cast<unsigned>(rec->procs));
    VEXA_LOGD(kTag, "Total High Memory: %lu KB\n", static_cast<unsigned long>(rec->totalhigh));
    VEXA_LOGD(kTag, "Free High Memory: %lu KB\n", static_cast<unsigned long>(rec->freehigh));
    VEXA_LOGD(kTag, "Memory Unit Size: %u bytes\n", rec->mem_unit);
    return 0;
}

extern "C" VEXA_API int32_t bi_info_read_total_disk_size(double *size)
{
    vexa::UniqueFile f(vexa::os::fopen(kDiskSize, "r"));
    if (!f) {
        VEXA_LOGE(kTag, "%s: not open file\n", __func__);
        return -1;
    }
    long sectors = 0;
    if (std::fscanf(f.get(), "%ld", &sectors) != 1) {
        VEXA_LOGE(kTag, "%s: read file error\n", __func__);
        return -1;
    }
    VEXA_LOGD(kTag, "the sector count is %ld\n", sectors);
    VEXA_LOGD(kTag, "the total bytes is %ld\n", sectors * 512);
    double gb = static_cast<double>(sectors / 2097152); // whole GiB, truncated
    VEXA_LOGD(kTag, "the : %.2f GB\n", gb);
    // The nominal capacity: the first power of two from 2 to 256 that holds it.
    for (double nominal = 2; nominal <= 256; nominal *= 2) {
        if (nominal >= gb) {
            gb = nominal;
            break;
        }
    }
    if (size)
        *size = gb;
    VEXA_LOGI(kTag, "the : %.2f GB\n", gb);
    return 0;
}
