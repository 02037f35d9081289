// The floating-point CVT engine (normal and reduced blanking, margins,
// interlace) and the printers of its modes.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/log.h"
#include "vexasdk/display.h"

extern "C" {
// The clock step and the cell rounding depart from the published CVT values
// (0.25 MHz and 8 pixels): the board's outputs take any 1 kHz clock and any
// width.
float CLOCK_STEP = 0.001f;
float CELL_GRAN = 1.0f;
float CELL_GRAN_RND = 1.0f;
float MIN_V_BPORCH = 3.0f;
float RB_V_FPORCH = 3.0f;
int32_t global_verbose = 0;
}

namespace {
const char *const kTag = "vexa_system_bi_resolution";

int vsync_for_aspect(double vdisplay, double h_rnd)
{
    const double cell = CELL_GRAN;
    struct Aspect {
        double k;
        int vsync;
    };
    static const Aspect aspects[] = {
        {4.0 / 3.0, 4}, {16.0 / 9.0, 5}, {16.0 / 10.0, 6}, {5.0 / 4.0, 7}, {15.0 / 9.0, 7},
    };
    for (const Aspect &a : aspects) {
        if (std::floor(vdisplay * a.k / cell) * cell == h_rnd)
            return a.vsync;
    }
    return 10;
}
} // namespace

extern "C" {

VEXA_API int32_t vert_refresh(int32_t hdisplay, int32_t vdisplay, float vfreq, int32_t interlaced,
                              int32_t reduced, int32_t margins, int32_t pulldown, CvtMode *mode)
{
    if (mode == nullptr || hdisplay <= 0 || vdisplay <= 0 || hdisplay > 65535 ||
        vdisplay > 65535 || !(vfreq > 0.0f) || !(vfreq < 100000.0f))
        return -1;
    const double cell = CELL_GRAN;
    const double h_rnd = double(CELL_GRAN_RND) * std::floor(hdisplay / double(CELL_GRAN_RND));
    const int vsync = vsync_for_aspect(vdisplay, h_rnd);

    const double h_margin = margins ? std::floor(h_rnd * 1.8 / 100.0 / cell) * cell : 0.0;
    const double active = h_rnd + 2.0 * h_margin;
    const double v_lines = interlaced ? std::floor(vdisplay / 2.0) : double(vdisplay);
    const double interlace = interlaced ? 0.5 : 0.0;
    const double v_margin = margins ? std::floor(v_lines * 0.018) : 0.0;

    double total_lines, total_pixels, clock, h_sync, h_back, v_front;
    if (reduced) {
        const double h_period = (1000000.0 / vfreq - 460.0) / (v_lines + 2.0 * v_margin);
        if (!(h_period > 0.0))
            return -1;
        const double vbi = std::floor(460.0 / h_period) + 1.0;
        const double min_vbi = double(RB_V_FPORCH) + vsync + 6.0;
        total_lines = std::max(min_vbi, vbi) + v_lines + 2.0 * v_margin + interlace;
        total_pixels = active + 160.0;
        clock = double(CLOCK_STEP) *
                std::floor(vfreq * total_lines * total_pixels / 1000000.0 / double(CLOCK_STEP));
        h_sync = 32.0;
        h_back = 80.0;
        v_front = RB_V_FPORCH;
    } else {
        const double h_period =
            (1.0 / vfreq - 0.00055) / (v_lines + 2.0 * v_margin + 3.0 + interlace) * 1000000.0;
        if (!(h_period > 0.0))
            return -1;
        const double vsync_bp = std::floor(550.0 / h_period);
        const double duty = std::max(30.0 - 300.0 * h_period / 1000.0, 20.0);
        const double h_blank =
            2.0 * cell * std::floor(active * duty / (100.0 - duty) / (2.0 * cell));
        total_pixels = active + h_blank;
        clock = double(CLOCK_STEP) * std::floor(total_pixels / h_period / double(CLOCK_STEP));
        h_sync = std::floor(total_pixels * 0.08 / cell) * cell;
        h_back = h_blank / 2.0;
        const double vsync_and_back = std::max(vsync + double(MIN_V_BPORCH), vsync_bp + 1.0);
        total_lines = v_lines + 2.0 * v_margin + vsync_and_back + interlace + 3.0;
        v_front = 3.0;
    }
    if (pulldown == 1)
        clock = clock * 1000.0 / 1001.0;
    const double h_freq = clock * 1000.0 / total_pixels;
    const double v_actual = h_freq * 1000.0 / total_lines;
    const double h_front = total_pixels - active - h_sync - h_back;

    mode->hdisplay = int32_t(h_rnd);
    mode->hsync_start = int32_t(h_rnd + h_front);
    mode->hsync_end = int32_t(h_rnd + h_front + h_sync);
    mode->htotal = int32_t(total_pixels);
    mode->vdisplay = vdisplay;
    mode->vsync_start = int32_t(vdisplay + v_front);
    mode->vsync_end = int32_t(vdisplay + v_front + vsync);
    mode->vtotal = int32_t(total_lines - v_lines + vdisplay);
    mode->clock = float(clock);
    mode->h_freq = float(h_freq);
    mode->v_freq = vfreq;
    mode->v_freq_actual = float(v_actual);
    mode->reduced_blank = reduced ? 1 : 0;
    mode->interlaced = interlaced ? 1 : 0;
    return 0;
}

VEXA_API int32_t convert_cvt_to_resolution(const CvtMode *mode, ResolutionTiming *out)
{
    if (mode == nullptr || out == nullptr)
        return -1;
    out->magic = RESOLUTION_TIMING_MAGIC;
    out->clock = uint32_t(mode->clock * 1000.0f);
    out->hdisplay = uint32_t(mode->hdisplay);
    out->hsync_start = uint32_t(mode->hsync_start);
    out->hsync_end = uint32_t(mode->hsync_end);
    out->htotal = uint32_t(mode->htotal);
    out->vdisplay = uint32_t(mode->vdisplay);
    out->vsync_start = uint32_t(mode->vsync_start);
    out->vsync_end = uint32_t(mode->vsync_end);
    out->vtotal = uint32_t(mode->vtotal);
    int32_t refresh = int32_t(mode->v_freq_actual);
    if (refresh >= 59 && refresh <= 61)
        refresh = 60;
    else if (refresh >= 49 && refresh <= 51)
        refresh = 50;
    else if (refresh >= 29 && refresh <= 31)
        refresh = 30;
    out->vrefresh = uint32_t(refresh);
    return refresh;
}

VEXA_API int32_t calculate_cvtrb_timming(uint32_t hactive, uint32_t vactive, uint32_t fps,
                                         const char *type_text, ResolutionTiming *out)
{
    if (hactive == 0 || vactive == 0 || out == nullptr) {
        VEXA_LOGE(kTag, "CVTRB: illegal data\n");
        return -1;
    }
    VEXA_LOGD(kTag, "%s CVTRB: hactive: %d, vactive: %d, fps: %d\n", __func__, int(hactive),
              int(vactive), int(fps));
    VEXA_LOGD(kTag, "%s type: %s\n", __func__, type_text ? type_text : "(null)");
    CvtMode m{};
    if (vert_refresh(int32_t(hactive), int32_t(vactive), float(fps), 0, 1, 0, 0, &m) != 0) {
        VEXA_LOGE(kTag, "CVTRB: illegal data\n");
        return -1;
    }
    VEXA_LOGD(kTag,
              "cvt_m: pclk: %f, hdisplay: %d, hsync_start: %d, hsync_end: %d, htotal: %d, "
              "vdisplay: %d, vsync_start: %d, vsync_end: %d, vtotal: %d, vrefresh: %f\n",
              double(m.clock), m.hdisplay, m.hsync_start, m.hsync_end, m.htotal, m.vdisplay,
              m.vsync_start, m.vsync_end, m.vtotal, double(m.v_freq_actual));
    convert_cvt_to_resolution(&m, out);
    VEXA_LOGD(kTag,
              "res: clock: %d, hdisplay: %d, hsync_start: %d, hsync_end: %d, htotal: %d, "
              "vdisplay: %d, vsync_start: %d, vsync_end: %d, vtotal: %d, vrefresh: %d\n",
              int(out->clock), int(out->hdisplay), int(out->hsync_start), int(out->hsync_end),
              int(out->htotal), int(out->vdisplay), int(out->vsync_start), int(out->vsync_end),
              int(out->vtotal), int(out->vrefresh));
    return 0;
}

VEXA_API void print_value(int32_t index, const char *name, float value)
{
    if (global_verbose)
        printf("%2d: %-27s: %15f\n", index, name ? name : "", double(value));
}

VEXA_API void print_xf86_mode(const CvtMode *m)
{
    if (m == nullptr)
        return;
    const double field_rate = m->interlaced ? m->v_freq_actual * 2.0 : m->v_freq_actual;
    printf("# %dx%d @ %.3f Hz %s%s(CVT) field rate %.3f Hz; hsync: %.3f kHz; pclk: %.2f MHz\n"
           "Modeline \"%dx%d_%.2f%s%s\"  %.2f  %d %d %d %d  %d %d %d %d %s%chsync %cvsync\n",
           m->hdisplay, m->vdisplay, double(m->v_freq), m->interlaced ? "Interlaced " : "",
           m->reduced_blank ? "Reduced Blank " : "", field_rate, double(m->h_freq),
           double(m->clock), m->hdisplay, m->vdisplay, double(m->v_freq),
           m->reduced_blank ? "R" : "", m->interlaced ? "i" : "", double(m->clock), m->hdisplay,
           m->hsync_start, m->hsync_end, m->htotal, m->vdisplay, m->vsync_start, m->vsync_end,
           m->vtotal, m->interlaced ? "Interlace " : "", m->reduced_blank ? '+' : '-',
           m->reduced_blank ? '-' : '+');
}

VEXA_API void print_fb_mode(const CvtMode *m)
{
    if (m == nullptr)
        return;
    printf("\nmode \"%dx%d %.2fHz %s%s32bit (CVT)\"\n"
           "    # PCLK: %.2f MHz, H: %.2f kHz, V: %.2f Hz\n"
           "    geometry %d %d %d %d 32\n",
           m->hdisplay, m->vdisplay, double(m->v_freq), m->interlaced ? "INT " : "",
           m->reduced_blank ? "RBlank " : "", double(m->clock), double(m->h_freq),
           double(m->v_freq_actual), m->hdisplay, m->vdisplay, m->hdisplay, m->vdisplay);
    const int period_ps = m->clock > 0.0f ? int(std::rint(1000000.0 / m->clock)) : 0;
    printf("    timings %d %d %d %d %d %d %d\n", period_ps, m->htotal - m->hsync_end,
           m->hsync_start - m->hdisplay, m->vtotal - m->vsync_end, m->vsync_start - m->vdisplay,
           m->hsync_end - m->hsync_start, m->vsync_end - m->vsync_start);
    printf("    hsync %s\n    vsync %s\n", m->reduced_blank ? "high" : "low",
           m->reduced_blank ? "low" : "high");
    if (m->interlaced)
        printf("    laced true\n");
    printf("endmode\n");
}

} // extern "C"
