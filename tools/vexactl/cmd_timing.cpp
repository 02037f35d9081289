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
    long w = 0, h = 0, fps = 60;
    std::string engine = "cvt-rb";
    std::vector<std::string> sizes;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--fps" && i + 1 < args.size()) {
            if (!parse_int(args[++i], &fps) || fps < 1 || fps > 240)
                return usage_error(command, "--fps takes a refresh of 1 to 240 Hz");
        } else if (args[i] == "--engine" && i + 1 < args.size()) {
            engine = args[++i];
        } else {
            sizes.push_back(args[i]);
        }
    }
    if (sizes.size() != 2 || !parse_int(sizes[0], &w) || !parse_int(sizes[1], &h) || w < 1 ||
        h < 1 || w > 16384 || h > 16384)
        return usage_error(command, "needs a width and a height of 1 to 16384");

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
        return fail("the %s engine gives no timing for %ldx%ld", engine.c_str(), w, h);

    CvtMode mode{};
    const bool have_mode =
        vert_refresh(int32_t(w), int32_t(h), float(fps), 0, 1, 0, 0, &mode) == 0;
    Table table({"engine", "clock_khz", "hdisplay", "hsync_start", "hsync_end", "htotal",
                 "vdisplay", "vsync_start", "vsync_end", "vtotal", "vrefresh"});
    table.row({engine, std::to_string(t.clock), std::to_string(t.hdisplay),
               std::to_string(t.hsync_start), std::to_string(t.hsync_end),
               std::to_string(t.htotal), std::to_string(t.vdisplay), std::to_string(t.vsync_start),
               std::to_string(t.vsync_end), std::to_string(t.vtotal), std::to_string(t.vrefresh)});
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
                 run_timing});

} // namespace
} // namespace vexactl
