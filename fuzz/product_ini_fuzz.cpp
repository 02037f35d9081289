// The product INI loader on arbitrary bytes as "/vendor/etc/product.ini".
#include <cstdint>
#include <string>

#include "sim/board.h"
#include "vexasdk/product_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = vexa::sim::Board::Builder().build();
    board.write_file("/vendor/etc/product.ini", std::string(reinterpret_cast<const char *>(data), size));
    bi_init_product_config();
    board.clear_log();
    return 0;
}
