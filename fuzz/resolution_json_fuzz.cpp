// The product resolution JSON on arbitrary text: parsed, dumped and used for
// a timing request of the running product.
#include <cstdint>
#include <string>

#include "sim/board.h"
#include "vexasdk/display.h"
#include "vexasdk/product_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = vexa::sim::Board::Builder().build();
    static const bool loaded = (bi_init_product_config(), true);
    (void)loaded;
    const char *path = "/vendor/etc/vexa_product_resolution.json";
    board.write_file(path, std::string(reinterpret_cast<const char *>(data), size));
    ProductResolutionConfig entries[PRODUCT_RESOLUTION_CONFIG_MAX];
    const int32_t n = parse_config(path, entries);
    if (n > PRODUCT_RESOLUTION_CONFIG_MAX)
        __builtin_trap();
    if (n > 0)
        dump_config(entries, n);
    st_bi_sffe_resolution r;
    bi_timming_calculate_parameters(1920, 1080, 60, 0, &r);
    board.clear_log();
    return 0;
}
