// The receiving cards: the card frame as the FPGA decodes it, and whole card
// reads and writes whose port, direction, address, length and data come from
// the input, answered by the board's FPGA (the poll status and the reply
// bytes the library takes apart).
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/fpga_wire.h"
#include "sim/board.h"
#include "vexasdk/fpga.h"
#include "vexasdk/product_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = [] {
        auto b = vexa::sim::Board::Builder().build();
        bi_init_product_config();
        return b;
    }();
    const std::vector<uint8_t> frame(data, data + size);
    if (auto decoded = vexa::fpga_wire::decode_card_frame(frame.data(), frame.size())) {
        if (decoded->length > vexa::fpga_wire::kCardMaxData)
            std::abort();
        const auto again = vexa::fpga_wire::card_frame(decoded->port, decoded->write, decoded->address,
                                                       decoded->data.data(), decoded->length);
        if (!vexa::fpga_wire::decode_card_frame(again.data(), again.size()))
            std::abort();
    }
    if (size < 8)
        return 0;
    PRODUCT_NUM = 2 + (data[0] & 1);
    // The model's knobs from the input: a silent port, no cards, a failing bus.
    board.set_knobs({{"fpga.silent_ports", std::to_string(data[1] & 3)},
                     {"fpga.cards", std::to_string(data[2] % 3)},
                     {"fpga.spi", data[3] == 0xFF ? "fail" : "ok"}});
    const uint8_t port = data[4] & 7;
    const int32_t direction = data[5] % 3;
    const uint32_t address = uint32_t(data[6]) << 8 | data[7];
    std::vector<uint8_t> payload(data + 8, data + size);
    const int32_t length = int32_t(std::min<size_t>(payload.size(), 1100));
    payload.resize(std::max<size_t>(payload.size(), 1));
    const int32_t result = bi_fpga_receive_card_test(port, direction, address, payload.data(), length);
    if (result > 0 && direction == 0 && result != length + 4)
        std::abort();
    uint8_t window[16];
    bi_fpga_read_0x02000000(0x2000000 + address % 0x210, window, int32_t(data[7] % 17));
    board.clear_log();
    return 0;
}
