// board serve: hosts the board's device models in the foreground, so outside
// programs can talk to its serial lines.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <csignal>
#include <string>

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

int run_board(Context &ctx, const Args &args)
{
    const Command &command = command_named("board");
    if (args.size() != 1 || args[0] != "serve")
        return usage_error(command, "the action is serve");
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

VEXACTL_COMMAND(board, {"board", "serve [--seconds N]",
                        "Host the board's device models in the foreground",
                        "Hosts the board's models in this process (taking them over from a\n"
                        "detached host) and prints each serial line with the pty an outside program\n"
                        "opens: a plain line's far end, where a terminal or a device's program sits,\n"
                        "and the MCU line's board side, where stm32flash sits in the SoC's seat (the\n"
                        "MCU model answers there). Runs until interrupted, or for --seconds.",
                        run_board, {number("seconds", "N", 0, 86400 * 365, "serve for N seconds, then leave")}});

} // namespace
} // namespace vexactl
