// The MCU watchdog line (fed by a square wave, closed by a pulse burst) and
// the MCU's start-up status line.
#include <pthread.h>

#include <cstdio>
#include <memory>

#include "platform/hal.h"
#include "platform/log.h"
#include "platform/os.h"
#include "vexasdk/mcu.h"

namespace {

constexpr const char *kTag = "vexa_system_bi_watchdog";
constexpr uint64_t kFeedHalfPeriodUs = 500000;
constexpr uint64_t kClosePulseUs = 5000;
constexpr int kClosePulses = 5;
constexpr int kTestPulses = 30;

bool id_valid(const char *func, int32_t gpio_id)
{
    if (gpio_id >= 1)
        return true;
    VEXA_LOGD(kTag, "%s gpio_id is %d\n", func, gpio_id);
    return false;
}

// Thread entry of bi_mcu_watchdog_start_feed: owns a heap copy of the id, so
// the feeder never reads the caller's stack whatever the clock does.
void *feed_trampoline(void *arg)
{
    std::unique_ptr<int32_t> owned(static_cast<int32_t *>(arg));
    int32_t gpio_id = *owned;
    owned.reset();
    return wdtPulseThreadHandle(&gpio_id);
}

} // namespace

extern "C" {

VEXA_API int32_t bi_mcu_watchdog_open(int32_t gpio_id)
{
    VEXA_LOGD(kTag, "%s is called\n", __func__);
    if (!id_valid(__func__, gpio_id))
        return -1;
    VEXA_LOGD(kTag, "gpio_id=%d, value=%d", gpio_id, 0);
    return hal_gpio_set_value(gpio_id, 0);
}

VEXA_API int32_t bi_mcu_watchdog_close(int32_t gpio_id)
{
    VEXA_LOGD(kTag, "%s is called\n", __func__);
    if (!id_valid(__func__, gpio_id))
        return -1;
    VEXA_LOGD(kTag, "gpio_id=%d, value=%d", gpio_id, 0);
    for (int i = 0; i < kClosePulses; ++i) {
        hal_gpio_set_value(gpio_id, 1);
        vexa::os::sleep_us(kClosePulseUs);
        hal_gpio_set_value(gpio_id, 0);
        vexa::os::sleep_us(kClosePulseUs);
    }
    return hal_gpio_set_value(gpio_id, 1);
}

VEXA_API void *wdtPulseThreadHandle(void *arg)
{
    VEXA_LOGD(kTag, "%s is called\n", __func__);
    const int32_t gpio_id = arg ? *static_cast<const int32_t *>(arg) : 0;
    if (!id_valid(__func__, gpio_id))
        return nullptr;
    VEXA_LOGD(kTag, "gpio_id=%d, value=%d", gpio_id, 0);
    for (;;) {
        hal_gpio_set_value(gpio_id, 1);
        vexa::os::sleep_us(kFeedHalfPeriodUs);
        hal_gpio_set_value(gpio_id, 0);
        vexa::os::sleep_us(kFeedHalfPeriodUs);
    }
}

VEXA_API int32_t bi_mcu_watchdog_start_feed(int32_t gpio_id)
{
    VEXA_LOGD(kTag, "id=%d", gpio_id);
    if (!id_valid(__func__, gpio_id))
        return -1;
    pthread_t thread;
    int32_t *arg = new int32_t(gpio_id);
    const int rc = pthread_create(&thread, nullptr, feed_trampoline, arg);
    if (rc != 0) {
        delete arg;
        VEXA_LOGE(kTag, "Error: return code from pthread_create() for wdt is %d\n", rc);
        return -1;
    }
    // Gives the feeder time to start before returning, as callers expect.
    vexa::os::sleep_us(kFeedHalfPeriodUs);
    pthread_detach(thread);
    return 0;
}

VEXA_API int32_t bi_mcu_watchdog_start_feed_test(int32_t gpio_id)
{
    VEXA_LOGD(kTag, "%s is called\n", __func__);
    if (!id_valid(__func__, gpio_id))
        return -1;
    std::printf("gpio_id=%d, value=%d", gpio_id, 0);
    std::fflush(stdout);
    int32_t result = -1;
    for (int i = 0; i < kTestPulses; ++i) {
        hal_gpio_set_value(gpio_id, 1);
        vexa::os::sleep_us(kFeedHalfPeriodUs);
        result = hal_gpio_set_value(gpio_id, 0);
        vexa::os::sleep_us(kFeedHalfPeriodUs);
    }
    return result;
}

VEXA_API int32_t bi_mcu_check_startup_status(int32_t gpio_id)
{
    VEXA_LOGD(kTag, "%s is called\n", __func__);
    if (!id_valid(__func__, gpio_id))
        return -1;
    const int32_t value = hal_gpio_get_value(gpio_id);
    VEXA_LOGI(kTag, "gpio_id=%d, value=%d", gpio_id, value);
    return value;
}

} // extern "C"
