// board serve: hosts the board's device models in the foreground, so outside
// programs can talk to its serial lines. board fault: the models' knobs.
// board view: serves the board's live page.
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/os.h"
#include "sim/serial/mcu_model.h"
#include "sim/serial/serial_line.h"
#include "tools/vexactl/command.h"

namespace vexactl {
namespace {

volatile std::sig_atomic_t g_stop = 0;

void on_signal(int)
{
    g_stop = 1;
}

// board fault: lists every knob of the board's models, or sets them
// (MODEL.KNOB=VALUE) and clears them (MODEL.KNOB=), all or none.
int run_fault(Context &ctx, const Args &settings)
{
    auto &board = ctx.board();
    if (!settings.empty()) {
        std::vector<std::pair<std::string, std::string>> wanted;
        for (const std::string &setting : settings) {
            const auto eq = setting.find('=');
            if (eq == std::string::npos || eq == 0)
                throw UsageError("expected MODEL.KNOB=VALUE (or MODEL.KNOB= to clear), not '" + setting + "'");
            wanted.emplace_back(setting.substr(0, eq), setting.substr(eq + 1));
        }
        std::string refused;
        if (board.set_knobs(wanted, &refused) == 0)
            return 0;
        const int error = errno;
        const auto eq = refused.find('=');
        const std::string name = refused.substr(0, eq);
        const std::string value = eq == std::string::npos ? "" : refused.substr(eq + 1);
        if (error == ENOENT)
            throw UsageError("no knob '" + name + "' on this board; 'vexactl board fault' lists them");
        if (error == EINVAL) {
            std::string takes;
            for (const auto &row : board.knobs())
                if (row.name == name)
                    takes = row.takes;
            throw UsageError(name + " takes " + takes + ", not '" + value + "'");
        }
        return fail("the board's host did not take the knobs: %s", std::strerror(error));
    }
    const auto rows = board.knobs();
    if (rows.empty())
        return fail("the board's host lists no knobs");
    Table table({"name", "value", "takes", "help"});
    for (const auto &row : rows)
        table.row({row.name, row.value.empty() ? Cell::none() : Cell(row.value), row.takes, row.help});
    table.print(ctx);
    return 0;
}

// The view's program: $VEXA_BOARD_VIEW, else vexaboard-view in the libexec
// folder beside vexactl's, else the build tree's.
std::string view_program()
{
    if (const char *named = std::getenv("VEXA_BOARD_VIEW"); named && *named)
        return named;
    char self[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        std::string dir(self, static_cast<size_t>(n));
        dir.erase(dir.rfind('/'));
        const std::string installed = dir + "/../libexec/vexaboard-view";
        if (::access(installed.c_str(), X_OK) == 0)
            return installed;
    }
#ifdef VEXA_BOARD_VIEW_FALLBACK
    if (::access(VEXA_BOARD_VIEW_FALLBACK, X_OK) == 0)
        return VEXA_BOARD_VIEW_FALLBACK;
#endif
    return "";
}

// Serves the page from the view's own program, so that the HTTP server and
// what it brings load only for this command.
int run_view(Context &ctx)
{
    const std::string program = view_program();
    if (program.empty())
        return fail("the board's view is not installed (vexaboard-view; set VEXA_BOARD_VIEW to its path)");
    const std::string dir = ctx.board_dir.empty() ? vexa::sim::Board::default_root() : ctx.board_dir;
    const std::string port = std::to_string(ctx.number("port").value_or(0));
    const std::string listen = ctx.text("listen").value_or("127.0.0.1");
    std::fflush(ctx.out);
    // The view prints its address and its messages on vexactl's own
    // standard output and standard error.
    restore_standard_streams();
    const char *argv[] = {program.c_str(), "--board", dir.c_str(), "--port", port.c_str(), "--listen",
                          listen.c_str(), ctx.json ? "--json" : nullptr, nullptr};
    ::execv(program.c_str(), const_cast<char *const *>(argv));
    return fail("cannot run %s: %s", program.c_str(), std::strerror(errno));
}

int run_board(Context &ctx, const Args &args)
{
    const Command &command = command_named("board");
    if (!args.empty() && args[0] == "fault")
        return run_fault(ctx, Args(args.begin() + 1, args.end()));
    if (args.size() == 1 && args[0] == "view")
        return run_view(ctx);
    if (args.size() != 1 || args[0] != "serve")
        return usage_error(command, "the action is serve, fault or view");
    const long long seconds = ctx.number("seconds").value_or(-1);
    const std::string dir = ctx.board_dir.empty() ? vexa::sim::Board::default_root() : ctx.board_dir;
    // The board's models move here from a detached host, if one runs.
    if (!vexa::sim::Board::stop_host(dir))
        return fail("the board in %s is hosted by a process that does not leave", dir.c_str());
    vexa::sim::Board board = vexa::sim::Board::host(dir);
    auto mcu = vexa::sim::mcu_model(board);
    Table table({"line", "pty", "far_end"});
    for (auto &line : vexa::sim::serial_lines(board))
        table.row({line->board_path(), line->outside_path(), line == mcu ? "MCU model" : "outside program"});
    table.print(ctx);
    std::fflush(ctx.out);

    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    const uint64_t end = seconds < 0 ? UINT64_MAX
                                     : vexa::os::monotonic_ns() + static_cast<uint64_t>(seconds) * 1000000000u;
    // The models answer on their own threads; serve keeps them until it is
    // interrupted, its time is up, or the board folder goes away.
    while (!g_stop && !board.should_leave() && vexa::os::monotonic_ns() < end)
        ::usleep(20000);
    return 0;
}

VEXACTL_COMMAND(board, {"board",
                        "serve [--seconds N] | fault [MODEL.KNOB=VALUE...] | view [--port N] [--listen ADDR]",
                        "Host the board's device models in the foreground; list and set their fault knobs; "
                        "serve the board's live page",
                        "serve  hosts the board's models in this process (taking them over from a\n"
                        "       detached host) and prints each serial line with the pty an outside\n"
                        "       program opens: a plain line's far end, where a terminal or a device's\n"
                        "       program sits, and the MCU line's board side, where stm32flash sits in\n"
                        "       the SoC's seat (the MCU model answers there). Runs until interrupted,\n"
                        "       or for --seconds.\n"
                        "fault  lists every knob of the board's models: its name MODEL.KNOB, its\n"
                        "       value, the values it takes and what it does. MODEL.KNOB=VALUE sets a\n"
                        "       knob, MODEL.KNOB= clears it (back to its initial value); the settings\n"
                        "       of one command are taken all or none. Knobs are board state: every\n"
                        "       process on the board sees them, and 'vexactl status' shows those set.\n"
                        "view   serves a live page of the board and prints its address (with this\n"
                        "       run's token) as the first line (with --json: {\"url\", \"port\",\n"
                        "       \"token\"}), then serves until interrupted: lamps, relays, switches and\n"
                        "       inputs (a click drives an input), the fan, ADC, RTC alarms, watchdog,\n"
                        "       MCU, FPGA, serial consoles, display timing, the U-Boot environment, the\n"
                        "       log and the fault knobs, changed within a second of any process\n"
                        "       changing the board. It listens on 127.0.0.1 only, on a free port\n"
                        "       unless --port names one; --listen ADDR widens it (with a warning).",
                        run_board,
                        {number("seconds", "N", 0, 86400 * 365, "serve: serve for N seconds, then leave"),
                         number("port", "N", 0, 65535, "view: the port (default: a free one)"),
                         text("listen", "ADDR", "view: the address to listen on (default 127.0.0.1)")}});

} // namespace
} // namespace vexactl
