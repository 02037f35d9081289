// The four USB ports' enable files of the product record and the OTG role
// of the USB 2 PHY.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "platform/hal.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/unique.h"
#include "vexasdk/product_config.h"
#include "vexasdk/system.h"

namespace {

const char kTag[] = "vexa_system_bi_ops_usb_port";
const char kOtgModeFile[] = "/sys/devices/platform/fe8a0000.usb2-phy/otg_mode";
constexpr int32_t kPorts = 4;

bool valid_index(const char *func, int32_t index)
{
    if (index < 1 || index > kPorts) {
        VEXA_LOGD(kTag, "%s: invalid index = %d, max usb index is 4\n", func, static_cast<int>(index));
        return false;
    }
    return true;
}

// A port's file as the product record names it ("" without a record).
struct PortPath {
    const char *text;
    bool usable; // false: empty or "UNDEF", never opened
};

// A bad entry is only logged, and the call goes on as for a missing file:
// the library never opens a path it was not given.
PortPath port_path(const char *func, int32_t index)
{
    const char *text = bi_product ? bi_product->usb_path[index - 1] : "";
    const bool usable = text[0] != '\0' && std::strstr(text, "UNDEF") == nullptr;
    if (!usable) {
        VEXA_LOGE(kTag, "%s:bi_product is NULL or usb%d path is not set, need to check ini file.\n", func,
                  static_cast<int>(index));
    }
    if (index == 4)
        VEXA_LOGD(kTag, "%s:device:%s\n", func, text);
    else
        VEXA_LOGD(kTag, "%s:usb_path:%s\n", func, text);
    return {text, usable};
}

bool exists(const PortPath &path)
{
    return path.usable && vexa::os::access(path.text, F_OK) == 0;
}

} // namespace

extern "C" {

VEXA_API int32_t bi_set_usb_state(int32_t index, int32_t state)
{
    if (!valid_index(__func__, index))
        return -1;
    VEXA_LOGD(kTag, "%s: index = %d, state = %d\n", __func__, static_cast<int>(index), static_cast<int>(state));
    const PortPath port = port_path(__func__, index);
    if (!exists(port)) {
        VEXA_LOGE(kTag, "File does not exist.\n");
        return -1;
    }
    const char *path = port.text;
    VEXA_LOGD(kTag, "File exists.\n");
    const vexa::UniqueFd fd(vexa::os::open(path, O_RDWR));
    if (!fd) {
        VEXA_LOGE(kTag, "%s:open file failed\n", __func__);
        return -1;
    }
    const char value = state != 0 ? '1' : '0';
    if (vexa::os::write(fd.get(), &value, 1) != 1) {
        VEXA_LOGE(kTag, "%s:write file failed\n", __func__);
        return -1;
    }
    VEXA_LOGI(kTag, "%s: write path %s OK\n", __func__, path);
    return 0;
}

VEXA_API int32_t bi_get_usb_state(int32_t index)
{
    if (!valid_index(__func__, index))
        return -1;
    VEXA_LOGD(kTag, "%s: index = %d\n", __func__, static_cast<int>(index));
    const PortPath port = port_path(__func__, index);
    if (!exists(port)) {
        VEXA_LOGE(kTag, "%s: %s not exist\n", __func__, port.text);
        return -1;
    }
    const char *path = port.text;
    VEXA_LOGD(kTag, "%s: %s exist\n", __func__, path);
    const vexa::UniqueFd fd(vexa::os::open(path, O_RDWR));
    if (!fd) {
        VEXA_LOGE(kTag, "open path %s failed.\n", path);
        return -1;
    }
    char buf[8] = {0};
    if (vexa::os::read(fd.get(), buf, 1) < 0) {
        VEXA_LOGE(kTag, "read path %s failed.\n", path);
        return -1;
    }
    const int32_t state = std::atoi(buf);
    VEXA_LOGD(kTag, "%s: read state = %d OK\n", __func__, static_cast<int>(state));
    return state;
}

VEXA_API int32_t bi_otg_get_mode(void)
{
    char mode[33] = {0};
    if (hal_sys_read(kOtgModeFile, mode, 32) < 0) {
        VEXA_LOGD(kTag, "<%s> hal_sys_read fail!\n", __func__);
        return -1;
    }
    mode[std::strcspn(mode, "\r\n")] = '\0';
    if (std::strcmp(mode, "host") == 0)
        return 0;
    if (std::strcmp(mode, "peripheral") == 0)
        return 1;
    VEXA_LOGD(kTag, "error <%s> sys_data:%s\n", __func__, mode);
    return -1;
}

VEXA_API int32_t bi_otg_set_mode(int32_t mode)
{
    if (mode == 0)
        return hal_sys_write(kOtgModeFile, "host", 4);
    if (mode == 1)
        return hal_sys_write(kOtgModeFile, "peripheral", 10);
    return -1;
}

} // extern "C"
