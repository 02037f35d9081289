// Display timing and EDID figures: calls per second of the CVT engines, the
// EDID builder and parser, and a saved resolution on the virtual board.
#include <zlib.h>

#include <chrono>
#include <cstdio>
#include <functional>

#include "sim/board.h"
#include "vexasdk/display.h"
#include "vexasdk/product_config.h"

namespace {

void measure(const char *what, int runs, const std::function<void(int)> &call)
{
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < runs; ++i)
        call(i);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printf("%-40s %8d calls  %10.2f us/call\n", what, runs, seconds * 1e6 / runs);
}

} // namespace

int main()
{
    vexa::sim::Board board = vexa::sim::Board::Builder().build();
    bi_init_product_config();
    const uint32_t widths[] = {640, 800, 1024, 1280, 1366, 1600, 1920, 2560, 3840};
    const uint32_t heights[] = {480, 600, 768, 720, 768, 900, 1080, 1440, 2160};

    ResolutionTiming t;
    measure("CalculateCVTRBStandard", 20000,
            [&](int i) { CalculateCVTRBStandard(widths[i % 9], heights[i % 9], &t); });
    measure("CalculateCVTRBStandard_VDC260_fps", 20000, [&](int i) {
        CalculateCVTRBStandard_VDC260_fps(widths[i % 9], heights[i % 9], 60, &t);
    });
    CvtMode mode;
    measure("vert_refresh (reduced blanking)", 200000,
            [&](int i) { vert_refresh(int32_t(widths[i % 9]), int32_t(heights[i % 9]), 60.0f, 0, 1, 0, 0, &mode); });
    uint8_t edid[256];
    measure("ResT_calEDID_by_model", 50000, [&](int i) {
        ResT_calEDID_by_model(default_edid, edid, widths[i % 9], heights[i % 9], 60.0f);
    });
    DetailedTiming dtd;
    measure("edid_parse_dtd + edid_create_dtd", 500000, [&](int) {
        edid_parse_dtd(default_edid + 54, &dtd);
        edid_create_dtd(&dtd, edid);
    });
    ResolutionRecord record{{RESOLUTION_TIMING_MAGIC, 148500, 1920, 2008, 2052, 2200, 1080, 1084,
                             1089, 1125, 60},
                            0};
    record.crc = uint32_t(crc32(0L, reinterpret_cast<const Bytef *>(&record.timing), 44));
    measure("saveResolutionToEmmc (virtual board)", 500,
            [&](int) { saveResolutionToEmmc(&record); });
    st_bi_sffe_resolution r;
    measure("bi_resolution_calculate_parameters", 2000,
            [&](int i) { bi_resolution_calculate_parameters(widths[i % 9] / 2 + 480, 600, 0, &r); });
    return 0;
}
