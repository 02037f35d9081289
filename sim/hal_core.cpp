// The maker's HAL on the virtual board: product information, GPIO lines and
// sysfs-style text files.
#include "platform/hal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/os.h"
#include "sim/state.h"

extern "C" int hal_info_get_product_info(char *buffer)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_info_get_product_info", "", int);
    const std::string info = vexa::sim::read_state(s, "product_info");
    if (info.empty())
        return -1;
    std::memcpy(buffer, info.data(), std::min<size_t>(info.size(), HAL_PRODUCT_INFO_SIZE));
    return 0;
}

extern "C" int hal_gpio_set_value(int gpio_id, int value)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_gpio_set_value", std::to_string(gpio_id), int);
    if (gpio_id < 0) {
        errno = EINVAL;
        return -1;
    }
    vexa::sim::drive_line(s, gpio_id, value, "out");
    return 0;
}

extern "C" int hal_gpio_get_value(int gpio_id)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_gpio_get_value", std::to_string(gpio_id), int);
    if (gpio_id < 0) {
        errno = EINVAL;
        return -1;
    }
    return vexa::sim::line_level(s, gpio_id);
}

extern "C" int64_t hal_gpio_config(int gpio_id, int, int value, int, int, int)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_gpio_config", std::to_string(gpio_id), int64_t);
    if (gpio_id < 0) {
        errno = EINVAL;
        return -1;
    }
    vexa::sim::drive_line(s, gpio_id, value, "out");
    return 0;
}

extern "C" int hal_sys_read(const char *path, char *buf, int size)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_sys_read", path ? path : "", int);
    if (!path || !buf || size <= 0) {
        errno = EINVAL;
        return -1;
    }
    const vexa::sim::Descriptor fd(s.folder().open(path, O_RDONLY));
    if (!fd)
        return -1;
    int got = 0;
    while (got < size) {
        const ssize_t n = ::read(fd.get(), buf + got, static_cast<size_t>(size - got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += static_cast<int>(n);
    }
    return got;
}

extern "C" int hal_sys_write(const char *path, const char *text, int len)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_sys_write", path ? path : "", int);
    if (!path || !text || len < 0) {
        errno = EINVAL;
        return -1;
    }
    // Through the OS layer, so that a node's model (a sysfs attribute) takes
    // the write or refuses it.
    const int fd = vexa::os::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return -1;
    const ssize_t n = vexa::os::write(fd, text, static_cast<size_t>(len));
    const int error = errno;
    vexa::os::close(fd);
    if (n != len) {
        errno = n < 0 ? error : EIO;
        return -1;
    }
    return len;
}
