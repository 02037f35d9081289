// The boot/update configuration record and the product properties published
// with it.
#include <iniparser.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/android.h"
#include "platform/hal.h"
#include "vexasdk/peripherals.h"
#include "platform/log.h"
#include "vexasdk/product_config.h"
#include "vexasdk/selftest.h"

static_assert(sizeof(config_info_t) == 1092, "config_info keeps its 1092-byte layout");

config_info_t *config_info = nullptr;

namespace {

constexpr const char *kTag = "vexa_system_hidl_service";
constexpr int kPz25ModuleId = 8459;

struct DictDeleter {
    void operator()(dictionary *d) const { iniparser_freedict(d); }
};
using UniqueDict = std::unique_ptr<dictionary, DictDeleter>;

// Product properties and where their text stands in the product information.
struct ProductField {
    size_t offset;
    size_t width;
    const char *property;
};
const ProductField kProductFields[] = {
    {0, 64, "ro.product.name"},
    {64, 32, "ro.product.modid"},
    {128, 91, "ro.product.sn"},
    {480, 91, "ro.product.productmodel"},
    {1760, 32, "ro.product.pcbversion"},
    {1792, 64, "ro.product.bominfo"},
    {1856, 64, "ro.product.cardtype"},
    {1920, 32, "ro.product.isenablecustom"},
    {1952, 32, "ro.product.custommodelid"},
    {1984, 64, "ro.product.customproductmodel"},
    {96, 32, "ro.product.series"},
};

std::string field_text(const char *info, const ProductField &field)
{
    return std::string(info + field.offset, strnlen(info + field.offset, field.width));
}

// Copies a string key into a field. A missing key leaves the field empty and
// logs `missing` (the key's own name, or the text the boards have always
// logged for it).
void read_string(dictionary *dict, const char *section, const char *key, char *dst, size_t size,
                 const char *missing)
{
    const std::string entry = std::string(section) + ":" + key;
    const char *value = dict ? iniparser_getstring(dict, entry.c_str(), nullptr) : nullptr;
    if (!value) {
        if (missing)
            VEXA_LOGE(kTag, "%s: %s is NULL", "parseConfigInfo", missing);
        return;
    }
    if (std::strlen(value) >= size)
        VEXA_LOGE(kTag, "%s: %s is longer than %zu bytes, cut to fit", "parseConfigInfo", key,
                  size - 1);
    std::strncpy(dst, value, size - 1);
    dst[size - 1] = '\0';
}

int read_int(dictionary *dict, const char *section, const char *key)
{
    const std::string entry = std::string(section) + ":" + key;
    return dict ? iniparser_getint(dict, entry.c_str(), -1) : -1;
}

int gpio_or_default(int value, const char *message)
{
    if (value >= 1)
        return value;
    VEXA_LOGE(kTag, message, "parseConfigInfo", value);
    return 999;
}

} // namespace

extern "C" VEXA_API int32_t parseConfigInfo(void)
{
    if (!config_info) {
        config_info = static_cast<config_info_t *>(std::calloc(1, sizeof(config_info_t)));
        if (!config_info) {
            VEXA_LOGE(kTag, "%s:config_info malloc failed!", __func__);
            return -1;
        }
    }
    std::memset(config_info, 0, sizeof(*config_info));
    bi_init_product_config();

    char info[HAL_PRODUCT_INFO_SIZE + 1] = {};
    if (bi_info_get_product_info(info) < 0) {
        VEXA_LOGE(kTag, "%s:parse product info failed!", __func__);
        return -1;
    }
    for (const ProductField &field : kProductFields) {
        const std::string text = field_text(info, field);
        if (text.empty()) {
            VEXA_LOGD(kTag, "%s: product %s is NULL", __func__, field.property);
            continue;
        }
        property_set(field.property, text.c_str());
        VEXA_LOGD(kTag, "%s, setprop %s %s", __func__, field.property, text.c_str());
    }
    const int mod_id = std::atoi(field_text(info, kProductFields[1]).c_str());
    VEXA_LOGD(kTag, "%s: mod_id: %d", __func__, mod_id);
    config_info->mod_id = mod_id;
    const char *path =
        mod_id == kPz25ModuleId ? "/vendor/etc/product_pz25.ini" : "/vendor/etc/product.ini";
    UniqueDict dict(static_cast<dictionary *>(bi_common_load_ini_file(path)));
    if (!dict)
        VEXA_LOGE(kTag, "%s: cannot load %s, every key reads as missing", __func__, path);

    config_info_t &c = *config_info;
    dictionary *d = dict.get();
    read_string(d, "product", "product", c.product, sizeof(c.product), "product");
    // These two misses are logged under other keys' names; clients match the text.
    read_string(d, "block", "fpga_parameter", c.fpga_parameter, sizeof(c.fpga_parameter),
                "fpga_drv_path");
    read_string(d, "block", "hex_parameter", c.hex_parameter, sizeof(c.hex_parameter),
                "fpga_fw_version");
    read_string(d, "fpga", "fpga_fw_path", c.fpga_fw_path, sizeof(c.fpga_fw_path), "fpga_fw_path");
    read_string(d, "fpga", "fpga_drv_path", c.fpga_drv_path, sizeof(c.fpga_drv_path),
                "fpga_drv_path");
    read_string(d, "fpga", "fpga_fw_version", c.fpga_fw_version, sizeof(c.fpga_fw_version),
                "fpga_fw_version");
    read_string(d, "mcu", "mcu_fw_path", c.mcu_fw_path, sizeof(c.mcu_fw_path), "mcu_fw_path");
    read_string(d, "mcu", "mcu_fw_version", c.mcu_fw_version, sizeof(c.mcu_fw_version),
                "mcu_fw_version");
    c.mcu_type = read_int(d, "mcu", "mcu_type");
    if (c.mcu_type < 0) {
        VEXA_LOGE(kTag, "%s: invalid mcu_type = %d, use default 1", __func__, c.mcu_type);
        c.mcu_type = 1;
    }
    read_string(d, "mcu", "mcu_serial", c.mcu_serial, sizeof(c.mcu_serial), "mcu_serial");
    read_string(d, "mcu", "mcu_sock_path", c.mcu_sock_path, sizeof(c.mcu_sock_path), nullptr);
    if (c.mcu_sock_path[0] == '\0')
        VEXA_LOGE(kTag, "%s:config_info->mcu_sock_path is not set, need to check ini file.",
                  __func__);
    read_string(d, "mcu", "mcu_uart_path", c.mcu_uart_path, sizeof(c.mcu_uart_path), nullptr);
    if (c.mcu_uart_path[0] == '\0')
        VEXA_LOGE(kTag, "%s:config_info->mcu_uart_path is not set, need to check ini file.",
                  __func__);
    read_string(d, "self_test", "self_test_items", c.self_test_items, sizeof(c.self_test_items),
                "self_test_items");
    c.mcu_baud_rate = read_int(d, "mcu", "mcu_baud_rate");
    c.mcu_wdt_switch = read_int(d, "mcu_wdt", "mcu_wdt_switch");
    c.mcu_wdt_pulse = read_int(d, "mcu_wdt", "mcu_wdt_pulse");
    c.mcu_wdt_startup_type = read_int(d, "mcu_wdt", "mcu_wdt_startup_type");
    c.fpga_control_gpio = gpio_or_default(read_int(d, "fpga", "fpga_control_gpio"),
                                          "%s: invalid fpga_control_gpio_id = %d, use default 999");
    c.fpga_config_gpio = gpio_or_default(read_int(d, "fpga", "fpga_config_gpio"),
                                         "%s: invalid fpga_config_gpio_id = %d, use default 999");
    c.fpga_done_gpio = gpio_or_default(read_int(d, "fpga", "fpga_done_gpio"),
                                       "%s: invalid fpga_done_gpio_id = %d, use default 999");
    c.audio_num = read_int(d, "self_test", "audio_num");
    if (c.audio_num < 1)
        c.audio_num = 0;

    VEXA_LOGI(kTag,
              "%s: product=%s mod_id=%d mcu_type=%d mcu_serial=%s mcu_fw_path=%s "
              "mcu_fw_version=%s mcu_uart_path=%s mcu_baud_rate=%d mcu_wdt_switch=%d "
              "mcu_wdt_pulse=%d mcu_wdt_startup_type=%d mcu_sock_path=%s fpga_control_gpio=%d "
              "fpga_config_gpio=%d fpga_done_gpio=%d fpga_drv_path=%s fpga_fw_path=%s "
              "fpga_fw_version=%s fpga_parameter=%s hex_parameter=%s self_test_items=%s "
              "audio_num=%d",
              __func__, c.product, c.mod_id, c.mcu_type, c.mcu_serial, c.mcu_fw_path,
              c.mcu_fw_version, c.mcu_uart_path, c.mcu_baud_rate, c.mcu_wdt_switch,
              c.mcu_wdt_pulse, c.mcu_wdt_startup_type, c.mcu_sock_path, c.fpga_control_gpio,
              c.fpga_config_gpio, c.fpga_done_gpio, c.fpga_drv_path, c.fpga_fw_path,
              c.fpga_fw_version, c.fpga_parameter, c.hex_parameter, c.self_test_items,
              c.audio_num);
    return 0;
}
