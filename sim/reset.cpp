// Resets of the board: what its reset line does (a watchdog that bites, a
// test that asks), recorded as the device records a reset and carried out by
// the models that registered for it.
//
//   ROOT/.board/boot   the time the board last booted, in seconds since the epoch
#include <ctime>

#include "sim/state.h"

namespace vexa::sim {

void reset_board(Board::State &s, const std::string &reason)
{
    append_state(s, "reboots", escape_line(reason));
    write_state(s, "boot", std::to_string(static_cast<long long>(::time(nullptr)) +
                                          s.clock_offset_ns.load() / 1000000000) + "\n");
    std::vector<std::function<void(const std::string &)>> hooks;
    {
        std::lock_guard<std::mutex> lock(s.mu);
        hooks = s.reset_hooks;
    }
    for (const auto &hook : hooks)
        hook(reason);
}

void Board::on_reset(std::function<void(const std::string &reason)> hook) const
{
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->reset_hooks.push_back(std::move(hook));
}

void Board::reset(const std::string &reason) const
{
    call_service(*state_, "board.reset", reason);
}

} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_SEEDER(boot)
{
    board.write_file("/.board/boot", std::to_string(static_cast<long long>(::time(nullptr))) + "\n");
}

VEXA_SIM_ATTACHER(reset)
{
    std::weak_ptr<Board::State> weak = attached();
    board.serve("board.reset", [weak](const std::string &reason) -> std::string {
        if (auto s = weak.lock())
            reset_board(*s, reason.empty() ? "reset" : reason);
        return "ok";
    });
}
