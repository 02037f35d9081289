// RTC alarms and the kernel watchdog: the device paths come from the product
// record, the work is the platform's.
#include <cstring>

#include "platform/hal.h"
#include "platform/log.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace {

constexpr const char *kRtcTag = "vexa_system_bi_rtc";
constexpr const char *kWdtTag = "vexa_system_bi_watchdog";

// The RTC node of the record, or null (after the error line) when there is
// none. The set-time operations log the path at error priority, as they
// always have.
const char *rtc_device(const char *func, int priority)
{
    const char *path = bi_product ? bi_product->rtc_device.path : "";
    if (!bi_product || path[0] == '\0' || std::strstr(path, "UNDEF") != nullptr) {
        VEXA_LOGE(kRtcTag, "<%s>, devices not found\n", func);
        return nullptr;
    }
    __android_log_print(priority, kRtcTag, "<%s>, %s\n", func, path);
    return path;
}

// The context bi_watchdog_feed() keeps.
bi_watchdog_t g_feed_context;
bool g_feed_ready = false;

} // namespace

extern "C" VEXA_API int32_t bi_rtc_set_boot_enable(int32_t enable)
{
    const char *dev = rtc_device(__func__, ANDROID_LOG_DEBUG);
    return dev ? hal_rtc_set_alarm1_enable(dev, enable) : -1;
}

extern "C" VEXA_API int32_t bi_rtc_set_wake_enable(int32_t enable)
{
    const char *dev = rtc_device(__func__, ANDROID_LOG_DEBUG);
    return dev ? hal_rtc_set_alarm2_enable(dev, enable) : -1;
}

extern "C" VEXA_API int32_t bi_rtc_set_boot_time(const struct rtc_time *time)
{
    const char *dev = rtc_device(__func__, ANDROID_LOG_ERROR);
    return dev ? hal_rtc_set_boot_time(dev, time) : -1;
}

extern "C" VEXA_API int32_t bi_rtc_set_wake_time(const struct rtc_time *time)
{
    const char *dev = rtc_device(__func__, ANDROID_LOG_ERROR);
    return dev ? hal_rtc_set_wake_time(dev, time) : -1;
}

extern "C" VEXA_API int32_t bi_rtc_get_boot_time(struct rtc_time *time)
{
    const char *dev = rtc_device(__func__, ANDROID_LOG_DEBUG);
    return dev ? hal_rtc_get_boot_time(dev, time) : -1;
}

extern "C" VEXA_API int32_t bi_rtc_get_wake_time(struct rtc_time *time)
{
    const char *dev = rtc_device(__func__, ANDROID_LOG_DEBUG);
    return dev ? hal_rtc_get_wake_time(dev, time) : -1;
}

extern "C" VEXA_API void bi_watchdog_parse(bi_watchdog_t *wdt)
{
    if (!bi_product) {
        VEXA_LOGD(kWdtTag, "%s bi_product is NULL\n", __func__);
        return;
    }
    if (!wdt)
        return;
    const auto &w = bi_product->watchdog;
    // Only an empty value selects the default: a missing key reads "UNDEF",
    // which is used as it stands (and then fails at the device).
    if (w.wdt_dev[0] != '\0') {
        std::memcpy(wdt->dev, w.wdt_dev, sizeof wdt->dev);
        wdt->dev[sizeof wdt->dev - 1] = '\0';
    } else {
        std::strcpy(wdt->dev, "/dev/watchdog");
        VEXA_LOGD(kWdtTag, "%s wdt_dev not found, use default\n", __func__);
    }
    wdt->timeout = w.wdt_timeout;
    if (wdt->timeout >= 61) {
        wdt->timeout = 10;
        VEXA_LOGD(kWdtTag, "%s invalid wdt_timeout in ini file, use default:10\n", __func__);
    }
    wdt->interval = w.wdt_interval;
    if (wdt->interval >= 61) {
        wdt->interval = 2;
        VEXA_LOGD(kWdtTag, "%s invalid wdt_interval in ini file, use default:2\n", __func__);
    }
}

extern "C" VEXA_API int32_t bi_watchdog_open(bi_watchdog_t *wdt, uint32_t timeout)
{
    VEXA_LOGD(kWdtTag, "%s is called\n", __func__);
    return hal_watchdog_open(wdt, timeout);
}

extern "C" VEXA_API int32_t bi_watchdog_feed_loop(bi_watchdog_t *wdt, uint32_t count)
{
    VEXA_LOGD(kWdtTag, "%s is called\n", __func__);
    return hal_watchdog_feed_loop(wdt, count);
}

extern "C" VEXA_API int32_t bi_watchdog_test(bi_watchdog_t *wdt, uint32_t timeout, uint32_t feeds)
{
    VEXA_LOGD(kWdtTag, "%s is called\n", __func__);
    return hal_watchdog_test(wdt, timeout, feeds);
}

extern "C" VEXA_API int32_t bi_watchdog_close(const char *dev)
{
    VEXA_LOGD(kWdtTag, "%s is called, wdt=%s\n", __func__, dev ? dev : "(null)");
    return hal_watchdog_close(dev);
}

extern "C" VEXA_API int32_t bi_watchdog_feed(void)
{
    if (!g_feed_ready) {
        std::memset(&g_feed_context, 0, sizeof g_feed_context);
        g_feed_context.fd = -1;
        bi_watchdog_parse(&g_feed_context);
        g_feed_ready = true;
    }
    return hal_watchdog_feed(&g_feed_context, g_feed_context.timeout);
}
