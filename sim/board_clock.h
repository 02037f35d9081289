// The board's clock as the device models see it: what time it is, timers
// that fire when the clock reaches them, and operations that take time.
//
// A model whose device changes state after a while (an FPGA that reports
// done once its configuration has run, a watchdog that bites) sets a timer
// on the board's clock. With a fast clock the board's time is the host's
// plus what the board has slept; a timer counts only the latter, so that it
// fires after the same sleeps however busy the host is. It fires when
// something sleeps (a sleep, a poll that times out, an SPI transfer's bus
// time, Board::advance_clock) past it: the thread that sleeps calls the timers it
// passes, in order of their time and with the clock at each timer's time,
// before its sleep returns, so the library's poll loops see the change
// exactly when the device would show it, and what a timer records carries
// its own time. In real
// time a thread of the board calls them when their time comes; it sleeps
// until the next timer and has nothing to do while none is set.
//
// A device operation that itself takes time (a flash erase) calls
// take_board_time: with a fast clock the clock moves on at once, in real time
// the calling thread waits. A model's operation runs in the process that
// hosts the board, so a client waits while the host's thread that serves it
// waits.
//
// Threads: every call may be made from any thread. Timers run without any
// lock of the board's clock held; a timer may set or cancel timers.
#ifndef VEXA_SIM_BOARD_CLOCK_H
#define VEXA_SIM_BOARD_CLOCK_H

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace vexa::sim {

class BoardTimers {
public:
    BoardTimers() = default;
    ~BoardTimers() { stop(); }
    BoardTimers(const BoardTimers &) = delete;
    BoardTimers &operator=(const BoardTimers &) = delete;

    using Now = std::function<uint64_t()>;
    // Calls fn once the clock `now` reaches at; returns the timer's id
    // (0 once stopped: the timer is dropped). In real time (fast() false) the board's timer thread
    // calls it; with a fast clock (whose timers count the board's sleeps,
    // not `now`) the thread that sleeps past it.
    uint64_t add(uint64_t at, std::function<void()> fn, const Now &now, const std::function<bool()> &fast);
    // Takes a timer back before it fires; false when it fired or never was.
    bool cancel(uint64_t id);
    // Calls, in this thread and in order of their time, the timers due at
    // now() (and those they set that are due too).
    void fire_due(const Now &now);
    // Takes out the earliest timer due at `limit` or before: its function
    // (empty when none is due) and its time.
    std::function<void()> take_due(uint64_t limit, uint64_t *at);
    // The clock moved by other means than time passing (a fast clock's
    // switch, an advance in real time): the timer thread looks again.
    void poke();
    // Drops every timer and ends the thread (a board going away).
    void stop();

private:
    void run(Now now, std::function<bool()> fast);

    std::mutex mu_;
    std::condition_variable wake_;
    // By time, then by the order they were set in.
    std::multimap<uint64_t, std::pair<uint64_t, std::function<void()>>> timers_;
    uint64_t next_id_ = 1;
    bool stop_ = false;
    std::thread thread_;
    pid_t thread_pid_ = 0;
};

} // namespace vexa::sim

#endif
