// The maker's HAL on the virtual board: product information, GPIO lines and
// sysfs-style text files.
#include "platform/hal.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "sim/state.h"

namespace {

#define ATTACHED_OR(fail_value)                                                                    \
    auto state = vexa::sim::attached();                                                            \
    if (!state) {                                                                                  \
        errno = ENODEV;                                                                            \
        return fail_value;                                                                         \
    }                                                                                              \
    auto &s = *state

#define FAULT(call, path)                                                                          \
    do {                                                                                           \
        long fault_result;                                                                         \
        if (vexa::sim::fault_fires(s, call, path, &fault_result))                                  \
            return static_cast<int>(fault_result);                                                 \
    } while (0)

} // namespace

extern "C" int hal_info_get_product_info(char *buffer)
{
    ATTACHED_OR(-1);
    FAULT("hal_info_get_product_info", "");
    const std::string info = vexa::sim::read_state(s, "product_info");
    if (info.empty())
        return -1;
    std::memcpy(buffer, info.data(), std::min<size_t>(info.size(), HAL_PRODUCT_INFO_SIZE));
    return 0;
}

extern "C" int hal_gpio_set_value(int gpio_id, int value)
{
    ATTACHED_OR(-1);
    FAULT("hal_gpio_set_value", std::to_string(gpio_id));
    if (gpio_id < 0) {
        errno = EINVAL;
        return -1;
    }
    vexa::sim::drive_line(s, gpio_id, value, "out");
    return 0;
}

extern "C" int hal_gpio_get_value(int gpio_id)
{
    ATTACHED_OR(-1);
    FAULT("hal_gpio_get_value", std::to_string(gpio_id));
    if (gpio_id < 0) {
        errno = EINVAL;
        return -1;
    }
    return vexa::sim::line_level(s, gpio_id);
}

extern "C" int64_t hal_gpio_config(int gpio_id, int, int value, int, int, int)
{
    ATTACHED_OR(-1);
    FAULT("hal_gpio_config", std::to_string(gpio_id));
    if (gpio_id < 0) {
        errno = EINVAL;
        return -1;
    }
    vexa::sim::drive_line(s, gpio_id, value, "out");
    return 0;
}

extern "C" int hal_sys_read(const char *path, char *buf, int size)
{
    ATTACHED_OR(-1);
    FAULT("hal_sys_read", path ? path : "");
    if (!path || !buf || size <= 0) {
        errno = EINVAL;
        return -1;
    }
    std::ifstream in(s.host_path(path), std::ios::binary);
    if (!in) {
        errno = ENOENT;
        return -1;
    }
    in.read(buf, size);
    return static_cast<int>(in.gcount());
}

extern "C" int hal_sys_write(const char *path, const char *text, int len)
{
    ATTACHED_OR(-1);
    FAULT("hal_sys_write", path ? path : "");
    if (!path || !text || len < 0) {
        errno = EINVAL;
        return -1;
    }
    std::ofstream out(s.host_path(path), std::ios::binary | std::ios::trunc);
    if (!out) {
        errno = ENOENT;
        return -1;
    }
    out.write(text, len);
    return out ? len : -1;
}
