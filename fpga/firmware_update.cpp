// Updating the FPGA's program where it is kept: the update entry by module
// id, the pz50pro SPI flash through mtd_debug with the FPGA held off it, and
// the copy into the program partition.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "fpga/fpga_internal.h"
#include "platform/hal.h"
#include "platform/log.h"
#include "platform/shell.h"
#include "platform/unique.h"
#include "vexasdk/fpga.h"
#include "vexasdk/selftest.h"
#include "vexasdk/storage.h"

using namespace vexa::fpga;

namespace {

constexpr const char *kEraseCommand = "mtd_debug erase /dev/mtd0 0 0xD00000";

// The module ids of the update entry, as ranges, and the path each takes.
enum class UpdatePath { program, pz50pro, hcu900pro, rejected };
struct ModuleRange {
    int first, last;
    UpdatePath path;
};
const ModuleRange kModules[] = {
    {38409, 38409, UpdatePath::program},   {38427, 38429, UpdatePath::program},
    {38432, 38437, UpdatePath::program},   {38441, 38443, UpdatePath::program},
    {38455, 38458, UpdatePath::program},   {38460, 38460, UpdatePath::program},
    {38462, 38463, UpdatePath::program},   {38467, 38467, UpdatePath::program},
    {8470, 8470, UpdatePath::pz50pro},     {8475, 8476, UpdatePath::pz50pro},
    {8478, 8478, UpdatePath::pz50pro},     {4374, 4374, UpdatePath::hcu900pro},
};

UpdatePath update_path(int mod_id)
{
    for (const ModuleRange &r : kModules)
        if (mod_id >= r.first && mod_id <= r.last)
            return r.path;
    return UpdatePath::rejected;
}

// The exit status of a shell command, as the messages give it.
int exit_status(int status) { return status >> 8; }

// The write command for the file, or "" after the error line: the path goes
// into the shell, so it must be a plain absolute path and the command must fit.
std::string write_command(const char *tag, const char *func, const char *path, uint64_t size)
{
    char command[256];
    if (!vexa::shell_paths_safe(tag, func, {path}) ||
        !vexa::shell_format(command, sizeof command, tag, func, "mtd_debug write /dev/mtd0 0 %llu %s",
                            (unsigned long long)size, path))
        return "";
    return command;
}

struct FlashPins {
    int control, config, done;
};

// The pz50pro flash update of bi_fpga_firmware_update_pz50pro and
// fpgaFwUpdate: 0 or -1.
int flash_update(const char *tag, const char *func, const char *path, FlashPins pins)
{
    VEXA_LOGI(tag, "%s: is called", func);
    if (path == nullptr || vexa::os::access(path, F_OK) != 0) {
        VEXA_LOGE(tag, "%s: %s not exist", func, path ? path : "(null)");
        return -1;
    }
    VEXA_LOGI(tag, "%s: %s exist", func, path);
    const uint64_t size = get_file_size(path);
    if (size == 0) {
        VEXA_LOGE(tag, "%s: invalid pz50pro_fpga_fw size = %lu", func, (unsigned long)size);
        return -1;
    }
    VEXA_LOGI(tag, "%s: fpga_fw_size = %lu", func, (unsigned long)size);
    if (pins.control < 1 || pins.config < 1) {
        VEXA_LOGE(tag, "%s: invalid fpga_control_gpio_id = %d or fpga_config_gpio_id = %d", func,
                  pins.control, pins.config);
        return -1;
    }
    const std::string command = write_command(tag, func, path, size);
    if (command.empty())
        return -1;
    auto set = [&](int pin, int level, const char *which) {
        if (hal_gpio_set_value(pin, level) < 0) {
            VEXA_LOGE(tag, "%s: %s gpio %d set failed", func, which, pin);
            return false;
        }
        VEXA_LOGI(tag, level ? "%s: %s gpio %d pull high" : "%s: %s gpio %d pull low", func, which, pin);
        return true;
    };
    // The FPGA is held off its flash while it is rewritten.
    if (!set(pins.control, 0, "control") || !set(pins.config, 0, "config"))
        return -1;
    int status = vexa::os::system(kEraseCommand);
    if (status != 0) {
        VEXA_LOGE(tag, "%s: mtd_debug erase exit status: %d", func, exit_status(status));
        return -1;
    }
    VEXA_LOGI(tag, "%s: mtd_debug erase success", func);
    VEXA_LOGI(tag, "%s: cmd = %s", func, command.c_str());
    status = vexa::os::system(command.c_str());
    if (status != 0) {
        VEXA_LOGE(tag, "%s: mtd_debug write exit status: %d", func, exit_status(status));
        return -1;
    }
    VEXA_LOGI(tag, "%s: mtd_debug write success", func);
    // Released, the FPGA reconfigures from the new flash.
    if (!set(pins.control, 1, "control") || !set(pins.config, 0, "config") ||
        !set(pins.config, 1, "config"))
        return -1;
    if (poll_done(tag, "fpgaCheckDone", pins.done) != 1) {
        VEXA_LOGE(tag, "%s: fpga done pin check failed", func);
        return -1;
    }
    VEXA_LOGI(tag, "%s: fpga done pin check success", func);
    return 0;
}

bool config_loaded(const char *func)
{
    if (config_info)
        return true;
    VEXA_LOGE(kTagFw, "%s: config_info is NULL, parseConfigInfo has not run", func);
    return false;
}

bool set_pin(const char *func, int pin, int level)
{
    if (hal_gpio_set_value(pin, level) < 0) {
        VEXA_LOGE(kTagFw, "%s: gpio %d set failed", func, pin);
        return false;
    }
    VEXA_LOGI(kTagFw, level ? "%s: gpio %d pull high" : "%s: gpio %d pull low", func, pin);
    return true;
}

bool mtd_debug_present(const char *func)
{
    if (vexa::os::access(kMtdDebug, F_OK) != 0) {
        VEXA_LOGE(kTagFw, "%s: mtd_debug tool not exist", func);
        return false;
    }
    VEXA_LOGI(kTagFw, "%s: mtd_debug tool exist", func);
    return true;
}

} // namespace

extern "C" {

VEXA_API uint64_t get_file_size(const char *path)
{
    vexa::UniqueFd fd(path ? vexa::os::open(path, O_RDONLY) : -1);
    if (!fd) {
        VEXA_LOGE(kTagBi, "open %s failed", path ? path : "(null)");
        return 0;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        VEXA_LOGE(kTagBi, "<%s> fstat fail, is not file?", __func__);
        return 0;
    }
    return uint64_t(st.st_size);
}

VEXA_API int32_t bi_fpga_firmware_update_pz50pro(const char *path)
{
    if (!bi_product) {
        VEXA_LOGE(kTagBi, "%s:bi_product is NULL, need to check ini file.", __func__);
        return -1;
    }
    return flash_update(kTagBi, __func__, path,
                        {bi_product->fpga_control_gpio.gpio_id, bi_product->fpga_config_gpio.gpio_id,
                         bi_product->fpga_done_gpio.gpio_id});
}

VEXA_API int32_t fpgaFwUpdate(const char *path)
{
    if (!config_loaded(__func__))
        return -1;
    return flash_update(kTagFw, __func__, path ? path : config_info->fpga_fw_path,
                        {config_info->fpga_control_gpio, config_info->fpga_config_gpio,
                         config_info->fpga_done_gpio});
}

VEXA_API int32_t bi_fpga_firmware_update(const char *path)
{
    if (path == nullptr) {
        VEXA_LOGE(kTagBi, "%s: invalid fpga_fw_path is NULL", __func__);
        return -1;
    }
    if (vexa::os::access(path, F_OK) != 0) {
        VEXA_LOGE(kTagBi, "%s: %s file does not exist", __func__, path);
        return -1;
    }
    const int mod_id = bi_product ? bi_product->mod_id : 0;
    VEXA_LOGI(kTagBi, "%s: fpga_fw_path = %s, mod_id = %d", __func__, path, mod_id);
    switch (update_path(mod_id)) {
    case UpdatePath::program: {
        const int32_t ret = bi_fpga_update_program(path);
        if (ret < 0)
            VEXA_LOGE(kTagBi, "%s: bi_fpga_update_program failed", __func__);
        return ret;
    }
    case UpdatePath::pz50pro:
        if (bi_fpga_firmware_update_pz50pro(path) != 0) {
            VEXA_LOGE(kTagBi, "%s: bi_fpga_firmware_update_pz50pro failed", __func__);
            return -1;
        }
        return 0;
    case UpdatePath::hcu900pro: {
        const int32_t ret = bi_fpga_update_program_hcu900pro(path);
        if (ret < 0)
            VEXA_LOGE(kTagBi, "%s: bi_fpga_update_program_hcu900pro failed", __func__);
        return ret;
    }
    case UpdatePath::rejected:
        break;
    }
    VEXA_LOGE(kTagBi, "%s: not support mod_id = %d", __func__, mod_id);
    return -1;
}

VEXA_API int32_t fpgaFlashFormat(void)
{
    VEXA_LOGI(kTagFw, "%s: is called", __func__);
    if (!config_loaded(__func__))
        return -1;
    const int control = config_info->fpga_control_gpio;
    if (control < 1) {
        VEXA_LOGE(kTagFw, "%s: invalid fpga_control_gpio_id = %d", __func__, control);
        return -1;
    }
    if (!set_pin(__func__, control, 0))
        return -1;
    if (!mtd_debug_present(__func__))
        return -1;
    const int status = vexa::os::system(kEraseCommand);
    if (status != 0) {
        VEXA_LOGE(kTagFw, "%s: mtd_debug erase exit status: %d", __func__, exit_status(status));
        return -1;
    }
    VEXA_LOGI(kTagFw, "%s: mtd_debug erase success", __func__);
    return set_pin(__func__, control, 1) ? 0 : -1;
}

VEXA_API int32_t fpgaFlashWrite(void)
{
    VEXA_LOGI(kTagFw, "%s: is called", __func__);
    if (!config_loaded(__func__))
        return -1;
    const int32_t blocks = get_block_num_for_screen_params();
    VEXA_LOGI(kTagFw, "%s: get_block_num_for_screen_params blockNum = %d", __func__, blocks);
    const char *path = config_info->fpga_fw_path;
    if (vexa::os::access(path, F_OK) != 0) {
        VEXA_LOGE(kTagFw, "%s: %s not exist", __func__, path);
        return -1;
    }
    VEXA_LOGI(kTagFw, "%s: %s exist", __func__, path);
    if (!mtd_debug_present(__func__))
        return -1;
    const uint64_t size = get_file_size(path);
    if (size == 0) {
        VEXA_LOGE(kTagFw, "%s: invalid pz50pro_fpga_fw size = %lu", __func__, (unsigned long)size);
        return -1;
    }
    const int control = config_info->fpga_control_gpio;
    const int config = config_info->fpga_config_gpio;
    if (control < 1 || config < 1) {
        VEXA_LOGE(kTagFw, "%s: invalid fpga_control_gpio_id = %d or fpga_config_gpio_id = %d", __func__,
                  control, config);
        return -1;
    }
    const std::string command = write_command(kTagFw, __func__, path, size);
    if (command.empty())
        return -1;
    if (!set_pin(__func__, control, 0))
        return -1;
    VEXA_LOGI(kTagFw, "%s: cmd = %s", __func__, command.c_str());
    const int status = vexa::os::system(command.c_str());
    if (status != 0) {
        VEXA_LOGE(kTagFw, "%s: mtd_debug write exit status: %d", __func__, exit_status(status));
        return -1;
    }
    VEXA_LOGI(kTagFw, "%s: mtd_debug write success", __func__);
    if (!set_pin(__func__, control, 1))
        return -1;
    while (config_info->mcu_updating == 1) {
        VEXA_LOGI(kTagFw, "%s: mcu fw update is not done, waiting 1 second...", __func__);
        sleep_ms(1000);
    }
    // Without screen parameters nothing else will start the FPGA: a config
    // pulse makes it reconfigure.
    if (blocks <= 0) {
        if (!set_pin(__func__, config, 0))
            return -1;
        sleep_ms(100);
        if (!set_pin(__func__, config, 1))
            return -1;
    }
    return 0;
}

VEXA_API int32_t fpga_update_program_to_emmc(const char *path)
{
    const char *program = product_path(&bi_product_config_t::fpga_program);
    if (!path_set(program)) {
        VEXA_LOGE(kTagBi,
                  "<%s>: bi_product is NULL or fpga_program.path is not set, need to check ini file.",
                  __func__);
        return -1;
    }
    if (path != nullptr && std::strcmp(path, program) == 0) {
        VEXA_LOGI(kTagBi, "<%s>: fpga_path write dir is equal", __func__);
        return 0;
    }
    vexa::UniqueFd fd(path ? vexa::os::open(path, O_RDONLY) : -1);
    if (!fd) {
        VEXA_LOGE(kTagBi, "<%s>, open %s failed", __func__, path ? path : "(null)");
        return -3;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        VEXA_LOGE(kTagBi, "<%s> fstat fail, is not file?", __func__);
        return -4;
    }
    std::vector<uint8_t> data;
    try {
        data.resize(size_t(st.st_size));
    } catch (const std::bad_alloc &) {
        VEXA_LOGE(kTagBi, "<%s> malloc(data_size) fail", __func__);
        return -5;
    }
    if (vexa::os::read_full(fd.get(), data.data(), data.size()) != ssize_t(data.size())) {
        VEXA_LOGE(kTagBi, "<%s> read fail", __func__);
        return -6;
    }
    if (bi_block_write_fpga_program(0, data.data(), uint32_t(data.size())) < 0) {
        VEXA_LOGE(kTagBi, "<%s> bi_block_write_fpga_program fail", __func__);
        return -7;
    }
    return 0;
}

} // extern "C"
