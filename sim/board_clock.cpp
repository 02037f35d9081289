// The board's clock: timers and operations that take time.
#include "sim/board_clock.h"

#include <time.h>
#include <unistd.h>

#include <chrono>

#include "sim/precise_wait.h"
#include "sim/state.h"

namespace vexa::sim {

void BoardTimers::stop()
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        stop_ = true;
        timers_.clear();
    }
    wake_.notify_all();
    if (!thread_.joinable())
        return;
    // A forked child has a copy of the parent's handle but not its thread.
    if (thread_pid_ == ::getpid() && thread_.get_id() != std::this_thread::get_id())
        thread_.join();
    else
        thread_.detach();
}

uint64_t BoardTimers::add(uint64_t at_ns, std::function<void()> fn, const Now &now,
                          const std::function<bool()> &fast)
{
    std::lock_guard<std::mutex> lock(mu_);
    if (stop_)
        return 0;
    const uint64_t id = next_id_++;
    timers_.emplace(at_ns, std::make_pair(id, std::move(fn)));
    if (!thread_.joinable() || thread_pid_ != ::getpid()) {
        if (thread_.joinable())
            thread_.detach(); // the parent's, after a fork
        thread_pid_ = ::getpid();
        thread_ = std::thread([this, now, fast] { run(now, fast); });
    }
    wake_.notify_all();
    return id;
}

bool BoardTimers::cancel(uint64_t id)
{
    std::lock_guard<std::mutex> lock(mu_);
    for (auto it = timers_.begin(); it != timers_.end(); ++it)
        if (it->second.first == id) {
            timers_.erase(it);
            return true;
        }
    return false;
}

void BoardTimers::fire_due(const Now &now)
{
    for (;;) {
        std::function<void()> fn;
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (timers_.empty() || timers_.begin()->first > now())
                return;
            fn = std::move(timers_.begin()->second.second);
            timers_.erase(timers_.begin());
        }
        fn();
    }
}

std::function<void()> BoardTimers::take_due(uint64_t limit, uint64_t *at)
{
    std::lock_guard<std::mutex> lock(mu_);
    if (timers_.empty() || timers_.begin()->first > limit)
        return {};
    *at = timers_.begin()->first;
    std::function<void()> fn = std::move(timers_.begin()->second.second);
    timers_.erase(timers_.begin());
    return fn;
}

void BoardTimers::poke() { wake_.notify_all(); }

void BoardTimers::run(Now now, std::function<bool()> fast)
{
    std::unique_lock<std::mutex> lock(mu_);
    while (!stop_) {
        // With a fast clock the timers fire in the threads that move the
        // clock: the thread only waits to be told of a change.
        if (timers_.empty() || fast()) {
            wake_.wait(lock);
            continue;
        }
        const uint64_t at = timers_.begin()->first;
        const uint64_t t = now();
        if (at > t) {
            wake_.wait_for(lock, std::chrono::nanoseconds(at - t));
            continue;
        }
        lock.unlock();
        fire_due(now);
        lock.lock();
    }
}

namespace {

uint64_t real_now_ns()
{
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

} // namespace

uint64_t board_now_ns(const Board::State &s) { return real_now_ns() + uint64_t(s.clock_offset_ns.load()); }

void advance_board_clock(Board::State &s, uint64_t ns)
{
    if (!s.fast) {
        s.clock_offset_ns += int64_t(ns);
        s.timers.poke();
        clock_advanced(s);
        return;
    }
    // A fast clock's timers are set in what the board has slept (the
    // offset); the clock stops at every timer on the way, so that the timer
    // runs at its own time.
    const int64_t target = s.clock_offset_ns.load() + int64_t(ns);
    uint64_t at = 0;
    while (auto fn = s.timers.take_due(uint64_t(target), &at)) {
        int64_t offset = s.clock_offset_ns.load();
        while (offset < int64_t(at) && !s.clock_offset_ns.compare_exchange_weak(offset, int64_t(at))) {
        }
        fn();
    }
    int64_t offset = s.clock_offset_ns.load();
    while (offset < target && !s.clock_offset_ns.compare_exchange_weak(offset, target)) {
    }
    clock_advanced(s);
}

void take_board_time(Board::State &s, uint64_t ns)
{
    if (s.fast) {
        advance_board_clock(s, ns);
        return;
    }
    static PreciseWait wait;
    wait.until(std::chrono::steady_clock::now() + std::chrono::nanoseconds(ns));
}

namespace {

// `at` is board time in real time, what the board has slept with a fast
// clock. The timers and their thread belong to the state and end with it.
uint64_t add_timer(Board::State &s, uint64_t at, std::function<void()> fn)
{
    Board::State *state = &s;
    return s.timers.add(
        at, std::move(fn), [state] { return board_now_ns(*state); }, [state] { return state->fast.load(); });
}

} // namespace

uint64_t set_board_timer(Board::State &s, uint64_t at_ns, std::function<void()> fn)
{
    const uint64_t real = real_now_ns();
    return add_timer(s, s.fast ? (at_ns > real ? at_ns - real : 0) : at_ns, std::move(fn));
}

uint64_t set_board_timer_in(Board::State &s, uint64_t ns, std::function<void()> fn)
{
    return add_timer(s, s.fast ? uint64_t(s.clock_offset_ns.load()) + ns : board_now_ns(s) + ns, std::move(fn));
}

bool cancel_board_timer(Board::State &s, uint64_t id) { return s.timers.cancel(id); }

uint64_t Board::set_timer(uint64_t at_ns, std::function<void()> fn) const
{
    return set_board_timer(*state_, at_ns, std::move(fn));
}

bool Board::cancel_timer(uint64_t id) const { return cancel_board_timer(*state_, id); }

} // namespace vexa::sim
