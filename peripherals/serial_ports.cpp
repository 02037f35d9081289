// The seven named serial ports over the platform's serial operations: one
// descriptor per port for the process.
#include <cstring>

#include "platform/hal.h"
#include "platform/log.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace {

constexpr const char *kTag = "vexa_system_bi_serial";

struct NamedPort {
    bi_path_entry_t bi_product_config_t::*path;
    const char *fd_name; // name in the open-failure message
    bool logs_io;        // the first RS-485 port logs nothing on write and close
};

// Indexed as the port table: 485, 485_2, 232, hdmi, lora, ttl, ttl_2. The
// second RS-485 port reports as "fd_485", like the first.
const NamedPort kPorts[] = {
    {&bi_product_config_t::serial_485_1, "fd_485", false},
    {&bi_product_config_t::serial_485_2, "fd_485", true},
    {&bi_product_config_t::serial_232_1, "fd_232", true},
    {&bi_product_config_t::serial_hdmi_1, "fd_hdmi", true},
    {&bi_product_config_t::serial_lora_1, "fd_lora", true},
    {&bi_product_config_t::serial_ttl_1, "fd_ttl", true},
    {&bi_product_config_t::serial_ttl_2, "fd_ttl_2", true},
};

int32_t g_port_fd[7] = {};

int32_t port_open(int index, const char *func, int32_t baudrate, uint32_t databits,
                  uint32_t stopbits, char parity)
{
    VEXA_LOGD(kTag, "%s:baudrate = %d, databits = %u, stopbits = %u, parity = %c\n", func,
              baudrate, databits, stopbits, parity);
    const NamedPort &port = kPorts[index];
    const char *path = bi_product ? (bi_product->*port.path).path : "";
    if (!bi_product || path[0] == '\0' || std::strstr(path, "UNDEF")) {
        VEXA_LOGE(kTag, "%s:bi_product is NULL or path is not set, need to check ini file.\n",
                  func);
        return -1;
    }
    VEXA_LOGD(kTag, "%s:device:%s\n", func, path);
    char device[128] = {};
    if (std::strlen(path) >= sizeof(device)) {
        VEXA_LOGE(kTag, "%s:device path %s is longer than %zu bytes\n", func, path,
                  sizeof(device) - 1);
        return -1;
    }
    std::strcpy(device, path);
    g_port_fd[index] = hal_serial_open(device, baudrate, databits, stopbits, parity);
    if (g_port_fd[index] > 0)
        return 0;
    VEXA_LOGE(kTag, "%s:%s(%s) is invalid!\n", func, port.fd_name, device);
    return -1;
}

int32_t port_write(int index, const char *func, const void *buf, int32_t len)
{
    if (kPorts[index].logs_io)
        VEXA_LOGD(kTag, "%s\n", func);
    return hal_serial_write(g_port_fd[index], buf, len);
}

int32_t port_close(int index, const char *func)
{
    if (kPorts[index].logs_io)
        VEXA_LOGD(kTag, "%s\n", func);
    return hal_serial_close(g_port_fd[index]);
}

} // namespace

#define VEXA_NAMED_PORT(name, index)                                                               \
    VEXA_API int32_t bi_serial_##name##_open(int32_t baudrate, uint32_t databits,                 \
                                             uint32_t stopbits, char parity)                       \
    {                                                                                              \
        return port_open(index, __func__, baudrate, databits, stopbits, parity);                   \
    }                                                                                              \
    VEXA_API int32_t bi_serial_##name##_write(const void *buf, int32_t len)                        \
    {                                                                                              \
        return port_write(index, __func__, buf, len);                                              \
    }                                                                                              \
    VEXA_API int32_t bi_serial_##name##_blocking_read(void *buf, int32_t len, int32_t timeout)     \
    {                                                                                              \
        return hal_serial_blocking_read(g_port_fd[index], buf, len, timeout);                      \
    }                                                                                              \
    VEXA_API int32_t bi_serial_##name##_nonblocking_read(void *buf, int32_t len)                   \
    {                                                                                              \
        return hal_serial_nonblocking_read(g_port_fd[index], buf, len);                            \
    }                                                                                              \
    VEXA_API int32_t bi_serial_##name##_close(void)                                                \
    {                                                                                              \
        return port_close(index, __func__);                                                        \
    }

extern "C" {
VEXA_NAMED_PORT(485, 0)
VEXA_NAMED_PORT(485_2, 1)
VEXA_NAMED_PORT(232, 2)
VEXA_NAMED_PORT(hdmi, 3)
VEXA_NAMED_PORT(lora, 4)
VEXA_NAMED_PORT(ttl, 5)
VEXA_NAMED_PORT(ttl_2, 6)
} // extern "C"
