// The infrared blaster and the low-power controller's infrared wake switch.
//
// Clients match the log texts; those of the wake switch have no newline.
#include <fcntl.h>

#include <cstring>
#include <string>

#include "platform/log.h"
#include "platform/os.h"
#include "platform/unique.h"
#include "vexasdk/peripherals.h"

namespace {

constexpr const char *kTag = "vexa_system_bi_infrared";
constexpr const char *kIrStatus = "/sys/class/low_power_ctrl/low_power_ctrl/status";

struct IrWrite {
    const char *path;
    const char *text;
};

// The one code the blaster sends: 68 mark and space durations in
// microseconds, each followed by "s".
constexpr const char kPattern[] =
    "892s453s50s62s50s59s51s172s53s57s55s57s52s59s53s57s55s57s52s172s53s170s51s59s55s170s53s170s"
    "52s170s55s170s53s169s52s172s53s59s50s169s53s172s53s170s53s59s52s59s53s57s52s60s52s170s53s59s"
    "52s59s53s59s50s170s55s170s51s172s53s3978s";
static_assert(sizeof kPattern - 1 == 224, "the infrared pattern is 224 bytes");

const IrWrite kIrSend[] = {
    {"/sys/class/irblaster/irblaster0/carrier_freq", "38000"},
    {"/sys/class/irblaster/irblaster0/duty_cycle", "50"},
    {"/sys/class/irblaster/irblaster0/send", kPattern},
};

} // namespace

extern "C" VEXA_API int32_t bi_infrared_write(void)
{
    for (const IrWrite &step : kIrSend) {
        vexa::UniqueFd fd(vexa::os::open(step.path, O_RDWR));
        if (!fd) {
            VEXA_LOGE(kTag, "<%s>, open %s error\n", __func__, step.path);
            return -1;
        }
        const ssize_t n = vexa::os::write(fd.get(), step.text, std::strlen(step.text));
        if (n < 0) {
            VEXA_LOGE(kTag, "<%s>, write %s error, return %d\n", __func__, step.path,
                      static_cast<int>(n));
            return -1;
        }
    }
    return 0;
}

extern "C" VEXA_API int32_t bi_set_irstatus_pz2k(int32_t disable)
{
    vexa::UniqueFd fd(vexa::os::open(kIrStatus, O_WRONLY));
    if (!fd) {
        VEXA_LOGE(kTag, "<%s> open /sys/class/low_power_ctrl/low_power_ctrl/status error", __func__);
        return -1;
    }
    const char *text = disable ? "disable" : "enable";
    (void)vexa::os::write(fd.get(), text, std::strlen(text)); // not checked, as always
    VEXA_LOGD(kTag, "<%s> set infrared status to %d", __func__, disable);
    return 0;
}

extern "C" VEXA_API int32_t bi_get_irstatus_pz2k(void)
{
    vexa::UniqueFd fd(vexa::os::open(kIrStatus, O_RDONLY));
    if (!fd) {
        VEXA_LOGE(kTag, "<%s> open /sys/class/low_power_ctrl/low_power_ctrl/status error", __func__);
        return -1;
    }
    char buf[16] = {};
    const ssize_t n = vexa::os::read(fd.get(), buf, 15);
    if (n <= 0) {
        VEXA_LOGE(kTag, "<%s> read status failed", __func__);
        return -1;
    }
    std::string status(buf, static_cast<size_t>(n));
    if (!status.empty() && status.back() == '\n')
        status.pop_back();
    if (status == "enable") {
        VEXA_LOGD(kTag, "<%s> current status: enable", __func__);
        return 0;
    }
    if (status == "disable") {
        VEXA_LOGD(kTag, "<%s> current status: disable", __func__);
        return 1;
    }
    VEXA_LOGE(kTag, "<%s> unknown status: %s", __func__, status.c_str());
    return -1;
}
