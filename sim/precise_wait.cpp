#include "sim/precise_wait.h"

#include <algorithm>
#include <thread>

namespace vexa::sim {

namespace {

// The longest spin, and what a spin adds to the timer's usual lateness.
constexpr std::chrono::nanoseconds kMaxSpin = std::chrono::microseconds(300);
constexpr std::chrono::nanoseconds kSpinMargin = std::chrono::microseconds(10);

} // namespace

void PreciseWait::until(std::chrono::steady_clock::time_point deadline)
{
    using std::chrono::nanoseconds;
    const nanoseconds late_avg{late_ns_.load(std::memory_order_relaxed)};
    const auto wake = deadline - std::min(kMaxSpin, 2 * late_avg + kSpinMargin);
    if (wake > std::chrono::steady_clock::now()) {
        std::this_thread::sleep_until(wake);
        // Each wake-up's lateness counts up to the longest spin.
        const auto late = std::min<nanoseconds>(std::chrono::steady_clock::now() - wake, kMaxSpin);
        late_ns_.store((late_avg + (late - late_avg) / 16).count(), std::memory_order_relaxed);
    }
    while (std::chrono::steady_clock::now() < deadline) {
    }
}

} // namespace vexa::sim
