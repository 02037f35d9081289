// Process lookup and termination, through the platform.
#include "platform/hal.h"
#include "platform/log.h"
#include "vexasdk/peripherals.h"

namespace {
constexpr const char *kTag = "vexa_system_bi_kill_process";
}

extern "C" VEXA_API int32_t bi_kill_get_process_num(const char *name, int32_t *pids, int32_t max)
{
    if (!name) {
        VEXA_LOGE(kTag, "name is NULL");
        return -1;
    }
    return hal_system_get_pid(name, pids, max);
}

extern "C" VEXA_API int32_t bi_get_process_info_by_name(const char *name, bi_process_info_t *ps,
                                                        int32_t max)
{
    if (!name) {
        VEXA_LOGE(kTag, "name is NULL");
        return -1;
    }
    if (!ps) {
        VEXA_LOGE(kTag, "m_ps is NULL");
        return -1;
    }
    return hal_get_process_info_by_name(name, ps, max);
}

extern "C" VEXA_API int32_t bi_kill_process_num(int32_t pid)
{
    return hal_system_kill_pid(pid);
}
