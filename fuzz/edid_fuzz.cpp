// The EDID parsers and builders on arbitrary bytes: the input, padded to 256
// bytes, is an EDID and a template; every 18-byte descriptor slot of both
// blocks is parsed, converted and packed again.
#include <cstdint>
#include <cstring>

#include "sim/board.h"
#include "vexasdk/display.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = vexa::sim::Board::Builder().bare().build();
    uint8_t edid[256] = {};
    memcpy(edid, data, size < sizeof(edid) ? size : sizeof(edid));

    EdidInfo info;
    edid_parse_block0(edid, &info);
    for (size_t at = 0; at + 18 <= sizeof(edid); ++at) {
        DetailedTiming t;
        const int32_t valid = edid_parse_dtd(edid + at, &t);
        EdidModeline line;
        EdidVideoMode mode;
        edid_dtd2modeline_convert(&t, &line);
        edid_dtd2modeline2_convert(&t, &mode);
        uint8_t again[18];
        edid_create_dtd(&t, again);
        // A valid descriptor whose clock needed no snapping packs back as it was.
        if (valid && t.pixel_clock == uint32_t(edid[at] | edid[at + 1] << 8) * 10000u &&
            memcmp(again, edid + at, 18) != 0)
            __builtin_trap();
    }
    uint32_t words[9];
    edid_parse_prefferred_timing(edid, words);
    st_bi_sffe_resolution preferred;
    bi_resolution_get_prefferred_timing_by_edid(edid, &preferred);

    uint8_t out[256];
    DetailedTiming t;
    edid_parse_dtd(edid + 54, &t);
    if (ResT_calEDID_by_DTD(edid, out, t) == 0 && ResT_verify_EDID(out) != 0)
        __builtin_trap();
    board.clear_log();
    return 0;
}
