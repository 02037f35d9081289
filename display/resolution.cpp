// The resolution API: checks a requested size against the product's limits,
// computes its timing and keeps it across reboots.
#include <cmath>
#include <cstring>
#include <string>

#include "display/display_internal.h"
#include "platform/android.h"
#include "platform/log.h"

namespace vexa::display {

namespace {
constexpr ResolutionBorder vdc260_row(uint32_t id)
{
    return {id, 480, 2048, 480, 2048, 2300000, 164000, CalculateCVTRBStandard_VDC260,
            CalculateCVTRBStandard};
}
constexpr ResolutionBorder cvtrb_row(uint32_t id, uint32_t min, uint32_t area, uint32_t clock)
{
    return {id, min, 4096, min, 4096, area, clock, CalculateCVTRBStandard, nullptr};
}
} // namespace

const ResolutionBorder kBorders[26] = {
    vdc260_row(38462),
    vdc260_row(38463),
    {38444, 512, 4096, 512, 3820, 2300000, 148500, calculateActiveResolutionGm2k, nullptr},
    {38448, 512, 4096, 512, 4096, 8847360, 594000, CalculateCVTRBStandard, CalculateCVTRB2Standard},
    {38449, 512, 4096, 512, 4096, 8847360, 594000, CalculateCVTRBStandard, CalculateCVTRB2Standard},
    cvtrb_row(38432, 512, 2300000, 153000),
    cvtrb_row(38441, 512, 2300000, 153000),
    cvtrb_row(38442, 512, 2300000, 153000),
    cvtrb_row(38443, 512, 2300000, 153000),
    cvtrb_row(38427, 512, 2300000, 153000),
    cvtrb_row(38428, 512, 2300000, 153000),
    cvtrb_row(38429, 512, 2300000, 153000),
    cvtrb_row(38456, 512, 2300000, 153000),
    cvtrb_row(38433, 512, 2300000, 153000),
    vdc260_row(38455),
    vdc260_row(38457),
    vdc260_row(38458),
    vdc260_row(38460),
    cvtrb_row(8459, 64, 2250000, 160000),
    cvtrb_row(8458, 64, 2600000, 200300),
    cvtrb_row(8460, 64, 2880000, 200300),
    cvtrb_row(8456, 64, 2880000, 200300),
    cvtrb_row(8462, 64, 2600000, 200300),
    cvtrb_row(8463, 64, 2880000, 200300),
    cvtrb_row(8457, 64, 2880000, 200300),
    vdc260_row(38467),
};

// An unknown product gets the limits of the last row.
const ResolutionBorder kDefaultBorder = vdc260_row(38467);

const ResolutionBorder *find_border(int32_t product_id)
{
    const ResolutionBorder *found = nullptr;
    for (const ResolutionBorder &row : kBorders) {
        if (int32_t(row.product_id) == product_id)
            found = &row;
    }
    return found;
}

namespace {
constexpr ResolutionRecord preset(uint32_t clock, uint32_t hd, uint32_t hss, uint32_t hse,
                                  uint32_t ht, uint32_t vd, uint32_t vss, uint32_t vse,
                                  uint32_t vt, uint32_t check = 8)
{
    return {{RESOLUTION_TIMING_MAGIC, clock, hd, hss, hse, ht, vd, vss, vse, vt, 60}, check};
}
} // namespace

const ResolutionRecord kPresets[15] = {
    preset(148500, 1920, 2008, 2052, 2200, 1080, 1084, 1089, 1125),
    preset(74250, 1280, 1390, 1430, 1650, 720, 725, 730, 750, 16),
    preset(154500, 1920, 1968, 2000, 2093, 1196, 1199, 1205, 1230),
    preset(148500, 1088, 1136, 1168, 1253, 1920, 1923, 1933, 1975),
    preset(136500, 1216, 1264, 1296, 1382, 1600, 1603, 1613, 1646),
    preset(151500, 1360, 1408, 1440, 1534, 1600, 1603, 1613, 1646),
    preset(153000, 1600, 1648, 1680, 1770, 1400, 1403, 1413, 1440),
    preset(150000, 1728, 1776, 1808, 1898, 1280, 1283, 1287, 1317),
    preset(142500, 960, 1008, 1040, 1127, 2048, 2051, 2061, 2107),
    preset(145500, 1800, 1848, 1880, 1963, 1200, 1203, 1213, 1235),
    preset(148500, 2048, 2096, 2128, 2227, 1080, 1083, 1093, 1111),
    preset(157500, 1080, 1128, 1160, 1245, 2048, 2051, 2061, 2107),
    preset(81000, 480, 528, 560, 640, 2048, 2051, 2061, 2107),
    preset(200210, 4096, 4144, 4176, 4256, 762, 765, 775, 784),
    preset(200220, 800, 848, 880, 960, 3380, 3383, 3393, 3476),
};

bool save_record(const ResolutionRecord &record)
{
    return saveResolutionToEmmc(&record) == 0;
}

} // namespace vexa::display

namespace {
using namespace vexa::display;
const char *const kTag = kResolutionTag;

// Products whose screens may be wider than one output and are split.
bool splits_wide_screens(int32_t id)
{
    static const int32_t ids[] = {38409, 38427, 38428, 38429, 38432, 38434, 38435,
                                  38436, 38437, 38441, 38442, 38443, 38456};
    for (int32_t v : ids) {
        if (v == id)
            return true;
    }
    return false;
}

void log_border(int priority, const ResolutionBorder &b)
{
    __android_log_print(priority, kTag, "Product border: %d, %d, %d, %d, %d, %d, %d\n",
                        int(b.product_id), int(b.min_width), int(b.max_width), int(b.min_height),
                        int(b.max_height), int(b.max_area), int(b.max_clock));
}

void log_timing(int priority, const char *prefix, const ResolutionTiming &t)
{
    __android_log_print(priority, kTag, "%s%d %d %d %d %d %d %d %d %d %d\n", prefix, int(t.clock),
                        int(t.hdisplay), int(t.hsync_start), int(t.hsync_end), int(t.htotal),
                        int(t.vdisplay), int(t.vsync_start), int(t.vsync_end), int(t.vtotal),
                        int(t.vrefresh));
}

bool in_range(const ResolutionBorder &b, uint32_t width, uint32_t height)
{
    return width >= b.min_width && width <= b.max_width && height >= b.min_height &&
           height <= b.max_height;
}

// The height that fits the area when the request is too large.
uint32_t limited_height(const ResolutionBorder &b, uint32_t width)
{
    // The first branch divides the height limit, not the area, by the width.
    return b.max_area / width <= b.max_height ? b.max_height / width : b.max_height;
}

const ResolutionRecord *find_preset(uint32_t width, uint32_t height, const uint32_t *fps)
{
    for (const ResolutionRecord &p : kPresets) {
        if (p.timing.hdisplay == width && p.timing.vdisplay == height &&
            (fps == nullptr || p.timing.vrefresh == *fps))
            return &p;
    }
    return nullptr;
}

// The size checks both entry points make before computing: the border row's
// range, then (unless saving) its area limit. 0, or the refusal's status.
int32_t check_size(const ResolutionBorder &b, uint32_t width, uint32_t height, int32_t save,
                   st_bi_sffe_resolution *result)
{
    if (!in_range(b, width, height))
        return -2;
    if (save != 1 && uint64_t(width) * height > b.max_area) {
        VEXA_LOGE(kTag, "Resolution bandwidth over load!\n");
        result->height = limited_height(b, width);
        result->status = -1;
        return -1;
    }
    return 0;
}

// The preset for an even size (at fps when given), announced as chosen.
const ResolutionRecord *chosen_preset(uint32_t w, uint32_t h, const uint32_t *fps)
{
    const ResolutionRecord *p = find_preset(w, h, fps);
    if (p != nullptr) {
        VEXA_LOGE(kTag, "Select preset resolution\n");
        property_set("vendor.display.resolution.state", "true");
    }
    return p;
}

// Steps common to both entry points once the timing is known: seal it,
// report it, judge it against the limits and save it when asked.
int32_t finish(ResolutionRecord &record, const ResolutionBorder &b, uint32_t even_height,
               int32_t save, bool log_success, st_bi_sffe_resolution *result)
{
    VEXA_LOGD(kTag, "start getcrc32\n");
    seal(record);
    const ResolutionTiming &t = record.timing;
    *result = {t.hdisplay, t.vdisplay, t.vrefresh, 1};
    if (t.clock > b.max_clock) {
        VEXA_LOGE(kTag, "Resolution pcolock over load!\n");
        result->status = -3;
    }
    if (t.vdisplay < even_height) {
        VEXA_LOGE(kTag, "Resolution height over load!\n");
        result->status = -1;
    }
    if (save == 0)
        return result->status;
    // Saved even when the status is -1 or -3: the caller asked for it.
    VEXA_LOGD(kTag, "start saveResolutionToEmmc\n");
    if (!save_record(record)) {
        VEXA_LOGE(kTag, "Failed to save resolution!\n");
        result->status = -4;
    } else if (log_success) {
        VEXA_LOGI(kTag, "save resolution success!\n");
    }
    return result->status;
}

bool ultra_enabled()
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get("persist.vexa.ultra_screen.enable", value, "0");
    return strcmp(value, "1") == 0 || strcmp(value, "true") == 0;
}
} // namespace

extern "C" {

VEXA_API int32_t bi_resolution_calculate_parameters(uint32_t width, uint32_t height, int32_t save,
                                                    st_bi_sffe_resolution *result)
{
    const int32_t product = getProductModel();
    if (product < 1) {
        VEXA_LOGE(kTag, "%s, product modID is null\n", __func__);
        return -1;
    }
    if (splits_wide_screens(product) && width >= 4097 && width <= 16368) {
        VEXA_LOGE(kTag, "%s: is ultra screen!\n", __func__);
        return calculate_ultra_resolution_parameters(width, height, save, result, product);
    }
    if (result == nullptr) {
        VEXA_LOGE(kTag, "%s, input st_bi_sffe_resolution is null\n", __func__);
        return -2;
    }
    *result = {width, height, 60, -2};

    // Sizes of the border table on the device, where a row holds 32-bit pointers.
    VEXA_LOGD(kTag, "sizeof(boundary): %d, sizeof(border): %d\n", 936, 36);
    const ResolutionBorder *row = find_border(product);
    const ResolutionBorder &b = row ? *row : kDefaultBorder;
    log_border(ANDROID_LOG_ERROR, b);
    if (const int32_t refused = check_size(b, width, height, save, result))
        return refused;

    const uint32_t w = width + (width & 1u);
    const uint32_t h = height + (height & 1u);
    ResolutionRecord record{};
    if (const ResolutionRecord *p = chosen_preset(w, h, nullptr)) {
        record = *p;
    } else {
        if (b.primary)
            b.primary(w, h, &record.timing);
        log_timing(ANDROID_LOG_ERROR, "First calculate_parameters: ", record.timing);
        if (record.timing.clock >= b.max_clock && b.alternative) {
            VEXA_LOGD(kTag, "%s\n", std::string(81, '=').c_str());
            b.alternative(w, h, &record.timing);
            log_timing(ANDROID_LOG_ERROR, "Last calculate_parameters: ===:", record.timing);
        }
    }
    return finish(record, b, h, save, false, result);
}

VEXA_API int32_t bi_resolution_calculate_parameters_fps(uint32_t width, uint32_t height,
                                                        uint32_t fps, int32_t save,
                                                        st_bi_sffe_resolution *result)
{
    const int32_t product = getProductModel();
    if (product < 1) {
        VEXA_LOGE(kTag, "%s, product modID is null\n", __func__);
        return -1;
    }
    const ResolutionBorder *row = find_border(product);
    if (row == nullptr) {
        VEXA_LOGE(kTag, "No match modID:%d\n", product);
        return -1;
    }
    if (result == nullptr) {
        VEXA_LOGE(kTag, "%s, input st_bi_sffe_resolution is null\n", __func__);
        return -2;
    }
    *result = {width, height, fps, -2};
    VEXA_LOGD(kTag, "sizeof(boundary): %d, sizeof(border): %d\n", 936, 36);
    const ResolutionBorder &b = *row;
    log_border(ANDROID_LOG_INFO, b);
    if (const int32_t refused = check_size(b, width, height, save, result))
        return refused;

    const uint32_t w = width + (width & 1u);
    const uint32_t h = height + (height & 1u);
    ResolutionRecord record{};
    if (const ResolutionRecord *p = chosen_preset(w, h, &fps)) {
        record = *p;
    } else {
        VEXA_LOGD(kTag, "custom resolution width:%d height:%d fps:%d\n", int(w), int(h),
                  int(fps));
        CalculateCVTRBStandard_VDC260_fps(w, h, fps, &record.timing);
        log_timing(ANDROID_LOG_INFO, "", record.timing);
    }
    return finish(record, b, h, save, true, result);
}

VEXA_API int32_t calculate_ultra_resolution_parameters(uint32_t width, uint32_t height,
                                                       int32_t save,
                                                       st_bi_sffe_resolution *result,
                                                       int32_t product_id)
{
    if (result == nullptr) {
        VEXA_LOGE(kTag, "%s, input st_bi_sffe_resolution is null\n", __func__);
        return -2;
    }
    *result = {width, height, 60, -2};
    if (!ultra_enabled()) {
        VEXA_LOGE(kTag, "%s: ultra screen is disabled\n", __func__);
        return -2;
    }
    int32_t part_width = 0, stacked_height = 0, factor = 0;
    const int32_t split = calculateDiscountResolution(int32_t(width), int32_t(height), &part_width,
                                                      &stacked_height, &factor);
    if (split != 0) {
        result->status = split == -3 ? -2 : -1;
        return result->status;
    }
    VEXA_LOGI(kTag, "%s: %ux%u split by %d into %dx%d\n", __func__, width, height, int(factor),
              int(part_width), int(stacked_height));
    const ResolutionBorder *row = find_border(product_id);
    const ResolutionBorder &b = row ? *row : kDefaultBorder;
    log_border(ANDROID_LOG_ERROR, b);
    // The parts stand one above the other in the output frame; the area limit
    // does not apply to a split screen.
    if (!in_range(b, uint32_t(part_width), uint32_t(stacked_height)))
        return -2;

    ResolutionRecord record{};
    calculateResolutionTimming(part_width, stacked_height, &b, &record.timing);
    seal(record);
    const ResolutionTiming &t = record.timing;
    *result = {width, height, t.vrefresh, 1};
    if (t.clock > b.max_clock) {
        VEXA_LOGE(kTag, "Resolution pcolock over load!\n");
        result->status = -3;
    }
    if (t.vdisplay < uint32_t(stacked_height)) {
        VEXA_LOGE(kTag, "Resolution height over load!\n");
        result->status = -1;
    }
    if (save == 0)
        return result->status;

    DisResolutionRecord split_record{};
    split_record.magic = RESOLUTION_TIMING_MAGIC;
    const uint32_t payload[11] = {width,   height,   uint32_t(part_width), uint32_t(factor),
                                  uint32_t(stacked_height), t.clock, t.htotal, t.vtotal,
                                  t.vrefresh, 0, 0};
    memcpy(split_record.payload, payload, sizeof(payload));
    split_record.crc = crc32_of(&split_record, offsetof(DisResolutionRecord, crc));
    if (!save_record(record) || saveDisResolutionToEmmc(&split_record) != 0) {
        VEXA_LOGE(kTag, "Failed to save resolution!\n");
        result->status = -4;
    }
    return result->status;
}

VEXA_API int32_t bi_resolution_get_parameters(st_bi_sffe_resolution *result)
{
    if (result == nullptr)
        return -1;
    ResolutionRecord saved;
    getSaveParameterInfo(&saved);
    *result = {saved.timing.hdisplay, saved.timing.vdisplay, saved.timing.vrefresh, 1};
    return 0;
}

VEXA_API int32_t bi_resolution_get_parameters_list(st_bi_sffe_resolution *list)
{
    if (list == nullptr)
        return 0;
    ResolutionRecord saved;
    getSaveParameterInfo(&saved);
    const ResolutionTiming &s = saved.timing;
    int32_t count = 0;
    // Nothing saved (a zero size or refresh): the list holds only the presets.
    const bool have_saved = s.hdisplay != 0 && s.vdisplay != 0 && s.vrefresh != 0;
    if (have_saved)
        list[count++] = {s.hdisplay, s.vdisplay, s.vrefresh, 1};
    for (const ResolutionRecord &p : kPresets) {
        const ResolutionTiming &t = p.timing;
        if (have_saved && t.hdisplay == s.hdisplay && t.vdisplay == s.vdisplay &&
            t.vrefresh == s.vrefresh)
            continue;
        list[count++] = {t.hdisplay, t.vdisplay, t.vrefresh, 1};
    }
    return count;
}

VEXA_API int32_t bi_resolution_get_edid_by_model(uint32_t width, uint32_t height, float refresh,
                                                 uint8_t *edid)
{
    VEXA_LOGD(kTag, "%s: is called\n", __func__);
    if (edid == nullptr) {
        VEXA_LOGE(kTag, "%s: edid pointer is NULL\n", __func__);
        return -1;
    }
    DetailedTiming timing;
    if (select_standard_resolution(&timing, width, height, refresh) != 0) {
        const int32_t ret = ResT_calDTD_by_model(&timing, width, height, refresh);
        if (ret != 0) {
            VEXA_LOGE(kTag, "%s: ResT_calDTD_by_model error, ret = %d\n", __func__, ret);
            return -1;
        }
    }
    uint8_t built[256];
    if (width < 4096 && height < 4096) {
        const int32_t ret = ResT_calEDID_by_DTD(default_edid, built, timing);
        if (ret != 0) {
            VEXA_LOGE(kTag, "%s: ResT_calEDID_by_DTD error, ret = %d\n", __func__, ret);
            return -1;
        }
    } else {
        VEXA_LOGD(kTag,
                  "%s: width(%u) > 4095 or height(%u) > 4095, use template as EDID from "
                  "defined\n",
                  __func__, width, height);
        memcpy(built, default_edid, sizeof(built));
    }
    memcpy(edid, built, sizeof(built));
    return 0;
}

VEXA_API int32_t bi_resolution_get_prefferred_timing_by_edid(const uint8_t *edid,
                                                             st_bi_sffe_resolution *mode)
{
    VEXA_LOGD(kTag, "%s: is called\n", __func__);
    if (edid == nullptr || mode == nullptr) {
        VEXA_LOGE(kTag, "%s: invalid edid_data or eff is NULL\n", __func__);
        return -1;
    }
    uint32_t words[9] = {};
    if (edid_parse_prefferred_timing(edid, words) != 0) {
        VEXA_LOGE(kTag, "%s: edid_parse_prefferred_timing failed\n", __func__);
        return -1;
    }
    const double pixels = double(words[4]) * double(words[8]);
    const uint32_t fps = pixels == 0.0 ? 0 : uint32_t(std::round(words[0] * 10000.0 / pixels));
    *mode = {words[1], words[7], fps, 1};
    VEXA_LOGD(kTag, "%s: fps = %u, width = %u, height = %u\n", __func__, fps, words[1], words[7]);
    return 0;
}

VEXA_API int32_t bi_resolution_get_display_type(void)
{
    return getresolutiontype();
}

VEXA_API int32_t bi_resolution_set_auto_mode(void)
{
    return formatVendor45();
}

VEXA_API int32_t bi_resolution_get_display_mode(void)
{
    return getDisplayMode();
}

} // extern "C"
