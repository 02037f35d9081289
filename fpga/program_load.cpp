// Loading the FPGA's program: the HAL's synchronous loader, "/dev/fpga_load",
// the done-pin checks, the update dispatch by family, and the fixed Ethernet
// set-ups and HDR switch that go with a load.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "fpga/fpga_internal.h"
#include "platform/android.h"
#include "platform/hal.h"
#include "platform/log.h"
#include "platform/shell.h"
#include "platform/unique.h"
#include "vexasdk/fpga.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/selftest.h"

using namespace vexa::fpga;

int32_t PRODUCT_NUM = 0;
int32_t PZ_FPGA_LOADER_STATUS = 0;

namespace {

constexpr int kLoadAttempts = 3;
constexpr const char *kActiveUpdateFile = "/vendor/etc/fpga.bin";
constexpr const char *kQrxxName = "fpga_update_program_qrxx_rk3566";

bool program_path_set(const char *func, const char *tagged_format)
{
    if (path_set(product_path(&bi_product_config_t::fpga_program)))
        return true;
    VEXA_LOGE(kTagBi, tagged_format, func);
    return false;
}

} // namespace

namespace vexa::fpga {

int poll_done(const char *tag, const char *name, int pin)
{
    if (pin < 1) {
        VEXA_LOGE(tag, "%s: invalid fpga_done_gpio_id = %d", name, pin);
        return 0;
    }
    int value = 0;
    for (int i = 0; i < 20; ++i) {
        value = hal_gpio_get_value(pin);
        if (value == 1) {
            VEXA_LOGI(tag, "%s: FPGA_DONE is 1", name);
            return 1;
        }
        VEXA_LOGD(tag, "%s: FPGA_DONE is not 1, waiting 0.5 second...", name);
        sleep_ms(500);
    }
    VEXA_LOGE(tag, "%s: Maximum wait time 10 second exceeded, exiting...", name);
    return value;
}

} // namespace vexa::fpga

extern "C" {

VEXA_API int32_t bi_fpga_get_fpga_done_status(void) { return PZ_FPGA_LOADER_STATUS; }

VEXA_API int32_t bi_get_ultra_fpga_enable(void) { return 0; }

VEXA_API int32_t bi_set_ultra_fpga_enable(void) { return 0; }

VEXA_API int32_t check_fpga_config_done(void)
{
    const int pin = bi_product ? bi_product->fpga_done_gpio.gpio_id : -1;
    if (pin < 1 || pin > 998) {
        VEXA_LOGE(kTagBi, "<%s>: bi_product is NULL or invaild gpio_id is %d, need to check ini file.",
                  __func__, pin);
        return -1;
    }
    gpio_config(pin, 0);
    int done = hal_gpio_get_value(pin);
    VEXA_LOGI(kTagBi, "<%s>: satrt fpga done is %d", __func__, done);
    if (done == 1) {
        sleep_ms(3000);
        done = hal_gpio_get_value(pin);
        VEXA_LOGI(kTagBi, "<%s>: sleep 3 fpga done is %d", __func__, done);
        if (done == 1) {
            VEXA_LOGE(kTagBi, "<%s>: fpga is not reset", __func__);
            return -2;
        }
    }
    VEXA_LOGI(kTagBi, "<%s>: check start fpga done is %d", __func__, done);
    for (int poll = 0; poll < 101; ++poll) {
        sleep_ms(100);
        if (hal_gpio_get_value(pin) == 1) {
            VEXA_LOGI(kTagBi, "<%s>: fpga reset success", __func__);
            return 0;
        }
    }
    VEXA_LOGE(kTagBi, "<%s>: fpga reset time out", __func__);
    return -3;
}

VEXA_API int32_t fpgaCheckDone(void)
{
    return poll_done(kTagFw, __func__, config_info ? config_info->fpga_done_gpio : 0);
}

VEXA_API int32_t bi_fpga_load_program(void)
{
    const char *path = product_path(&bi_product_config_t::fpga_fw);
    if (!path_set(path)) {
        VEXA_LOGE(kTagBi, "%s:bi_product is NULL or fpga_fw_path.path is not set, need to check ini file.",
                  __func__);
        return -1;
    }
    hal_fpga_load_request_t request;
    std::memset(&request, 0, sizeof request);
    // A path cut to fit would name another file.
    if (std::strlen(path) >= sizeof request.path) {
        VEXA_LOGE(kTagBi, "%s: fpga_fw_path %s is longer than %zu bytes", __func__, path,
                  sizeof request.path - 1);
        return -1;
    }
    std::memcpy(request.path, path, std::strlen(path));
    request.fpga_drv_id = uint32_t(bi_product->fpga_drv_id);
    VEXA_LOGI(kTagBi, "fpga_fw_path: %s fpga_drv_id:%d", request.path, int(request.fpga_drv_id));
    int ret = 0;
    for (int attempt = 0; attempt < kLoadAttempts; ++attempt) {
        ret = hal_fpga_load_program_sync(&request);
        if (ret == 0) {
            VEXA_LOGI(kTagBi, "%s, fpga load success", __func__);
            PZ_FPGA_LOADER_STATUS = 0;
            return 0;
        }
        VEXA_LOGE(kTagBi, "%s, fpga load failed, retry %d", __func__, attempt);
        sleep_ms(1);
    }
    PZ_FPGA_LOADER_STATUS = ret;
    return ret;
}

VEXA_API int32_t bi_fpga_eth1_config_hcu900pro(void)
{
    vexa::os::system("/system/bin/ifconfig eth1 down");
    vexa::os::system("/system/bin/ifconfig eth1 mtu 1500");
    vexa::os::system("/system/bin/ifconfig eth1 up");
    sleep_ms(1000);
    vexa::os::system("/system/bin/ip addr add 240.10.10.10/24 broadcast 240.10.10.255 dev eth1");
    VEXA_LOGD(kTagBi, "%s: config eth1 ip mask up", __func__);
    return 0;
}

VEXA_API int32_t bi_fpga_eth1_config_pz2k(void)
{
    vexa::os::system("/system/bin/ifconfig eth0 down");
    vexa::os::system("/system/bin/ifconfig eth0 mtu 1500 up");
    sleep_ms(100);
    vexa::os::system("/system/bin/ifconfig eth1 down");
    vexa::os::system("/system/bin/ifconfig eth1 mtu 1500 up");
    sleep_ms(1000);
    vexa::os::system("/system/bin/busybox arp -i eth1 -s 240.10.10.20 56:b5:6c:ff:01:00");
    VEXA_LOGD(kTagBi, "%s: config eth1 ip mask up", __func__);
    return 0;
}

VEXA_API int32_t bi_fpga_load_program_pz2k(void)
{
    if (bi_fpga_load_program() != 0)
        VEXA_LOGE(kTagBi, "%s: bi_fpga_load_program failed", __func__);
    bi_fpga_eth1_config_pz2k();
    VEXA_LOGI(kTagBi, "%s: bi_fpga_load_program_pz2k ok", __func__);
    return 0;
}

VEXA_API int32_t fpga_load_program_qrxx_rk3566(const char *path)
{
    std::unique_ptr<uint8_t[]> image(new (std::nothrow) uint8_t[BI_FPGA_PROGRAM_SIZE]);
    if (!image)
        return -1;
    if (path == nullptr || vexa::os::access(path, F_OK) != 0) {
        VEXA_LOGE(kTagBi, "%s file inexistence ... ", path ? path : "(null)");
        return -1;
    }
    {
        vexa::UniqueFd file(vexa::os::open(path, O_RDONLY));
        if (!file) {
            const int error = errno;
            VEXA_LOGE(kTagBi, "open %s failed", path);
            VEXA_LOGE(kTagBi, "open failed: %s (errno=%d)", std::strerror(error), error);
            return -1;
        }
        // A shorter program is followed by zeros, a longer one cut.
        std::memset(image.get(), 0, BI_FPGA_PROGRAM_SIZE);
        if (vexa::os::read_full(file.get(), image.get(), BI_FPGA_PROGRAM_SIZE) < 0) {
            VEXA_LOGE(kTagBi, "read fpga block failed ");
            return -1;
        }
    }
    if (vexa::os::access(kLoadNode, F_OK) != 0) {
        VEXA_LOGE(kTagBi, "%s file inexistence ... ", kLoadNode);
        return -1;
    }
    vexa::UniqueFd node(vexa::os::open(kLoadNode, O_RDWR));
    if (!node) {
        VEXA_LOGE(kTagBi, "open %s failed", kLoadNode);
        return -1;
    }
    if (vexa::os::write(node.get(), image.get(), BI_FPGA_PROGRAM_SIZE) != BI_FPGA_PROGRAM_SIZE) {
        VEXA_LOGE(kTagBi, "write fpga program failed ");
        return -1;
    }
    PZ_FPGA_LOADER_STATUS = 1;
    return 0;
}

VEXA_API int32_t bi_fpga_load_program_qrxx_rk3566(void)
{
    if (!program_path_set(__func__,
                          "%s:bi_product is NULL or fpga_program.path is not set, need to check ini file."))
        return -1;
    if (fpga_load_program_qrxx_rk3566(bi_product->fpga_program.path) != 0) {
        VEXA_LOGE(kTagBi, "%s: bi_fpga_load_program failed", __func__);
        return -2;
    }
    if (bi_fpga_load_parameter() < 0) {
        VEXA_LOGE(kTagBi, "%s: load failed", __func__);
        return -3;
    }
    VEXA_LOGI(kTagBi, "%s: load ok", __func__);
    return 0;
}

VEXA_API int32_t bi_fpga_update_program(const char *path)
{
    VEXA_LOGD(kTagBi, "<%s>", __func__);
    if (PRODUCT_NUM == 2)
        return fpga_update_program_qr3plus_qr5plus(path);
    if (PRODUCT_NUM == 3) {
        VEXA_LOGI(kTagBi, "<%s> The device is not supported", __func__);
        return 0;
    }
    if (path == nullptr) {
        VEXA_LOGE(kTagBi, "%s:fpga_path is NULL", kQrxxName);
        return -1;
    }
    if (fpga_load_program_qrxx_rk3566(path) != 0) {
        VEXA_LOGE(kTagBi, "%s: fpga_load_program_qrxx_rk3566 failed", kQrxxName);
        return -2;
    }
    if (bi_fpga_load_parameter() < 0) {
        VEXA_LOGE(kTagBi, "%s: bi_fpga_load_parameter", kQrxxName);
        return -3;
    }
    return fpga_update_program_to_emmc(path);
}

VEXA_API int32_t bi_fpga_active_update_program(void)
{
    VEXA_LOGD(kTagBi, "<%s>", __func__);
    if (PRODUCT_NUM != 2)
        return 0;
    // The INI's program partition is checked, the fixed file loaded.
    if (!program_path_set(__func__,
                          "%s:bi_product is NULL or fpga_program.path is not set, need to check ini file."))
        return -1;
    const int32_t ret = bi_fpga_update_program(kActiveUpdateFile);
    if (ret >= 0)
        return ret;
    VEXA_LOGE(kTagBi, "%s: restart update fpga", __func__);
    return bi_fpga_update_program(kActiveUpdateFile);
}

VEXA_API int32_t bi_fpga_update_program_hcu900pro(const char *path)
{
    if (path == nullptr || path[0] == '\0') {
        VEXA_LOGE(kTagBi, "%s: invalid fpga_fw_path", __func__);
        return -1;
    }
    const char *drv = product_path(&bi_product_config_t::fpga_drv);
    if (!path_set(drv)) {
        VEXA_LOGE(kTagBi, "%s:bi_product is NULL or path is not set, need to check ini file.", __func__);
        return -1;
    }
    if (hal_fpga_load_program_sync_temp(drv, path) < 0) {
        VEXA_LOGE(kTagBi, "%s: hal_fpga_load_program_sync_temp failed", __func__);
        return -1;
    }
    VEXA_LOGI(kTagBi, "%s: hal_fpga_load_program_sync_temp ok", __func__);
    sleep_ms(1000);
    bi_fpga_eth1_config_hcu900pro();
    const char *screen = bi_product->fpga_parameter.path;
    const char *hex = bi_product->hex_parameter.path;
    if (!path_set(screen) || !path_set(hex)) {
        VEXA_LOGE(kTagBi, "%s:bi_product is NULL or path is not set, need to check ini file.", __func__);
        return -1;
    }
    sleep_ms(1000);
    if (bi_fpga_load_screen_params_by_udp(screen, hex) >= 0) {
        VEXA_LOGI(kTagBi, "%s: bi_fpga_load_screen_params_by_udp ok", __func__);
        return 0;
    }
    VEXA_LOGE(kTagBi, "%s: bi_fpga_load_screen_params_by_udp failed", __func__);
    return -1;
}

VEXA_API int32_t open_hdr(void)
{
    char want[PROPERTY_VALUE_MAX] = {};
    char res[PROPERTY_VALUE_MAX] = {};
    property_get("persist.hdr.wantenable", want, "false");
    property_get("persist.hdr.res", res, "null");
    VEXA_LOGI(kTagBi, "hdr: %s, res: %s", want, res);
    if (std::strcmp(want, "true") != 0) {
        VEXA_LOGI(kTagBi, "%s hdr is false", __func__);
        property_set("sys.hdr.realyenable", "false");
        return 0;
    }
    if (std::strcmp(res, "null") == 0) {
        VEXA_LOGI(kTagBi, "%s hdr res is null,not open hdr", __func__);
        property_set("sys.hdr.realyenable", "false");
        return 0;
    }
    VEXA_LOGI(kTagBi, "%s will open hdr now", __func__);
    if (!vexa::shell_args_safe(kTagBi, __func__, {res}))
        return -1;
    char command[256];
    std::snprintf(command, sizeof command,
                  "/system/bin/test-systemcontrol --setHDREnable hdr 422,10bit %s", res);
    const int ret = vexa::os::system(command);
    VEXA_LOGI(kTagBi, "%s: system(%s) ret = %d", __func__, command, ret);
    property_set("sys.hdr.realyenable", "true");
    return ret;
}

} // extern "C"
