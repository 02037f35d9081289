// The number and state files the board's drivers keep, on arbitrary bytes:
// the input's NUL-separated parts become the three ADC channels, the fan's
// cooling state and speed, the first HDMI input's state, the screen mode and
// the two picture-quality switches. Whatever a driver leaves in them, the
// readers stay inside their buffers and the fan's gear stays one of its own.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "nul_parts.h"
#include "sim/board.h"
#include "vexasdk/display.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = [] {
        auto b = vexa::sim::Board::Builder().build();
        bi_init_product_config();
        return b;
    }();
    static const std::vector<std::string> paths = {
        bi_product->adc_board_id.path,
        bi_product->adc_board_voltage.path,
        bi_product->adc_board_temperature.path,
        "/sys/class/thermal/cooling_device0/cur_state",
        "/proc/fan_arm",
        bi_product->hdmi_in_path[0],
        bi_product->screen_mode,
        "/sys/module/decoder_common/parameters/debug_vdetect",
        "/sys/module/aml_media/parameters/uvm_open_aipq",
    };
    const auto parts = vexa::fuzz::nul_parts(data, size, paths.size());
    for (size_t i = 0; i < paths.size(); ++i)
        if (!paths[i].empty() && paths[i][0] == '/')
            board.write_file(paths[i], parts[i]);

    bi_adc_get_board_id();
    bi_adc_get_board_voltage();
    bi_adc_get_board_temperature();
    const int32_t gear = bi_fan_level_get_state();
    if (gear > 10)
        std::abort(); // a gear the fan does not have
    bi_fan_level_get_prm();
    bi_display_get_hdmi_in_state(1);
    bi_resolution_screen_mode_get_state();
    bi_get_pq_state();
    board.clear_log();
    board.clear_commands();
    return 0;
}
