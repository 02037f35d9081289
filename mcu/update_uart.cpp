// The MCU UART of the firmware-update flow: opening it from the update
// configuration and draining it.
#include <fcntl.h>
#include <sys/ioctl.h>

#include <cstring>

#include "platform/log.h"
#include "platform/os.h"
#include "vexasdk/mcu.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/selftest.h"

namespace {

constexpr const char *kTag = "vexa_system_fw_update";

} // namespace

extern "C" {

VEXA_API int32_t serialInit(void)
{
    const char *path = config_info ? config_info->mcu_uart_path : "";
    if (path[0] == '\0' || std::strstr(path, "UNDEF")) {
        VEXA_LOGE(kTag, "%s:config_info->mcu_uart_path is not set, need to check ini file.\n",
                  __func__);
        return -1;
    }
    char device[128] = {};
    std::strncpy(device, path, sizeof(device) - 1);
    const int fd = sdk_uart_init(device, config_info->mcu_baud_rate);
    if (fd < 0) {
        VEXA_LOGD(kTag, "%s: init %s failed, _fd = %d\n", __func__, device, fd);
        return -1;
    }
    VEXA_LOGI(kTag, "%s: open %s _fd = %d\n", __func__, device, fd);
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    return fd;
}

VEXA_API int32_t clearSerialBuffer(int32_t fd)
{
    if (fd < 0) {
        VEXA_LOGE(kTag, "%s: invalid file descriptor\n", __func__);
        return -1;
    }
    int waiting = 0;
    if (vexa::os::ioctl(fd, FIONREAD, &waiting) < 0) {
        VEXA_LOGE(kTag, "%s: failed to get buffer size\n", __func__);
        return -1;
    }
    int total = 0;
    unsigned char scratch[256];
    while (waiting > 0) {
        const int want = waiting < 256 ? waiting : 256;
        const ssize_t n = vexa::os::read(fd, scratch, static_cast<size_t>(want));
        if (n <= 0) {
            VEXA_LOGE(kTag, "%s: failed to read buffer\n", __func__);
            break;
        }
        total += static_cast<int>(n);
        waiting -= static_cast<int>(n);
    }
    VEXA_LOGD(kTag, "%s: cleared %d bytes from serial buffer\n", __func__, total);
    return total;
}

} // extern "C"
