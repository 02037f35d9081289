// What the MCU's ROM bootloader answers, as the flasher reads it off the
// serial line: the input's NUL-separated parts are what the far end of the
// line sends during a type detection, a memory read and an erase with a
// write. Whatever arrives (too little, too much, a length byte past the id's
// buffer), the flasher reads only into its buffers and never hangs.
#include <termios.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "mcu/mcu_internal.h"
#include "nul_parts.h"
#include "sim/board.h"
#include "sim/serial/serial_line.h"
#include "vexasdk/mcu.h"
#include "vexasdk/product_config.h"

namespace {

// A plain line of the default board: its far end is the bootloader's seat.
constexpr const char *kLine = "/dev/ttyS7";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = [] {
        auto b = vexa::sim::Board::Builder().build();
        bi_init_product_config();
        mcu_serial_init(kLine, 115200, 8, 1, 'N');
        return b;
    }();
    static const auto line = vexa::sim::serial_line(board, kLine);
    if (!line || vexa::mcu::serial_fd() < 0)
        std::abort();
    const auto parts = vexa::fuzz::nul_parts(data, size, 3, true);

    line->inject(parts[0]);
    ack_startisp();
    mcu_type_detect();

    tcflush(vexa::mcu::serial_fd(), TCIFLUSH);
    line->inject(parts[1]);
    std::vector<uint8_t> flash(300); // exact size: a sanitizer sees any overrun
    readmemory_4mcu(MCU_ISP_FLASH_BASE, flash.data(), static_cast<uint32_t>(flash.size()));

    tcflush(vexa::mcu::serial_fd(), TCIFLUSH);
    line->inject(parts[2]);
    const std::vector<uint8_t> image(300, 0xa5);
    erasememory_extend(MCU_ISP_FLASH_BASE, static_cast<uint32_t>(image.size()));
    writememory_2mcu(MCU_ISP_FLASH_BASE, image.data(), static_cast<uint32_t>(image.size()));

    tcflush(vexa::mcu::serial_fd(), TCIFLUSH);
    line->take_output();
    board.clear_log();
    board.clear_commands();
    return 0;
}
