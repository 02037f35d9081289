// parseConfigInfo on a product INI whose keys are the ones it reads and whose
// values are the input's lines, so that every key sees arbitrary text; lines
// beyond the keys are appended as they stand. Every text field of the record
// stays terminated inside itself and the numbers keep their defaults' rules.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sim/board.h"
#include "vexasdk/selftest.h"

namespace {

const char *const kKeys[][2] = {
    {"product", "product"},       {"block", "fpga_parameter"},     {"block", "hex_parameter"},
    {"fpga", "fpga_fw_path"},     {"fpga", "fpga_drv_path"},       {"fpga", "fpga_fw_version"},
    {"mcu", "mcu_fw_path"},       {"mcu", "mcu_fw_version"},       {"mcu", "mcu_type"},
    {"mcu", "mcu_serial"},        {"mcu", "mcu_sock_path"},        {"mcu", "mcu_uart_path"},
    {"self_test", "self_test_items"}, {"mcu", "mcu_baud_rate"},    {"mcu_wdt", "mcu_wdt_switch"},
    {"mcu_wdt", "mcu_wdt_pulse"}, {"mcu_wdt", "mcu_wdt_startup_type"}, {"fpga", "fpga_control_gpio"},
    {"fpga", "fpga_config_gpio"}, {"fpga", "fpga_done_gpio"},      {"self_test", "audio_num"},
};

template <size_t N> void expect_terminated(const char (&field)[N])
{
    if (std::memchr(field, '\0', N) == nullptr)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = vexa::sim::Board::Builder().build();
    const std::string input(reinterpret_cast<const char *>(data), size);
    std::string ini, rest;
    size_t at = 0;
    for (const auto &key : kKeys) {
        const size_t end = std::min(input.find('\n', at), input.size());
        ini += std::string("[") + key[0] + "]\n" + key[1] + " = " + input.substr(at, end - at) + "\n";
        at = std::min(end + 1, input.size());
    }
    board.write_file("/vendor/etc/product.ini", ini + input.substr(at));
    if (parseConfigInfo() != 0 || config_info == nullptr)
        std::abort();
    const config_info_t &c = *config_info;
    expect_terminated(c.product);
    expect_terminated(c.mcu_serial);
    expect_terminated(c.mcu_fw_path);
    expect_terminated(c.mcu_fw_version);
    expect_terminated(c.mcu_uart_path);
    expect_terminated(c.mcu_sock_path);
    expect_terminated(c.fpga_drv_path);
    expect_terminated(c.fpga_fw_path);
    expect_terminated(c.fpga_fw_version);
    expect_terminated(c.fpga_parameter);
    expect_terminated(c.hex_parameter);
    expect_terminated(c.self_test_items);
    for (int32_t gpio : {c.fpga_control_gpio, c.fpga_config_gpio, c.fpga_done_gpio})
        if (gpio < 1)
            std::abort();
    if (c.mcu_type < 0 || c.audio_num < 0)
        std::abort();
    board.clear_log();
    return 0;
}
