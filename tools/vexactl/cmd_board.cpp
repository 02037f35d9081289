// board serve: keeps the board's device models alive in the foreground, so
// outside programs can talk to its serial lines.
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
    vexa::sim::Board &board = ctx.board();
    auto lines = vexa::sim::serial_lines(board);
    auto mcu = vexa::sim::mcu_model(board);
    Table table({"line", "pty", "far_end"});
    for (auto &line : lines)
        table.row({line->board_path(), line->pty_path(), line == mcu ? "MCU model" : "printed here"});
    table.print(ctx);
    std::fflush(ctx.out);

    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    const uint64_t end = seconds < 0 ? UINT64_MAX
                                     : vexa::os::monotonic_ns() + static_cast<uint64_t>(seconds) * 1000000000u;
    // The models answer on their own threads; what outside programs write to
    // a plain line is printed here.
    while (!g_stop && vexa::os::monotonic_ns() < end) {
        bool quiet = true;
        for (auto &line : lines) {
            if (line == mcu)
                continue;
            const std::string bytes = line->take_output();
            if (!bytes.empty()) {
                quiet = false;
                if (!ctx.json)
                    std::fprintf(ctx.out, "%s <- %s\n", line->board_path().c_str(), bytes.c_str());
                std::fflush(ctx.out);
            }
        }
        if (quiet)
            ::usleep(20000);
    }
    return 0;
}

VEXACTL_COMMAND(board, {"board", "serve [--seconds N]",
                        "Keep the board's serial lines and MCU model alive in the foreground",
                        "Prints each serial line with the pty that leads to it; outside programs\n"
                        "(stm32flash, a terminal) open that pty. The MCU line is answered by the\n"
                        "MCU model; bytes written to a plain line are printed here. Runs until\n"
                        "interrupted, or for --seconds.",
                        run_board, {number("seconds", "N", 0, 86400 * 365, "serve for N seconds, then leave")}});

} // namespace
} // namespace vexactl
