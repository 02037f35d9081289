// The baseparameter partition on arbitrary contents: the display block is
// read back and a saved resolution written over it, whatever the connector
// table says.
#include <zlib.h>

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
    board.write_file("/dev/block/by-name/baseparameter",
                     std::string(reinterpret_cast<const char *>(data), size));

    ResolutionRecord saved;
    getSaveParameterInfo(&saved);
    ResolutionRecord r{{RESOLUTION_TIMING_MAGIC, 43973, 1024, 1072, 1104, 1184, 600, 603, 613,
                        619, 60},
                       0};
    r.crc = uint32_t(crc32(0L, reinterpret_cast<const Bytef *>(&r.timing), sizeof(r.timing)));
    saveResolutionToEmmc(&r);
    st_bi_sffe_resolution list[BI_RESOLUTION_LIST_MAX];
    bi_resolution_get_parameters_list(list);
    board.clear_log();
    return 0;
}
