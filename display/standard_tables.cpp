// The fixed 60 Hz timing tables and the small calculators that pick or derive
// a timing from them.
#include <cstdio>
#include <cstring>

#include "platform/log.h"
#include "vexasdk/display.h"

namespace {
const char *const kTag = "vexa_system_bi_resolution";
}

extern "C" {

// {clock kHz, hdisplay, hsync_start, hsync_end, htotal, vdisplay, vsync_start,
//  vsync_end, vtotal}
const uint32_t cea_standard_resolution[9][9] = {
    {25175, 640, 656, 752, 800, 480, 490, 492, 525},
    {27000, 720, 736, 798, 858, 480, 489, 495, 525},
    {74250, 1280, 1390, 1430, 1650, 720, 725, 730, 750},
    {13500, 720, 739, 801, 858, 240, 244, 247, 262},
    {54000, 2880, 2956, 3204, 3432, 240, 244, 247, 262},
    {54000, 1440, 1472, 1596, 1716, 480, 489, 495, 525},
    {148500, 1920, 2008, 2052, 2200, 1080, 1084, 1089, 1125},
    {108000, 2880, 2944, 3192, 3432, 480, 489, 495, 525},
    {99000, 1680, 1940, 1980, 2200, 720, 725, 730, 750},
};

const uint32_t dmt_standard_resolution[13][9] = {
    {40000, 800, 840, 968, 1056, 600, 601, 605, 628},
    {33750, 848, 864, 976, 1088, 480, 486, 494, 517},
    {65000, 1024, 1048, 1184, 1344, 768, 771, 777, 806},
    {79500, 1280, 1344, 1472, 1664, 768, 771, 778, 798},
    {83500, 1280, 1352, 1480, 1680, 800, 803, 809, 831},
    {108000, 1280, 1376, 1488, 1800, 960, 961, 964, 1000},
    {108000, 1280, 1328, 1440, 1688, 1024, 1025, 1028, 1066},
    {85500, 1360, 1424, 1536, 1792, 768, 771, 777, 795},
    {85500, 1366, 1436, 1579, 1792, 768, 771, 774, 798},
    {106500, 1440, 1520, 1672, 1904, 900, 903, 909, 934},
    {108000, 1600, 1624, 1704, 1800, 900, 901, 904, 1000},
    {162000, 1600, 1664, 1856, 2160, 1200, 1201, 1204, 1250},
    {146250, 1680, 1784, 1960, 2240, 1050, 1053, 1059, 1089},
};

// Mode numbers 17 to 21 at 60 Hz: the only rows GetDmtTiming looks up.
const TimingTableRow g_timing_table[] = {
    {17, 675, 600, 2200, 1125, 280, 44, 192, 45, 5, 41, {0, 0}},  // 1920x1080
    {18, 740, 600, 2080, 1235, 160, 32, 112, 35, 6, 32, {0, 0}},  // 1920x1200
    {19, 720, 600, 2250, 1200, 202, 80, 176, 48, 3, 47, {0, 0}},  // 2048x1152
    {20, 750, 600, 2160, 1250, 560, 192, 496, 50, 3, 49, {0, 0}}, // 1600x1200
    {21, 1350, 600, 4400, 2250, 560, 88, 384, 90, 10, 82, {0, 0}}, // 3840x2160
};
const uint32_t g_timing_table_rows = sizeof(g_timing_table) / sizeof(g_timing_table[0]);

const uint32_t def_pll[6] = {0, 27000, 40000, 65000, 74250, 148500};
const uint32_t def_pll_gmb4k[16] = {0,      27000,  40000,  65000,  74250,  148500,
                                    159000, 200000, 216000, 297000, 312000, 348000,
                                    408000, 464000, 500000, 594000};

} // extern "C"

namespace {
static_assert(sizeof(TimingTableRow) == 28, "row layout");

// Widths a screen can be split to: 4224 to 16256 by 128, then the last three.
struct SplitWidths {
    uint32_t w[98];
    constexpr SplitWidths() : w()
    {
        for (int i = 0; i < 95; ++i)
            w[i] = 4224 + 128 * uint32_t(i);
        w[95] = 16320;
        w[96] = 16352;
        w[97] = 16368;
    }
};
constexpr SplitWidths kSplitWidths;

bool fill_from_row(const uint32_t *row, DetailedTiming *out)
{
    out->h_active = uint16_t(row[1]);
    out->h_blank = uint16_t(row[4] - row[1]);
    out->v_active = uint16_t(row[5]);
    out->v_blank = uint16_t(row[8] - row[5]);
    out->h_sync_offset = uint16_t(row[2] - row[1]);
    out->h_sync_width = uint16_t(row[3] - row[2]);
    out->v_sync_offset = uint16_t(row[6] - row[5]);
    out->v_sync_width = uint16_t(row[7] - row[6]);
    // The row's own clock column is not used: the clock follows the totals.
    out->pixel_clock = row[4] * row[8] * 60u;
    out->sync_type = 3;
    out->sync_flags = 0;
    return out->pixel_clock != 0;
}
} // namespace

extern "C" {

VEXA_API int32_t select_standard_resolution(DetailedTiming *out, uint32_t hdisplay,
                                            uint32_t vdisplay, float refresh)
{
    if (out == nullptr)
        return -1;
    memset(out, 0, sizeof(*out));
    for (const auto &row : cea_standard_resolution) {
        if (row[5] == vdisplay && refresh == 60.0f && row[1] == hdisplay) {
            printf("%s: vdisplay and hdisplay and freq(60) in cea_standard_resolution table\n",
                   __func__);
            if (fill_from_row(row, out))
                return 0;
            break;
        }
    }
    for (const auto &row : dmt_standard_resolution) {
        if (row[5] == vdisplay && refresh == 60.0f && row[1] == hdisplay) {
            printf("%s: vdisplay and hdisplay and freq(60) in dmt_standard_resolution table\n",
                   __func__);
            return fill_from_row(row, out) ? 0 : -1;
        }
    }
    return -1;
}

VEXA_API int32_t GetDmtTiming(uint32_t hactive, uint32_t vactive, uint32_t vfreq_tenths,
                              TimingTableRow *out)
{
    uint32_t mode;
    if (hactive == 1600 && vactive == 1200)
        mode = 20;
    else if (hactive == 1920 && vactive == 1080)
        mode = 17;
    else if (hactive == 1920 && vactive == 1200)
        mode = 18;
    else if (hactive == 2048 && vactive == 1152)
        mode = 19;
    else if (hactive == 3840 && vactive == 2160)
        mode = 21;
    else
        return 0;
    if (out == nullptr)
        return 0;
    for (uint32_t i = 0; i < g_timing_table_rows; ++i) {
        const TimingTableRow &row = g_timing_table[i];
        const int32_t diff = int32_t(row.v_freq) - int32_t(vfreq_tenths);
        if (row.mode_number == mode && diff < 5 && diff > -5) {
            *out = row;
            return 1;
        }
    }
    return 0;
}

VEXA_API int32_t GetVideoTiming(uint32_t hactive, uint32_t vactive, uint32_t frame_rate,
                                TimingTableRow *out)
{
    if (out == nullptr)
        return 0;
    for (uint32_t i = 0; i < XVidC_VideoTimingModes_rows; ++i) {
        const XVidC_VideoTimingMode &m = XVidC_VideoTimingModes[i];
        if (m.h_active != hactive || m.v_active != vactive || m.frame_rate != frame_rate)
            continue;
        out->h_freq = uint16_t(frame_rate * m.f0_v_total / 100);
        out->v_freq = uint16_t(frame_rate * 10);
        out->htotal = m.h_total;
        out->vtotal = m.f0_v_total;
        out->h_blank = uint16_t(m.h_sync_width + m.h_back_porch + m.h_front_porch);
        out->h_sync = m.h_sync_width;
        out->h_sync_back = uint16_t(m.h_sync_width + m.h_back_porch);
        out->v_blank = uint16_t(m.f0_v_sync_width + m.f0_v_back_porch + m.f0_v_front_porch);
        out->v_sync = m.f0_v_sync_width;
        out->v_sync_back = uint16_t(m.f0_v_sync_width + m.f0_v_back_porch);
        // The byte after the vertical fields is cleared; the rest is left alone.
        reinterpret_cast<uint8_t *>(out->reserved)[0] = 0;
        return 1;
    }
    return 0;
}

VEXA_API void findClosestLarger(uint32_t *width)
{
    if (width == nullptr)
        return;
    int low = 0, high = 97;
    uint32_t result = 16368;
    while (low <= high) {
        const int mid = low + (high - low) / 2;
        const uint32_t entry = kSplitWidths.w[mid];
        if (entry == *width)
            return;
        if (entry > *width) {
            result = entry;
            high = mid - 1;
        } else {
            low = mid + 1;
        }
    }
    *width = result;
}

VEXA_API int32_t calculateDiscountResolution(int32_t width, int32_t height, int32_t *out_width,
                                             int32_t *out_height, int32_t *out_factor)
{
    if (width < 1 || height < 1) {
        VEXA_LOGE(kTag, "%s: illegal resolution\n", __func__);
        return -1;
    }
    if (out_width == nullptr || out_height == nullptr || out_factor == nullptr) {
        VEXA_LOGE(kTag, "%s: illegal input resolution\n", __func__);
        return -2;
    }
    if (width <= 4096) {
        *out_factor = 1;
        *out_width = width;
        *out_height = height;
        return 0;
    }
    if (width > 16368)
        return -3;
    const int32_t factor = width < 8193 ? 4 : 8;
    int32_t part = (width + factor - 1) / factor;
    if (part % 2 != 0)
        ++part;
    if (part > 4096) {
        VEXA_LOGE(kTag, "%s: resolution Discount Overflow\n", __func__);
        return -4;
    }
    const int64_t stacked = int64_t(factor) * height;
    if (stacked >= (int64_t(1) << 31)) {
        VEXA_LOGE(kTag, "%s: resolution height Overflow\n", __func__);
        return -5;
    }
    *out_factor = factor;
    *out_width = part;
    *out_height = int32_t(stacked);
    return 0;
}

VEXA_API int32_t calculateActiveResolutionGm2k(uint32_t width, uint32_t height,
                                               ResolutionTiming *out)
{
    if (width == 0 || height == 0 || out == nullptr) {
        VEXA_LOGE(kTag, "GMB2K: illegal data\n");
        return -1;
    }
    // The clock is fixed at 148.5 MHz, so the height follows from the width;
    // the requested height is ignored on purpose.
    const uint32_t htotal = width + 160;
    const uint32_t per_frame = htotal * 60;
    const uint32_t vtotal = per_frame == 0 ? 0 : 148500000u / per_frame;
    uint32_t vdisplay = vtotal - 45;
    if (vdisplay % 2 != 0)
        ++vdisplay;
    if (vdisplay > 3820)
        vdisplay = 3820;
    *out = ResolutionTiming{RESOLUTION_TIMING_MAGIC, 148500, width, width + 48, width + 80,
                            htotal, vdisplay, vdisplay + 3, vdisplay + 8, vtotal, 60};
    return 0;
}

VEXA_API int32_t calculateActiveResolutionRk3328(uint32_t width, uint32_t height,
                                                 ResolutionTiming *out)
{
    const uint32_t w = width + (width & 1u);
    const uint32_t line = (w + 160) * 60;
    const uint32_t f = uint32_t(uint64_t(line) * (height + 45) / 1000);
    if (width == 0 || height == 0 || out == nullptr) {
        VEXA_LOGE(kTag, "3328: illegal data\n");
        return -1;
    }
    // The two PLL lists lie next to each other and are scanned as one run;
    // the two words after them never match.
    uint32_t run[24] = {};
    memcpy(run, def_pll, sizeof(def_pll));
    memcpy(run + 6, def_pll_gmb4k, sizeof(def_pll_gmb4k));
    uint32_t clock = f;
    for (int i = 0; i < 23; ++i) {
        if (run[i] < f && f < run[i + 1]) {
            clock = run[i + 1];
            break;
        }
    }
    const uint32_t vtotal = line == 0 ? 0 : uint32_t(uint64_t(clock) * 1000 / line);
    *out = ResolutionTiming{RESOLUTION_TIMING_MAGIC, clock, w, w + 48, w + 80, w + 160,
                            height, height + 3, height + 8, vtotal, 60};
    return 0;
}

VEXA_API int32_t calculateResolutionTimming(int32_t width, int32_t height,
                                            const ResolutionBorder *config, ResolutionTiming *out)
{
    if (config == nullptr || out == nullptr) {
        VEXA_LOGE(kTag, "%s: Invalid input parameters!\n", __func__);
        return -1;
    }
    if (width < 1 || height < 1) {
        VEXA_LOGE(kTag, "%s: Invalid resolution dimensions!\n", __func__);
        return -1;
    }
    if (config->primary)
        config->primary(uint32_t(width), uint32_t(height), out);
    VEXA_LOGD(kTag,
              "%s: Initial timing parameters: clock=%d, h=%d/%d/%d/%d, v=%d/%d/%d/%d, "
              "refresh=%d\n",
              __func__, int(out->clock), int(out->hdisplay), int(out->hsync_start),
              int(out->hsync_end), int(out->htotal), int(out->vdisplay), int(out->vsync_start),
              int(out->vsync_end), int(out->vtotal), int(out->vrefresh));
    if (out->clock < config->max_clock || config->alternative == nullptr)
        return 0;
    VEXA_LOGD(kTag, "Using alternative timing calculation\n");
    config->alternative(uint32_t(width), uint32_t(height), out);
    VEXA_LOGD(kTag,
              "%s: Adjusted timing parameters: clock=%d, h=%d/%d/%d/%d, v=%d/%d/%d/%d, "
              "refresh=%d\n",
              __func__, int(out->clock), int(out->hdisplay), int(out->hsync_start),
              int(out->hsync_end), int(out->htotal), int(out->vdisplay), int(out->vsync_start),
              int(out->vsync_end), int(out->vtotal), int(out->vrefresh));
    return 0;
}

} // extern "C"
