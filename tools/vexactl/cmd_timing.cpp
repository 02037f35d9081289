// timing: the timing record of a size from one of the CVT engines, and the
// X11 modeline of the floating-point engine's mode.
#include <cmath>
#include <string>

#include "tools/vexactl/command.h"
#include "vexasdk/display.h"

namespace vexactl {
namespace {

const char kEngines[] = "cvt-rb, cvt-rb2, vdc260 or float";

// The modeline print_xf86_mode() prints, as one line.
std::string modeline(const CvtMode &m)
{
    char line[256];
    snprintf(line, sizeof(line), "Modeline \"%dx%d_%.2f%s\"  %.2f  %d %d %d %d  %d %d %d %d %chsync %cvsync",
             m.hdisplay, m.vdisplay, double(m.v_freq), m.reduced_blank ? "R" : "",
             double(m.clock), m.hdisplay, m.hsync_start, m.hsync_end, m.htotal, m.vdisplay,
             m.vsync_start, m.vsync_end, m.vtotal, m.reduced_blank ? '+' : '-',
             m.reduced_blank ? '-' : '+');
    return line;
}

int run_timing(Context &ctx, const Args &args)
{
    const Command &command = command_named("timing");
    const long long fps = ctx.number("fps").value_or(60);
    const std::string engine = ctx.text("engine").value_or("cvt-rb");
    if (args.size() != 2)
        return usage_error(command, "needs a width and a height of 1 to 16384");
    const long long w = number_operand(args[0], "the width", 1, 16384);
    const long long h = number_operand(args[1], "the height", 1, 16384);

    ctx.board(); // the engines log to the board
    ResolutionTiming t{};
    int32_t ret;
    if (engine == "cvt-rb" || engine == "cvt-rb2") {
        const int64_t saved = VRate;
        VRate = fps * 1000;
        ret = engine == "cvt-rb" ? CalculateCVTRBStandard(uint32_t(w), uint32_t(h), &t)
                                 : CalculateCVTRB2Standard(uint32_t(w), uint32_t(h), &t);
        VRate = saved;
    } else if (engine == "vdc260") {
        ret = CalculateCVTRBStandard_VDC260_fps(uint32_t(w), uint32_t(h), uint32_t(fps), &t);
    } else if (engine == "float") {
        ret = calculate_cvtrb_timming(uint32_t(w), uint32_t(h), uint32_t(fps), "vexactl", &t);
    } else {
        return usage_error(command, "the engine is " + std::string(kEngines));
    }
    if (ret != 0)
        return fail("the %s engine gives no timing for %lldx%lld", engine.c_str(), w, h);

    CvtMode mode{};
    const bool have_mode =
        vert_refresh(int32_t(w), int32_t(h), float(fps), 0, 1, 0, 0, &mode) == 0;
    Table table({"engine", "clock_khz", "hdisplay", "hsync_start", "hsync_end", "htotal",
                 "vdisplay", "vsync_start", "vsync_end", "vtotal", "vrefresh_hz"});
    table.row({engine, t.clock, t.hdisplay, t.hsync_start, t.hsync_end, t.htotal, t.vdisplay, t.vsync_start,
               t.vsync_end, t.vtotal, t.vrefresh});
    if (ctx.json) {
        cJSON *out = cJSON_CreateObject();
        cJSON *rows = table.json();
        cJSON_AddItemToObject(out, "timing", cJSON_DetachItemFromArray(rows, 0));
        cJSON_Delete(rows);
        if (have_mode)
            cJSON_AddStringToObject(out, "modeline", modeline(mode).c_str());
        print_json(ctx, out);
        return 0;
    }
    table.print(ctx);
    if (have_mode)
        fprintf(ctx.out, "\n%s\n", modeline(mode).c_str());
    return 0;
}

VEXACTL_COMMAND(timing,
                {"timing", "W H [--fps F] [--engine cvt-rb|cvt-rb2|vdc260|float]",
                 "Compute the display timing of a size",
                 "Prints the timing record an engine gives for W x H at F Hz (default 60):\n"
                 "  cvt-rb   the integer CVT reduced-blanking engine (two passes)\n"
                 "  cvt-rb2  the same with CVT-RB2 blanking\n"
                 "  vdc260   CVT-RB with the clock snapped to the vdc260 video PLL\n"
                 "  float    the floating-point CVT engine, reduced blanking\n"
                 "and the X11 modeline of the floating-point engine's mode. The record's\n"
                 "refresh word is 60 for cvt-rb and cvt-rb2 whatever F is.",
                 run_timing,
                 {number("fps", "F", 1, 240, "the refresh rate in Hz (default 60)"),
                  text("engine", "NAME", "cvt-rb (default), cvt-rb2, vdc260 or float")}});

} // namespace
} // namespace vexactl
