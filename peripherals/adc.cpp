// The board's ADC channels: the board id, the input voltage behind a
// resistor divider, and the temperature of an NTC thermistor.
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "platform/hal.h"
#include "platform/log.h"
#include "platform/os.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace {

constexpr const char *kTag = "vexa_system_bi_adc";

bool path_usable(const char *path)
{
    return path[0] != '\0' && std::strstr(path, "UNDEF") == nullptr;
}

// The channel's raw value; -1 when it cannot be read. False (nothing read)
// when the record or the channel's path is missing.
bool read_channel(const char *func, const char *path, const char *path_log, int32_t *raw)
{
    if (!bi_product || !path_usable(path)) {
        VEXA_LOGE(kTag, "<%s>, devices not found\n", func);
        return false;
    }
    VEXA_LOGD(kTag, path_log, path);
    *raw = -1;
    if (vexa::os::access(path, F_OK) != 0) {
        VEXA_LOGE(kTag, "<%s> the path  %s not exist!\n", func, path);
        return true;
    }
    char buf[65] = {};
    if (hal_sys_read(path, buf, 64) < 0) {
        VEXA_LOGE(kTag, "<%s> adc get error!\n", func);
        return true;
    }
    *raw = std::atoi(buf);
    VEXA_LOGI(kTag, "<%s> get board adc value:%d \n", func, *raw);
    return true;
}

// Vout = Vref x raw / (2^n - 1), in double, kept as float.
float channel_volts(float vref, int32_t n, int32_t raw)
{
    return static_cast<float>(static_cast<double>(vref) * raw / (std::ldexp(1.0, n) - 1.0));
}

} // namespace

extern "C" VEXA_API int32_t bi_adc_get_board_id(void)
{
    int32_t raw = -1;
    const char *path = bi_product ? bi_product->adc_board_id.path : "";
    if (!read_channel(__func__, path, "adc_board_id path:%s\n", &raw))
        return -1;
    return raw;
}

extern "C" VEXA_API float bi_adc_get_board_voltage(void)
{
    int32_t raw = -1;
    const char *path = bi_product ? bi_product->adc_board_voltage.path : "";
    if (!read_channel(__func__, path, "adc_board_voltage path:%s\n", &raw))
        return -1.0f;
    const float vref = bi_product->adc_board_id.vref;
    const int32_t n = bi_product->adc_board_id.n;
    const int32_t r1 = bi_product->adc_board_voltage.r1;
    const int32_t r2 = bi_product->adc_board_voltage.r2;
    if (vref < 0 || n < 0) {
        VEXA_LOGE(kTag, "%s vref:%f or n:%d error(<0)\n", __func__, vref, n);
        return -1.0f;
    }
    if (r1 < 0 || r2 < 0) {
        VEXA_LOGE(kTag, "adc_board_voltage r1 %d r2 %d \n", r1, r2);
        return -1.0f;
    }
    VEXA_LOGD(kTag, "%s vref:%f n:%d r1:%d r2:%d \n", __func__, vref, n, r1, r2);
    const float vout = channel_volts(vref, n, raw);
    const float vin =
        static_cast<float>(static_cast<double>(static_cast<float>(r1 + r2) * vout) / r2);
    VEXA_LOGI(kTag, "%s vout:%f vin:%f \n", __func__, vout, vin);
    return vin;
}

extern "C" VEXA_API float bi_adc_get_board_temperature(void)
{
    int32_t raw = -1;
    const char *path = bi_product ? bi_product->adc_board_temperature.path : "";
    if (!read_channel(__func__, path, "adc_board_temperature path:%s\n", &raw))
        return -1.0f;
    const float vref = bi_product->adc_board_id.vref;
    const int32_t n = bi_product->adc_board_id.n;
    const int32_t r1 = bi_product->adc_board_temperature.r1;
    const float vin = bi_product->adc_board_temperature.vin;
    if (vref < 0 || n < 0) {
        VEXA_LOGE(kTag, "%s vref:%f or n:%d <0\n", __func__, vref, n);
        return -1.0f;
    }
    if (r1 < 0 || vin < 0) {
        VEXA_LOGE(kTag, "adc_board_temperature r1 %d of input voltage %f <0\n", r1, vin);
        return -1.0f;
    }
    VEXA_LOGD(kTag, "%s vref:%f n:%d r1:%d vin:%f \n", __func__, vref, n, r1, vin);
    const float vout = channel_volts(vref, n, raw);
    if (vin == vout) {
        VEXA_LOGE(kTag, "%s (vin == vout) error!Maybe some resistor is short circuited\n", __func__);
        return -1.0f;
    }
    // The thermistor: 10 (in R1's unit) at 25 degrees C, beta 3380.
    const float r = r1 * vout / (vin - vout);
    const float t = static_cast<float>(
        1.0 / ((std::log(static_cast<double>(r)) - 2.302585092994046) * 0.0002958579881656805 +
               0.0033540165033415802) -
        273.15f);
    VEXA_LOGI(kTag, "%s temperature is %f\n", __func__, t);
    return t;
}
