// The audio codecs, the RTC chip and the clock chip on I2C: codec enable,
// the video input source's volume, and the chips' status registers.
//
// Clients match the log texts. Several messages name another field or codec
// than the one checked ("i2c_audio_1_enable_addr" for codec 0's status
// register, for example); they are kept as the boards have always printed
// them.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "platform/hal.h"
#include "platform/log.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace {

constexpr const char *kTag = "vexa_system_bi_i2c";

bool path_usable(const char *path)
{
    return path[0] != '\0' && std::strstr(path, "UNDEF") == nullptr;
}

// A required field of the selected codec and its message per codec.
struct Required {
    uint8_t bi_i2c_audio_t::*field;
    const char *message[2];
};

#define NOT_SET(name) "%s:" name " is not set, need to set in ini file.\n"
const Required kDevice{&bi_i2c_audio_t::device_addr,
                       {NOT_SET("i2c_audio_0_device"), NOT_SET("i2c_audio_1_device")}};
const Required kDeviceSwapped{&bi_i2c_audio_t::device_addr,
                              {NOT_SET("i2c_audio_device_0"), NOT_SET("i2c_audio_device_1")}};
const Required kEnableAddr{&bi_i2c_audio_t::enable_addr,
                           {NOT_SET("i2c_audio_0_enable_addr"), NOT_SET("i2c_audio_1_enable_addr")}};
const Required kEnableAddrAs1{&bi_i2c_audio_t::enable_addr,
                              {NOT_SET("i2c_audio_1_enable_addr"), NOT_SET("i2c_audio_1_enable_addr")}};
const Required kStatusAddrAs1{&bi_i2c_audio_t::status_addr,
                              {NOT_SET("i2c_audio_1_enable_addr"), NOT_SET("i2c_audio_1_enable_addr")}};
const Required kChannelAddr{&bi_i2c_audio_t::channel_addr,
                            {NOT_SET("i2c_audio_0_channel_addr"), NOT_SET("i2c_audio_1_channel_addr")}};
const Required kVolumeAddr{&bi_i2c_audio_t::volume_addr,
                           {NOT_SET("i2c_audio_0_volume_addr"), NOT_SET("i2c_audio_1_volume_addr")}};

// Selects codec `index`. Returns false after the error line when the codec's
// path or a required field is not set. Another index is logged and gives an
// empty codec, which the operation's own check then refuses.
bool select_codec(const char *func, uint32_t index, std::initializer_list<Required> required,
                  bi_i2c_audio_t *codec)
{
    std::memset(codec, 0, sizeof *codec);
    if (index > 1) {
        VEXA_LOGE(kTag, "%s: not support index = %u\n", func, index);
        return true;
    }
    const bi_i2c_audio_t *c = bi_product ? (index == 1 ? &bi_product->audio_1 : &bi_product->audio_0)
                                         : nullptr;
    if (!c || !path_usable(c->path)) {
        VEXA_LOGE(kTag, "%s:bi_product is NULL or i2c_audio_path is not set, need to set in ini file.\n",
                  func);
        return false;
    }
    for (const Required &r : required) {
        if (c->*r.field == 0) {
            VEXA_LOGE(kTag, r.message[index], func);
            return false;
        }
    }
    *codec = *c;
    return true;
}

// Index 0 of an RTC or clock chip; see chip_state_read().
struct ChipTexts {
    const char *no_path;
    const char *no_device;
    const char *no_status;
};

// Reads the status register of chip 0 into *value. Another index is logged
// and still read, from an empty path at address 0. -1 when it fails.
int32_t chip_status(const char *func, uint32_t index, const bi_i2c_chip_t *(*chip)(),
                    const ChipTexts &texts, uint8_t *value)
{
    const char *path = "";
    uint8_t dev = 0, reg = 0;
    if (index == 0) {
        const bi_i2c_chip_t *c = bi_product ? chip() : nullptr;
        if (!c || !path_usable(c->path)) {
            VEXA_LOGE(kTag, texts.no_path, func);
            return -1;
        }
        if (c->device_addr == 0) {
            VEXA_LOGE(kTag, texts.no_device, func);
            return -1;
        }
        if (c->status_addr == 0) {
            VEXA_LOGE(kTag, texts.no_status, func);
            return -1;
        }
        path = c->path;
        dev = c->device_addr;
        reg = c->status_addr;
    } else {
        VEXA_LOGE(kTag, "%s: not support index = %u\n", func, index);
    }
    *value = 0;
    if (hal_i2c_reg_read(path, dev, reg, value) < 0) {
        VEXA_LOGE(kTag, "%s: read dev_addr: 0x%x reg_addr: 0x%x failed!\n", func, dev, reg);
        return -1;
    }
    VEXA_LOGI(kTag, "%s: reg_addr = 0x%x, reg_val = 0x%x\n", func, reg, *value);
    return 0;
}

const bi_i2c_chip_t *rtc_chip() { return &bi_product->rtc_0; }
const bi_i2c_chip_t *clock_chip() { return &bi_product->clock_0; }

} // namespace

extern "C" VEXA_API int32_t bi_i2c_reg_write(const char *path, uint8_t dev_addr, uint8_t reg_addr,
                                             uint8_t value)
{
    VEXA_LOGD(kTag, "%s: is called\n", __func__);
    return hal_i2c_reg_write(path, dev_addr, reg_addr, value);
}

extern "C" VEXA_API int32_t bi_i2c_reg_read(const char *path, uint8_t dev_addr, uint8_t reg_addr,
                                            uint8_t *out)
{
    VEXA_LOGD(kTag, "%s: is called\n", __func__);
    return hal_i2c_reg_read(path, dev_addr, reg_addr, out);
}

extern "C" VEXA_API int32_t bi_volume_to_codec_reg(int32_t volume, uint8_t *out_reg)
{
    if (volume == 1)
        volume = 2; // 1 % is as loud as 2 %
    if (static_cast<uint32_t>(volume) >= 100)
        volume = 100;
    uint8_t value = 0xff; // mute
    if (volume != 0) {
        const int a = std::abs(static_cast<int>(30.0 * std::log(volume * 0.01)));
        const unsigned attenuation = static_cast<unsigned>(a + 0.5);
        value = attenuation >= 192 ? 0xc0 : static_cast<uint8_t>(attenuation);
    }
    VEXA_LOGD(kTag, "%s:volume = 0x%x reg_value = 0x%x\n", __func__, volume, value);
    if (!out_reg) {
        VEXA_LOGE(kTag, "%s: out_reg is NULL\n", __func__);
        return -1;
    }
    *out_reg = value;
    return 0;
}

extern "C" VEXA_API int32_t bi_i2c_set_audio_enable(uint32_t index, int32_t enable)
{
    bi_i2c_audio_t c;
    if (!select_codec(__func__, index, {kDevice, kEnableAddr}, &c))
        return -1;
    const uint8_t value = enable ? c.enable : c.disable;
    VEXA_LOGD(kTag, "%s: fdev = %s, dev_addr = 0x%x, reg_addr = 0x%x, reg_val = 0x%x\n", __func__,
              c.path, c.device_addr, c.enable_addr, value);
    if (c.path[0] == '\0' || c.device_addr == 0 || c.enable_addr == 0) {
        VEXA_LOGE(kTag, "%s: invalid fdev(NULL) or dev_addr(0) or reg_addr(0) value\n", __func__);
        return -1;
    }
    return hal_i2c_reg_write(c.path, c.device_addr, c.enable_addr, value);
}

extern "C" VEXA_API int32_t bi_i2c_get_audio_enable(uint32_t index)
{
    bi_i2c_audio_t c;
    if (!select_codec(__func__, index, {kDeviceSwapped, kEnableAddrAs1}, &c))
        return -1;
    VEXA_LOGD(kTag, "%s: fdev = %s, dev_addr = 0x%x, reg_addr = 0x%x\n", __func__, c.path,
              c.device_addr, c.enable_addr);
    if (c.path[0] == '\0' || c.device_addr == 0 || c.enable_addr == 0) {
        VEXA_LOGE(kTag, "%s: invalid fdev(NULL) or dev_addr(0) or reg_addr(0) value\n", __func__);
        return -1;
    }
    uint8_t value = 0xff;
    const int ret = hal_i2c_reg_read(c.path, c.device_addr, c.enable_addr, &value);
    if (ret < 0) {
        VEXA_LOGE(kTag, "%s: hal_i2c_reg_read failed, ret = %d\n", __func__, ret);
        return -1;
    }
    VEXA_LOGD(kTag, "%s: reg_val = 0x%x\n", __func__, value);
    // Both codecs are compared with codec 0's enable value.
    return value == bi_product->audio_0.enable ? 1 : 0;
}

extern "C" VEXA_API int32_t bi_i2c_set_video_inputsrc_volume(uint32_t index, int32_t volume)
{
    bi_i2c_audio_t c;
    if (!select_codec(__func__, index, {kDevice, kChannelAddr, kVolumeAddr}, &c))
        return -1;
    VEXA_LOGD(kTag, "%s: fdev = %s, dev_addr = 0x%x, gain_addr = 0x%x, volume_addr = 0x%x\n",
              __func__, c.path, c.device_addr, c.channel_addr, c.volume_addr);
    if (c.path[0] == '\0' || c.device_addr == 0 || c.channel_addr == 0 || c.volume_addr == 0) {
        VEXA_LOGE(kTag,
                  "%s: invalid fdev(NULL) or dev_addr(0) or gain_addr(0) or volume_addr(0) value\n",
                  __func__);
        return -1;
    }
    uint8_t value = 0;
    bi_volume_to_codec_reg(volume, &value);
    uint8_t gain = 0;
    if (hal_i2c_reg_read(c.path, c.device_addr, c.channel_addr, &gain) < 0) {
        VEXA_LOGE(kTag, "%s : hal_i2c_reg_read failed!\n", __func__);
        return -1;
    }
    VEXA_LOGD(kTag, "%s : reg_val = 0x%x\n", __func__, gain);
    gain |= 0x04;
    VEXA_LOGD(kTag, "%s : reg_val_after = 0x%x\n", __func__, gain);
    // The boards' message has a %d that was never given a value; the failed
    // write's result fills it here.
    int ret = hal_i2c_reg_write(c.path, c.device_addr, c.channel_addr, gain);
    if (ret < 0) {
        VEXA_LOGE(kTag, "%s %d: hal_i2c_reg_write failed!\n", __func__, ret);
        return -1;
    }
    VEXA_LOGD(kTag, "volume = 0x%x value = 0x%02x\n", volume, value);
    ret = hal_i2c_reg_write(c.path, c.device_addr, c.volume_addr, value);
    if (ret < 0) {
        VEXA_LOGE(kTag, "%s %d: hal_i2c_reg_write failed!\n", __func__, ret);
        return -1;
    }
    return ret;
}

extern "C" VEXA_API int32_t bi_i2c_get_video_inputsrc_volume(uint32_t index)
{
    bi_i2c_audio_t c;
    if (!select_codec(__func__, index, {kDeviceSwapped, kChannelAddr, kVolumeAddr}, &c))
        return -1;
    VEXA_LOGD(kTag, "%s: fdev = %s, dev_addr = 0x%x, reg_addr = 0x%x, volume_addr = 0x%x\n",
              __func__, c.path, c.device_addr, c.channel_addr, c.volume_addr);
    if (c.path[0] == '\0' || c.device_addr == 0 || c.channel_addr == 0 || c.volume_addr == 0) {
        VEXA_LOGE(kTag,
                  "%s: invalid fdev(NULL) or dev_addr(0) or reg_addr(0) or volume_addr(0) value\n",
                  __func__);
        return -1;
    }
    uint8_t value = 0;
    const int ret = hal_i2c_reg_read(c.path, c.device_addr, c.volume_addr, &value);
    if (ret < 0) {
        VEXA_LOGE(kTag, "%s: hal_i2c_reg_read failed, ret = %d\n", __func__, ret);
        return -1;
    }
    VEXA_LOGD(kTag, "%s: volume = 0x%x\n", __func__, value);
    return value;
}

extern "C" VEXA_API int32_t bi_i2c_get_audio_state(uint32_t index)
{
    bi_i2c_audio_t c;
    if (!select_codec(__func__, index, {kDeviceSwapped, kStatusAddrAs1}, &c))
        return -1;
    VEXA_LOGD(kTag, "%s: path = %s, dev_addr = 0x%x, reg_addr = 0x%x\n", __func__, c.path,
              c.device_addr, c.status_addr);
    if (c.path[0] == '\0' || c.device_addr == 0 || c.status_addr == 0) {
        VEXA_LOGE(kTag, "%s: invalid path(NULL) or dev_addr(0) or reg_addr(0) value\n", __func__);
        return -1;
    }
    uint8_t value = 0;
    const int ret = hal_i2c_reg_read(c.path, c.device_addr, c.status_addr, &value);
    if (ret < 0) {
        VEXA_LOGE(kTag, "%s: hal_i2c_reg_read failed, ret = %d\n", __func__, ret);
        return -1;
    }
    const int bit4 = (value >> 4) & 1, bit5 = (value >> 5) & 1;
    VEXA_LOGD(kTag, "%s: reg_val = 0x%x\n", __func__, value);
    VEXA_LOGD(kTag, "%s: bit_4 = %d, bit_5 = %d\n", __func__, bit4, bit5);
    if (bit4 == 0 && bit5 == 1)
        return 0;
    VEXA_LOGE(kTag, "%s:audio_index is %d, test failed!\n", __func__, static_cast<int>(index));
    return -1;
}

extern "C" VEXA_API int32_t bi_i2c_get_rtc_state(uint32_t index)
{
    static const ChipTexts texts{
        "%s:bi_product is NULL or i2c_rtc_0_path is not set, need to set in ini file.\n",
        NOT_SET("i2c_rtc_0_device"), NOT_SET("i2c_rtc_0_status_reg_addr")};
    uint8_t value = 0;
    if (chip_status(__func__, index, rtc_chip, texts, &value) < 0)
        return -1;
    return (value & 0x80) ? 1 : 0;
}

extern "C" VEXA_API int32_t bi_i2c_get_clock_chip_state(uint32_t index)
{
    static const ChipTexts texts{
        "%s:bi_product is NULL or i2c_clock_0_path is not set, need to set in ini file.\n",
        NOT_SET("i2c_clock_0_device"), NOT_SET("i2c_clock_0_status_reg_addr")};
    uint8_t value = 0;
    if (chip_status(__func__, index, clock_chip, texts, &value) < 0)
        return -1;
    return value == 0x81 ? 0 : -1;
}
