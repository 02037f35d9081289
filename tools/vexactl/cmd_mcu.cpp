// The board MCU: mcu version, update, flash, links, watchdog.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <cjson/cJSON.h>

#include "platform/os.h"
#include "sim/serial/mcu_model.h"
#include "tools/vexactl/command.h"
#include "vexasdk/mcu.h"
#include "vexasdk/network.h"
#include "vexasdk/selftest.h"

namespace vexactl {
namespace {

int load_update_config(Context &ctx)
{
    ctx.board();
    if (parseConfigInfo() != 0)
        return fail("the update configuration could not be loaded; see 'vexactl log'");
    return 0;
}

// The MCU's line, opened as the update flow opens it.
int open_mcu(int *fd)
{
    *fd = serialInit();
    if (*fd < 0)
        return fail("cannot open the MCU line %s; see 'vexactl log'", config_info->mcu_uart_path);
    return 0;
}

std::string ask_version(int fd)
{
    char version[16] = {};
    if (getMcuFwVersion(fd, version) != 0)
        return "";
    return std::string(version, strnlen(version, 15));
}

int run_version(Context &ctx)
{
    int fd;
    if (int rc = open_mcu(&fd))
        return rc;
    const std::string version = ask_version(fd);
    vexa::os::close(fd);
    if (version.empty())
        return fail("the MCU did not answer the version request");
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "version", version.c_str());
        cJSON_AddStringToObject(o, "configured", config_info->mcu_fw_version);
        print_json(ctx, o);
    } else {
        std::fprintf(ctx.out, "%s\n", version.c_str());
    }
    return 0;
}

int run_update(Context &ctx)
{
    int fd;
    if (int rc = open_mcu(&fd))
        return rc;
    const int result = mcuFwUpdate(&fd);
    const std::string now = fd >= 0 ? ask_version(fd) : "";
    if (fd >= 0)
        vexa::os::close(fd);
    const bool updated = result == 0;
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddBoolToObject(o, "flashed", updated);
        cJSON_AddStringToObject(o, "version", now.c_str());
        cJSON_AddStringToObject(o, "configured", config_info->mcu_fw_version);
        print_json(ctx, o);
    } else if (updated) {
        std::fprintf(ctx.out, "update attempted; the MCU reports %s (configured %s)\n",
                     now.empty() ? "nothing" : now.c_str(), config_info->mcu_fw_version);
    } else {
        std::fprintf(ctx.out, "no update: the MCU reports %s, the configured version\n", now.c_str());
    }
    return 0;
}

void draw_progress(uint32_t done, uint32_t total, void *user)
{
    FILE *out = static_cast<FILE *>(user);
    const int width = 40;
    const int filled = total ? static_cast<int>(static_cast<uint64_t>(done) * width / total) : width;
    std::fprintf(out, "\r[%s%s] %3u%%", std::string(filled, '#').c_str(),
                 std::string(width - filled, ' ').c_str(),
                 total ? static_cast<unsigned>(100ull * done / total) : 100u);
    std::fflush(out);
}

int run_flash(Context &ctx, const Args &args)
{
    if (args.size() != 1)
        return usage_error(command_named("mcu"), "flash takes one FILE");
    std::string image = args[0];
    // A file of the host that the board does not have is copied in first.
    if (!ctx.board().exists(image) && std::filesystem::exists(image)) {
        std::ifstream in(image, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        image = "/data/vexactl/mcu_image.bin";
        ctx.board().write_file(image, bytes);
    }
    if (!ctx.board().exists(image))
        return fail("no such image: %s", args[0].c_str());
    const bool bar = !ctx.json && isatty(fileno(ctx.out));
    if (bar)
        mcu_isp_set_progress(draw_progress, ctx.out);
    const int result = mcu_tool_isp_task(image.c_str(), config_info->mcu_uart_path);
    mcu_isp_set_progress(nullptr, nullptr);
    if (bar)
        std::fprintf(ctx.out, "\n");
    if (result != 0)
        return fail("flashing failed (%d); see 'vexactl log'", result);
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "image", image.c_str());
        cJSON_AddStringToObject(o, "type", str_mcu_type[mcu_get_type()]);
        print_json(ctx, o);
    } else {
        std::fprintf(ctx.out, "flashed %s (%s)\n", image.c_str(), str_mcu_type[mcu_get_type()]);
    }
    return 0;
}

int run_links(Context &ctx)
{
    int fd;
    if (int rc = open_mcu(&fd))
        return rc;
    uint64_t mask = 0;
    const int result = getNetlinkStatusLoop(fd, &mask);
    vexa::os::close(fd);
    if (result != 0)
        return fail("the MCU did not report every port; see 'vexactl log'");
    Table table({"port", "link"});
    for (int port = 0; port < 40; ++port)
        table.row({port, (mask >> port) & 1u ? "up" : "down"});
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddNumberToObject(o, "mask", static_cast<double>(mask)); // 40 bits: exact in a double
        cJSON_AddItemToObject(o, "ports", table.json());
        print_json(ctx, o);
        return 0;
    }
    std::fprintf(ctx.out, "mask: 0x%010llx\n", static_cast<unsigned long long>(mask));
    table.print(ctx);
    return 0;
}

int run_watchdog(Context &ctx, const Args &args)
{
    const Command &command = command_named("mcu");
    if (args.empty())
        return usage_error(command, "watchdog needs open, close, feed or status");
    const int line = config_info->mcu_wdt_switch;
    const std::string &action = args[0];
    const long long seconds = ctx.number("seconds").value_or(5);
    if (args.size() != 1)
        return usage_error(command, "watchdog takes open, close, feed [--seconds N] or status");
    int32_t result = 0;
    if (action == "open") {
        result = bi_mcu_watchdog_open(line);
    } else if (action == "close") {
        result = bi_mcu_watchdog_close(line);
    } else if (action == "feed") {
        // The feeder never stops: it feeds while this command runs.
        result = bi_mcu_watchdog_start_feed(line);
        if (result == 0) {
            std::fprintf(ctx.out, "feeding line %d for %lld s\n", line, seconds);
            std::fflush(ctx.out);
            vexa::os::sleep_us(static_cast<uint64_t>(seconds) * 1000000u);
        }
    } else if (action != "status") {
        return usage_error(command, "watchdog takes open, close, feed or status");
    }
    if (result < 0)
        return fail("watchdog %s on line %d failed (%d); see 'vexactl log'", action.c_str(), line, result);
    auto model = vexa::sim::mcu_model(ctx.board());
    const auto seen = model ? model->watchdog(vexa::os::monotonic_ns()) : vexa::sim::McuModel::Watchdog{};
    Table table({"line", "level", "pulses_seen", "fed", "closed"});
    table.row({line, ctx.board().line(line), seen.edges, Cell::truth(seen.fed), Cell::truth(seen.closed)});
    table.print(ctx);
    if (action == "feed") {
        // The feeder thread never stops: leave without running the process's
        // destructors under its feet.
        std::fflush(ctx.out);
        std::fflush(stderr);
        std::_Exit(0);
    }
    return 0;
}

int run_mcu(Context &ctx, const Args &args)
{
    const Command &command = command_named("mcu");
    if (args.empty())
        return usage_error(command, "needs an action");
    if (int rc = load_update_config(ctx))
        return rc;
    const std::string &action = args[0];
    const Args rest(args.begin() + 1, args.end());
    if (action == "flash")
        return run_flash(ctx, rest);
    if (action == "watchdog")
        return run_watchdog(ctx, rest);
    if (!rest.empty())
        return usage_error(command, action + " takes no arguments");
    if (action == "version")
        return run_version(ctx);
    if (action == "update")
        return run_update(ctx);
    if (action == "links")
        return run_links(ctx);
    return usage_error(command, "unknown action " + action);
}

VEXACTL_COMMAND(mcu, {"mcu", "version | update | flash FILE | links | watchdog open|close|feed [--seconds N]|status",
                      "Talk to the board MCU: firmware version and update, flashing, port links, watchdog",
                      "version  asks the MCU for its firmware version.\n"
                      "update   runs the configured update: compares the version with mcu_fw_version\n"
                      "         and flashes mcu_fw_path through the ROM bootloader when they differ.\n"
                      "flash    flashes FILE (a board path, or a host file that is copied in)\n"
                      "         through the ROM bootloader, with a progress bar on a terminal.\n"
                      "links    reads the link state of the 40 output network ports.\n"
                      "watchdog drives the MCU watchdog line (mcu_wdt_switch): open, close (the\n"
                      "         closing pulses), feed (the feeder thread, for --seconds, default 5),\n"
                      "         status (the line and what the MCU saw in this process).",
                      run_mcu, {number("seconds", "N", 0, 86400, "watchdog feed: how long to feed")}});

} // namespace
} // namespace vexactl
