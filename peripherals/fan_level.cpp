// The fan's cooling level and the fan ARM value, kept by the kernel in two
// small text files.
//
// Clients match the log texts, so they are kept as the boards have always
// printed them ("testting" included).
#include <fcntl.h>

#include <cstdio>
#include <cstdlib>

#include "platform/log.h"
#include "platform/os.h"
#include "platform/unique.h"
#include "vexasdk/peripherals.h"

namespace {

constexpr const char *kTag = "vexa_system_bi_fan";
constexpr const char *kCoolingState = "/sys/class/thermal/cooling_device0/cur_state";
constexpr const char *kFanArm = "/proc/fan_arm";
constexpr uint32_t kGearCount = 11; // gears 0..10

// Reads at most `max` bytes of path as a decimal number. Returns false (with
// *result set to the failure code) when the file cannot be opened or read.
bool read_number(const char *func, const char *path, size_t max, int32_t *value, int32_t *result)
{
    vexa::UniqueFd fd(vexa::os::open(path, O_RDONLY));
    if (!fd) {
        VEXA_LOGE(kTag, "<%s>, open %s failed\n", func, path);
        *result = -1;
        return false;
    }
    char buf[128] = {};
    const ssize_t n = vexa::os::read(fd.get(), buf, max);
    if (n < 0) {
        VEXA_LOGE(kTag, "<%s>, read %s failed, ret=%d\n", func, path, static_cast<int>(n));
        *result = -2;
        return false;
    }
    if (n == 0) {
        VEXA_LOGE(kTag, "<%s>, read %s returned EOF\n", func, path);
        *result = -2;
        return false;
    }
    *value = std::atoi(buf);
    return true;
}

} // namespace

extern "C" VEXA_API int32_t bi_fan_level_set_state(uint32_t gear)
{
    if (gear >= kGearCount) {
        VEXA_LOGE(kTag, "Invalid gear value: %d (must be 0 ~ 10)\n", static_cast<int>(gear));
        return -1;
    }
    vexa::UniqueFd fd(vexa::os::open(kCoolingState, O_RDWR));
    if (!fd) {
        VEXA_LOGE(kTag, "<%s>, open %s \n", __func__, kCoolingState);
        return -1;
    }
    char text[3];
    const int len = std::snprintf(text, sizeof text, "%d", static_cast<int>(gear));
    if (len < 0 || len >= static_cast<int>(sizeof text)) {
        VEXA_LOGE(kTag, "<%s>, snprintf failed\n", __func__);
        return -2;
    }
    const ssize_t written = vexa::os::write(fd.get(), text, static_cast<size_t>(len));
    if (written < 0) {
        VEXA_LOGE(kTag, "<%s>, write %s return %d\n", __func__, kCoolingState,
                  static_cast<int>(written));
        return -2;
    }
    return 0;
}

extern "C" VEXA_API int32_t bi_fan_level_get_state(void)
{
    int32_t gear = 0, result = 0;
    if (!read_number(__func__, kCoolingState, 2, &gear, &result))
        return result;
    if (static_cast<uint32_t>(gear) >= kGearCount) {
        VEXA_LOGE(kTag, "Invalid gear value read: %d (must be 0 ~ 10)\n", gear);
        return -2;
    }
    VEXA_LOGD(kTag, "Read gear value: %d\n", gear);
    return gear;
}

extern "C" VEXA_API int32_t bi_fan_level_get_prm(void)
{
    VEXA_LOGD(kTag, "bi_fan_level_get_prm is testting\n");
    int32_t value = 0, result = 0;
    if (!read_number(__func__, kFanArm, 127, &value, &result))
        return result;
    if (value < 0) {
        VEXA_LOGE(kTag, "Invalid gear value read: %d \n", value);
        return -2;
    }
    VEXA_LOGD(kTag, "Read gear value: %d\n", value);
    return value;
}
