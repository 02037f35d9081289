// Waits that end on time. A host's timer wakes a thread late, by tens of
// microseconds on an idle machine and by a tenth of a millisecond or more on
// a busy one; on the board that lateness would count as wire time or stretch
// a protocol's fixed waits. A PreciseWait sleeps until shortly before the
// end, as long before as its timer has lately been late, and spins the rest.
// The spin is no longer than the timer has needed: a thread that spins long
// waits the longer for the CPU on its next wake-up when the host is busy.
#ifndef VEXA_SIM_PRECISE_WAIT_H
#define VEXA_SIM_PRECISE_WAIT_H

#include <atomic>
#include <chrono>
#include <cstdint>

namespace vexa::sim {

class PreciseWait {
public:
    // Returns at deadline, not before, and late by little more than a spin.
    // Safe to call from several threads.
    void until(std::chrono::steady_clock::time_point deadline);

private:
    // How late the timer has lately woken the thread (a running average).
    std::atomic<int64_t> late_ns_{50000};
};

} // namespace vexa::sim

#endif
