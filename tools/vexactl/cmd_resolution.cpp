// resolution: set, read back and list the output resolution on the board.
#include <string>

#include "tools/vexactl/command.h"
#include "vexasdk/display.h"
#include "vexasdk/product_config.h"

namespace vexactl {
namespace {

std::string status_text(int32_t status)
{
    switch (status) {
    case 1:
        return "accepted (1)";
    case -1:
        return "too large (-1)";
    case -2:
        return "outside the product's range (-2)";
    case -3:
        return "clock above the product's limit (-3)";
    case -4:
        return "not saved (-4)";
    default:
        return "status " + std::to_string(status);
    }
}

void add_row(Table &table, const st_bi_sffe_resolution &r, bool json)
{
    const auto status = static_cast<int32_t>(r.status);
    table.row({r.width, r.height, r.refresh, json ? Cell(status) : Cell(status_text(status))});
}

int run_set(Context &ctx, const Command &command, const Args &args)
{
    const long long fps = ctx.number("fps").value_or(0);
    const bool save = ctx.flag("save");
    if (args.size() != 3)
        return usage_error(command, "set needs a width and a height");
    const long long w = number_operand(args[1], "the width", 1, 65535);
    const long long h = number_operand(args[2], "the height", 1, 65535);
    ctx.load_config();
    st_bi_sffe_resolution r{};
    const int32_t ret =
        fps ? bi_resolution_calculate_parameters_fps(uint32_t(w), uint32_t(h), uint32_t(fps), save, &r)
            : bi_resolution_calculate_parameters(uint32_t(w), uint32_t(h), save, &r);
    if (ret == -1 && r.width == 0 && r.height == 0)
        return fail("the product has no resolution limits (module id %d); see 'vexactl log'",
                    bi_product ? bi_product->mod_id : 0);
    Table table({"width", "height", "refresh_hz", "status"});
    add_row(table, r, ctx.json);
    table.print(ctx);
    if (r.status != 1)
        return fail("%lldx%lld: %s", w, h, status_text(static_cast<int32_t>(r.status)).c_str());
    return 0;
}

int run_resolution(Context &ctx, const Args &args)
{
    const Command &command = command_named("resolution");
    if (args.empty())
        return usage_error(command, "needs set, get or list");
    if (args[0] == "set")
        return run_set(ctx, command, args);
    if (args.size() != 1)
        return usage_error(command, args[0] + " takes no arguments");
    ctx.load_config();
    Table table({"width", "height", "refresh_hz", "status"});
    if (args[0] == "get") {
        st_bi_sffe_resolution r{};
        if (bi_resolution_get_parameters(&r) != 0)
            return fail("the saved resolution could not be read");
        add_row(table, r, ctx.json);
    } else if (args[0] == "list") {
        st_bi_sffe_resolution list[BI_RESOLUTION_LIST_MAX];
        const int32_t n = bi_resolution_get_parameters_list(list);
        for (int32_t i = 0; i < n; ++i)
            add_row(table, list[i], ctx.json);
    } else {
        return usage_error(command, "unknown action '" + args[0] + "'");
    }
    table.print(ctx);
    return 0;
}

VEXACTL_COMMAND(resolution,
                {"resolution", "set W H [--fps F] [--save] | get | list",
                 "Set, read back or list the output resolution",
                 "set: checks W x H against the product's limits and computes its timing\n"
                 "  (at F Hz with --fps); --save keeps it in vendor storage and the\n"
                 "  baseparameter partition. Exits non-zero unless the status is accepted.\n"
                 "get: the saved resolution, as the display driver will read it at boot.\n"
                 "list: the saved resolution and the presets.\n"
                 "Statuses: 1 accepted, -1 too large, -2 outside the product's range,\n"
                 "-3 clock above the product's limit, -4 not saved.",
                 run_resolution,
                 {number("fps", "F", 1, 240, "set: the refresh rate in Hz"),
                  flag("save", "set: keep the resolution for the next boot")}});

} // namespace
} // namespace vexactl
