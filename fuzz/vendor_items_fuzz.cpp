// The vendor-storage items the display reads (45, the saved resolution; 47,
// the extended record) holding arbitrary bytes: the first input byte is the
// length of item 45, the rest is item 47. On a product that keeps saved
// resolutions every reader answers within its rules and nothing is written
// past a caller's buffer.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "sim/board.h"
#include "sim/partitions/partitions.h"
#include "vexasdk/display.h"
#include "vexasdk/product_config.h"

namespace {

void put_item(const vexa::sim::Board &board, int item, const std::string &bytes)
{
    board.write_file(vexa::sim::partitions::vendor_item_path(item), bytes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = [] {
        auto b = vexa::sim::Board::Builder().module_id("38444").build();
        bi_init_product_config();
        put_item(b, 45, "");
        return b;
    }();
    if (size == 0)
        return 0;
    const std::string rest(reinterpret_cast<const char *>(data) + 1, size - 1);
    const size_t split = std::min<size_t>(data[0], rest.size());
    put_item(board, 45, rest.substr(0, split));
    put_item(board, 47, rest.substr(split));

    const int32_t type = getresolutiontype();
    const int32_t mode = getDisplayMode();
    if ((type != 0 && type != 1) || (mode != 0 && mode != 1) || bi_resolution_get_display_type() != type)
        std::abort();
    // A product that keeps saved resolutions reads item 45 for both answers.
    if (type == 1 && mode == 1)
        std::abort();
    for (uint16_t item : {45, 47}) {
        for (uint16_t len : {0, 1, 32, 48, 52, 64}) {
            std::vector<uint8_t> out(len + 8u, 0xa5);
            const int32_t rc = vexaGetVendorStorage(item, len, out.data());
            if (rc != 0 && rc != -1)
                std::abort();
            for (size_t i = len; i < out.size(); ++i)
                if (out[i] != 0xa5)
                    std::abort();
        }
    }
    board.clear_log();
    return 0;
}
