// What the system services read from the board's kernel files and
// properties, on arbitrary bytes: the input's NUL-separated parts become the
// OTG role file, policy0's available governors, core 0's maximum frequency,
// port 1's enable file, the log daemon's level and current-file properties.
#include <cstdint>
#include <string>
#include <vector>

#include "nul_parts.h"
#include "sim/board.h"
#include "vexasdk/product_config.h"
#include "vexasdk/system.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = [] {
        auto b = vexa::sim::Board::Builder().build();
        b.write_file("/fuzz/empty/.keep", "");
        bi_init_product_config();
        return b;
    }();
    const auto parts = vexa::fuzz::nul_parts(data, size, 6);
    board.write_file("/sys/devices/platform/fe8a0000.usb2-phy/otg_mode", parts[0]);
    board.write_file("/sys/devices/system/cpu/cpufreq/policy0/scaling_available_governors", parts[1]);
    board.write_file("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", parts[2]);
    board.write_file("/sys/class/vexagpios/USB1_EN/value", parts[3]);
    board.set_property("persist.vendor.vexa_logd.level", parts[4]);
    board.set_property("persist.vendor.vexa_logd.path", parts[5]);

    bi_otg_get_mode();
    is_governor_supported("performance");
    get_max_freq_cpu_index(1);
    bi_get_usb_state(1);
    vexa_logd_config_t config;
    bi_vexa_logd_get_configure(&config);
    bi_vexa_logd_clear("/fuzz/empty");
    board.clear_log();
    board.clear_commands();
    return 0;
}
