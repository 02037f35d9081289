// The MCU firmware version check and the update flow around the flasher.
#include <cstdio>
#include <cstring>
#include <memory>

#include "mcu/mcu_reply.h"
#include "mcu/serial_wait.h"
#include "platform/android.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/unique.h"
#include "vexasdk/mcu.h"
#include "vexasdk/selftest.h"

namespace {

constexpr const char *kTag = "vexa_system_fw_update";
constexpr const char *kVersionProperty = "persist.vexa.mcu_fw_version";
constexpr int kVersionRounds = 10;
constexpr int kIspTries = 5;
using vexa::mcu::kVersionLength;
using vexa::mcu::kVersionOffset;
constexpr int kAnswerWaitMs = 500;

// The version request, sent exactly as it stands (label 7, word 9 = 1,
// byte 28 = 3, data 00 01 00).
constexpr uint8_t kVersionRequest[35] = {
    0x55, 0xBB, 0x00, 0x00, 0x00, 0x01, 0x07, 0x00, 0x19, 0x00, 0x41, 0x01,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x01, 0x00, 0x78, 0x01,
};

using vexa::UniqueFile;

// A text of the update configuration; "" while it is not loaded.
template <size_t N> const char *configured(char (config_info_t::*field)[N])
{
    return config_info ? config_info->*field : "";
}

bool text_set(const char *text)
{
    return text && text[0] != '\0' && !std::strstr(text, "UNDEF");
}

} // namespace

extern "C" {

VEXA_API int32_t getMcuFwVersion(int32_t fd, char *buf)
{
    VEXA_LOGD(kTag, "%s: is called\n", __func__);
    if (!buf) {
        VEXA_LOGE(kTag, "%s: mcuIcVer is NULL\n", __func__);
        return -1;
    }
    VEXA_LOGD(kTag, "%s: mcu_fd = %d\n", __func__, fd);
    if (vexa::os::write(fd, kVersionRequest, sizeof(kVersionRequest)) < 0) {
        VEXA_LOGD(kTag, "%s: write request error\n", __func__);
        return -1;
    }
    // Up to 500 ms for the answer; one that has come is taken at once.
    uint8_t answer[1024 + 1] = {};
    long got = vexa::mcu::read_for(fd, answer, kVersionOffset + kVersionLength, 1024, kAnswerWaitMs);
    if (got < 0)
        got = 0;
    answer[got] = 0;
    VEXA_LOGD(kTag, "%s: mcu_fd = %d, data received(%u):\n", __func__, fd,
              static_cast<unsigned>(got));
    vexa::mcu::version_from_answer(answer, static_cast<size_t>(got), buf);
    char shown[kVersionLength + 1] = {};
    std::memcpy(shown, buf, kVersionLength);
    VEXA_LOGD(kTag, "mcuIcVer = %s\n", shown);
    return 0;
}

VEXA_API int32_t checkMcuFwVersion(int32_t fd)
{
    VEXA_LOGD(kTag, "%s: is called\n", __func__);
    char version[PROPERTY_VALUE_MAX] = "V0.0.0.0";
    const char *expected = configured(&config_info_t::mcu_fw_version);
    for (int retry = 0; retry < kVersionRounds; ++retry) {
        if (getMcuFwVersion(fd, version) != 0) {
            VEXA_LOGD(kTag, "%s: getMcuFwVersion failed, retryCount = %d\n", __func__, retry);
            property_get(kVersionProperty, version, "V0");
        }
        if (version[0] == '\0' || std::strcmp(version, "V0") == 0) {
            VEXA_LOGE(kTag, "%s: mcuIcVer is null, retrying... (retryCount = %d)\n", __func__,
                      retry);
        } else if (std::strcmp(expected, version) == 0) {
            VEXA_LOGD(kTag, "%s: mcuBinVer(%s) is equal to mcuIcVer(%s), no need update FW\n",
                      __func__, expected, version);
            return 0;
        } else {
            VEXA_LOGD(kTag, "%s: mcuBinVer(%s) is not equal to mcuIcVer(%s),retry!\n", __func__,
                      expected, version);
        }
        vexa::os::sleep_us(1000000);
    }
    if (std::strcmp(expected, version) == 0) {
        VEXA_LOGD(kTag, "%s: mcuBinVer(%s) is equal to mcuIcVer(%s), no need update FW\n",
                  __func__, expected, version);
        return 0;
    }
    VEXA_LOGD(kTag, "%s: mcuBinVer(%s) is not equal to mcuIcVer(%s), need update FW\n", __func__,
              expected, version);
    return 1;
}

VEXA_API int32_t mcu_isp_fw_update(const char *file_path, const char *uart_path,
                                   const char *chip_serial)
{
    if (!text_set(file_path)) {
        VEXA_LOGD(kTag, "%s: invalid file_path is NULL, need to check ini file\n", __func__);
        return -1;
    }
    if (!text_set(uart_path)) {
        VEXA_LOGD(kTag, "%s: invalid uart_path is NULL, need to check ini file\n", __func__);
        return -1;
    }
    if (!text_set(chip_serial)) {
        VEXA_LOGD(kTag, "%s: invalid chip_serial is NULL, need to check ini file\n", __func__);
        return -1;
    }
    VEXA_LOGI(kTag, "%s: file_path =%s, uart_path = %s, chip_serial = %s\n", __func__, file_path,
              uart_path, chip_serial);
    if (std::strstr(chip_serial, "gd32") || std::strstr(chip_serial, "stm32")) {
        const int32_t ret = mcu_tool_isp_task(file_path, uart_path);
        if (ret != 0)
            VEXA_LOGD(kTag, "%s: mcu_tool_isp_task failed, ret = %d\n", __func__, ret);
        return ret;
    }
    if (std::strstr(chip_serial, "n32")) {
        const int32_t ret = n32_uart_isp_upgrade(file_path, uart_path);
        if (ret != 0)
            VEXA_LOGD(kTag, "%s: n32_uart_isp_upgrade failed, ret = %d\n", __func__, ret);
        return ret;
    }
    return 0;
}

VEXA_API int32_t doMcuUpdateByIsp(void)
{
    const char *fw_path = configured(&config_info_t::mcu_fw_path);
    if (vexa::os::access(fw_path, 0) != 0) {
        std::perror("access");
        VEXA_LOGD(kTag, "%s: %s not exist\n", __func__, fw_path);
        return -1;
    }
    VEXA_LOGD(kTag, "%s: %s exist\n", __func__, fw_path);
    for (int attempt = 0; attempt < kIspTries; ++attempt) {
        if (mcu_isp_fw_update(fw_path, configured(&config_info_t::mcu_uart_path),
                              configured(&config_info_t::mcu_serial)) == 0) {
            VEXA_LOGD(kTag, "%s: mcu_isp_fw_update success\n", __func__);
            const char *version = configured(&config_info_t::mcu_fw_version);
            property_set(kVersionProperty, version);
            VEXA_LOGD(kTag, "%s: set prop persist.vexa.mcu_fw_version = %s\n", __func__, version);
            return 0;
        }
        VEXA_LOGD(kTag, "%s: mcu_isp_fw_update failed\n", __func__);
    }
    VEXA_LOGD(kTag, "The maximum retry times has been reached, and the program failed to execute "
                    "successfully\n");
    return -1;
}

VEXA_API int32_t mcuFwUpdate(int32_t *fd)
{
    VEXA_LOGD(kTag, "%s: is called\n", __func__);
    if (!fd || !config_info) {
        VEXA_LOGE(kTag, "%s: config_info is NULL or fd is NULL, run parseConfigInfo first\n",
                  __func__);
        return -1;
    }
    config_info->mcu_updating = 1;
    if (checkMcuFwVersion(*fd) == 0) {
        config_info->mcu_updating = 0;
        VEXA_LOGE(kTag, "%s: do not need upgrade FW\n", __func__);
        return -1;
    }
    // The flasher opens the line on its own; the old descriptor is done with.
    if (*fd >= 0)
        vexa::os::close(*fd);
    *fd = -1;
    if (doMcuUpdateByIsp() != 0)
        VEXA_LOGD(kTag, "%s: doMcuUpdate failed\n", __func__);
    config_info->mcu_updating = 0;
    VEXA_LOGD(kTag, "%s: mcu update done \n", __func__);
    *fd = serialInit();
    if (*fd < 0) {
        VEXA_LOGD(kTag, "%s: serialInit failed\n", __func__);
        return -1;
    }
    return 0;
}

VEXA_API int64_t getFileSize(const char *path)
{
    UniqueFile f(path ? vexa::os::fopen(path, "rb") : nullptr);
    if (!f) {
        VEXA_LOGD(kTag, "%s: Error opening file\n", __func__);
        return -1;
    }
    if (std::fseek(f.get(), 0, SEEK_END) != 0) {
        VEXA_LOGD(kTag, "%s: Error seeking to end of file\n", __func__);
        return -1;
    }
    const long size = std::ftell(f.get());
    if (size < 0) {
        VEXA_LOGD(kTag, "%s: Error telling file size\n", __func__);
        return -1;
    }
    return size;
}

} // extern "C"
