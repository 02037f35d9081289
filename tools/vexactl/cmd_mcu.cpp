// The board MCU: mcu version, update, flash, links, watchdog.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <cjson/cJSON.h>

#include "platform/os.h"
#include "sim/serial/mcu_model.h"
#include "tools/vexactl/command.h"
#include "tools/vexactl/mcu_flasher.h"
#include "tools/vexactl/progress.h"
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

// The configured flow. mcuFwUpdate gives 0 after a flash attempt whether
// it took or not, and -1 both when nothing was needed and when the line did
// not reopen: the MCU's version afterwards tells which.
int run_update(Context &ctx)
{
    int fd;
    if (int rc = open_mcu(&fd))
        return rc;
    // The flow first asks the MCU for its version (up to ten tries, 1 s
    // apart), then flashes block by block when the version differs.
    struct Phases {
        Progress bar;
        bool writing = false;
    } phases{Progress(ctx, "version", 0, ""), false};
    mcu_isp_set_progress(
        [](uint32_t done, uint32_t total, void *user) {
            auto *p = static_cast<Phases *>(user);
            if (!p->writing) {
                p->bar.phase("write", (total + 255) / 256, "blocks");
                p->writing = true;
            }
            p->bar.set((done + 255) / 256);
        },
        &phases);
    const int result = mcuFwUpdate(&fd);
    mcu_isp_set_progress(nullptr, nullptr);
    phases.bar.finish();
    if (fd < 0)
        return fail("the MCU line did not reopen after the update; see 'vexactl log'");
    const std::string now = ask_version(fd);
    vexa::os::close(fd);
    const std::string configured = config_info->mcu_fw_version;
    const bool attempted = result == 0;
    const bool current = !now.empty() && now == configured;
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddBoolToObject(o, "flashed", attempted);
        cJSON_AddItemToObject(o, "version", now.empty() ? cJSON_CreateNull() : cJSON_CreateString(now.c_str()));
        cJSON_AddStringToObject(o, "configured", configured.c_str());
        cJSON_AddBoolToObject(o, "current", current);
        print_json(ctx, o);
    } else if (current) {
        std::fprintf(ctx.out, "%s: the MCU reports %s, the configured version\n",
                     attempted ? "updated" : "no update", now.c_str());
    }
    if (!current)
        return fail("%s: the MCU reports %s, not the configured %s; see 'vexactl log'",
                    attempted ? "the update did not take" : "no update was made",
                    now.empty() ? "no version" : now.c_str(), configured.c_str());
    return 0;
}

std::string hex32(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

int run_flash(Context &ctx, const Args &args)
{
    if (args.size() != 1)
        return usage_error(*ctx.command, "flash takes one FILE");
    const std::string &path = args[0];
    std::string image;
    if (!read_input(ctx, path, &image))
        return 1;
    const std::string name = path == "-" ? "the image from standard input" : path;
    if (image.empty())
        return fail("%s is empty: there is nothing to flash", name.c_str());
    if (image.size() > 0x7FFFFFFF)
        return fail("%s is too large", name.c_str());

    FlashRequest request;
    request.uart = config_info->mcu_uart_path;
    request.image = image;
    request.force = ctx.flag("force");
    request.verify = !ctx.flag("no-verify");
    bool failed_said = false;
    // Before the first block: the reset into the bootloader, the greeting,
    // the detection and the erase.
    Progress bar(ctx, "connect", 0, "");
    std::string phase = "connect";
    request.progress = [&](const char *now, uint32_t done, uint32_t failed, uint32_t total) {
        if (phase != now) {
            bar.phase(now, total, "blocks");
            phase = now;
        }
        bar.set(done);
        bar.note(failed ? std::to_string(failed) + " failed" : "");
        if (failed && !failed_said && !bar.shown())
            std::fprintf(errors(), "vexactl: the bootloader did not take block %u of %u; going on\n", done, total);
        failed_said = failed_said || failed;
    };
    const FlashReport report = flash_mcu(request);
    bar.finish();

    const char *type = report.type >= 0 && report.type < 5 ? str_mcu_type[report.type] : "MCU_UNKNOWN";
    using Stage = FlashReport::Stage;
    switch (report.stage) {
    case Stage::done:
        break;
    case Stage::no_line:
        return fail("cannot open the MCU line %s; see 'vexactl log'", request.uart.c_str());
    case Stage::no_answer:
        return fail("the MCU's bootloader does not answer on %s; see 'vexactl log'", request.uart.c_str());
    case Stage::refused:
        fail("%s (%zu bytes) does not fit the erase of the %s: %s", name.c_str(), image.size(), type,
             report.check.why.c_str());
        return fail("%s; --force flashes it as it is", report.check.need.c_str());
    case Stage::erase_refused:
        return fail("the bootloader did not acknowledge the erase; nothing written; see 'vexactl log'");
    case Stage::blocks_failed:
        return fail("flashing failed: the bootloader did not take %u of %u blocks, the first at %s",
                    report.failed, report.blocks, hex32(report.first_failed).c_str());
    case Stage::read_failed:
        return fail("written, but the read-back failed at %s: the flash is not verified",
                    hex32(report.first_unread).c_str());
    case Stage::differs:
        return fail("the flash does not hold the image: the first difference is at %s (flash 0x%02x, image "
                    "0x%02x)",
                    hex32(report.first_difference).c_str(), report.flash_byte, report.image_byte);
    }
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "image", path.c_str());
        cJSON_AddNumberToObject(o, "size_bytes", static_cast<double>(image.size()));
        cJSON_AddStringToObject(o, "type", type);
        cJSON_AddNumberToObject(o, "blocks", report.blocks);
        cJSON_AddBoolToObject(o, "verified", report.verified);
        cJSON_AddBoolToObject(o, "erase_covers_image", report.check.covered);
        print_json(ctx, o);
    } else {
        std::fprintf(ctx.out, "flashed %s (%zu bytes) to the %s, %s\n", name.c_str(), image.size(), type,
                     report.verified ? "read back equal" : "not read back (--no-verify)");
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
        table.row({port, Cell::truth((mask >> port) & 1u, "up", "down")});
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
            // The feeder pulses the line while this command waits; the bar
            // counts the seconds fed.
            Progress bar(ctx, "feed", static_cast<uint64_t>(seconds), "s");
            const uint64_t total_us = static_cast<uint64_t>(seconds) * 1000000u;
            for (uint64_t slept = 0; slept < total_us;) {
                const uint64_t step = std::min<uint64_t>(250000u, total_us - slept);
                vexa::os::sleep_us(step);
                slept += step;
                bar.set(slept / 1000000u);
            }
        }
    } else if (action != "status") {
        return usage_error(command, "watchdog takes open, close, feed or status");
    }
    if (result < 0)
        return fail("watchdog %s on line %d failed (%d); see 'vexactl log'", action.c_str(), line, result);
    const auto seen = vexa::sim::mcu_watchdog(ctx.board(), vexa::os::monotonic_ns())
                          .value_or(vexa::sim::McuWatchdogView{});
    Table table({"line", "level", "pulses_seen", "fed", "closed"});
    table.row({line, ctx.board().line(line), seen.edges, Cell::truth(seen.fed), Cell::truth(seen.closed)});
    table.print(ctx);
    if (action == "feed") {
        // The feeder thread never stops: leave without running the process's
        // destructors under its feet.
        std::fflush(ctx.out);
        std::fflush(ctx.std_out);
        std::fflush(errors());
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

VEXACTL_COMMAND(mcu, {"mcu", "version | update | flash FILE|- [--force] [--no-verify] | links | watchdog open|close|feed [--seconds N]|status",
                      "Talk to the board MCU: firmware version and update, flashing, port links, watchdog",
                      "version  asks the MCU for its firmware version.\n"
                      "update   runs the configured update: compares the version with mcu_fw_version\n"
                      "         and flashes mcu_fw_path through the ROM bootloader when they differ;\n"
                      "         exits non-zero unless the MCU then reports the configured version.\n"
                      "flash    flashes FILE ('-': standard input; the board's own image is\n"
                      "         /vendor/etc/mcu/mcu_fw.bin)\n"
                      "         through the ROM bootloader: greets it, detects the MCU, refuses an\n"
                      "         image its page erase cannot cover (unless --force), erases, writes\n"
                      "         block by block, reads the flash back and compares (unless\n"
                      "         --no-verify). A progress bar on a terminal counts the blocks,\n"
                      "         failed ones too. Exits non-zero with the first failed block or\n"
                      "         the first differing address.\n"
                      "links    reads the link state of the 40 output network ports.\n"
                      "watchdog drives the MCU watchdog line (mcu_wdt_switch): open, close (the\n"
                      "         closing pulses), feed (the feeder thread, for --seconds, default 5),\n"
                      "         status (the line and what the MCU saw in this process).",
                      run_mcu,
                      {number("seconds", "N", 0, 86400, "watchdog feed: how long to feed"),
                       flag("force", "flash: flash an image the erase cannot cover"),
                       flag("no-verify", "flash: do not read the flash back")}});

} // namespace
} // namespace vexactl
