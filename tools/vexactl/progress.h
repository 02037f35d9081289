// vexactl's one progress bar, for every job that may take more than a
// second (flashing, compressing, feeding, updating).
//
//   Progress bar(ctx, "write", 250, "blocks"); // nothing is drawn yet
//   ...                                         // the job, on any thread:
//   bar.set(done);                              //   its own work so far
//   bar.note("2 failed");                       //   an addition to the line
//   bar.phase("verify", 250, "blocks");         // ends the line; a new phase
//   bar.finish();                               // or the destructor
//
// A job whose work is seen from outside (a file that grows, a model's
// counter) hands the bar a function instead, which the bar calls each time
// it draws; count from the job's start, never from the process's or the
// board's:
//
//   const uint64_t before = transfers();
//   bar.follow([&] { return transfers() - before; });
//
// A total of 0 means it is not known: the bar then shows a moving mark,
// the amount done and the time.
//
// The bar is drawn on vexactl's standard error, only when that is a
// terminal and -q was not given, and only once the job has run for a
// second: a shorter job shows nothing and a job on a pipe or in a log file
// leaves no trace. It is redrawn four times a second by its own thread, as
// one line ending in a carriage return; finish() draws the last state and
// ends the line.
#ifndef VEXACTL_PROGRESS_H
#define VEXACTL_PROGRESS_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace vexactl {

class Context;

// What one line of the bar shows.
struct BarState {
    std::string phase;   // "write", "compress"
    uint64_t done = 0;   // work done in this phase
    uint64_t total = 0;  // 0: not known
    std::string unit;    // "blocks", "bytes" (bytes are shown as KiB, MiB, GiB)
    std::string note;    // added after the amounts, or empty
    double seconds = 0;  // since the job began
};

// The line for a state, without the carriage return: "write     [######
// ....]  45%  112/250 blocks  1.4 s". Pure, for the bar and its tests.
std::string render_bar(const BarState &state);

// An amount with its unit: "250 blocks", bytes as "12.3 MiB".
std::string amount_text(uint64_t value, const std::string &unit);

// Ends the line of the bar drawn now, if any, so that a message printed on
// standard error starts a line of its own (fail() and say() call it); the
// bar goes on below it.
void break_progress_line();

class Progress {
public:
    Progress(const Context &ctx, std::string phase, uint64_t total, std::string unit);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // Whether the bar may be drawn at all (a terminal, no -q).
    bool shown() const { return out_ != nullptr; }

    void set(uint64_t done);
    void note(std::string text);
    void follow(std::function<uint64_t()> done);
    // Ends the current line (if drawn) and starts counting a new phase.
    void phase(std::string phase, uint64_t total, std::string unit);
    // Draws the last state (if the bar was drawn) and ends the line.
    void finish();

private:
    using Clock = std::chrono::steady_clock;
    void run();
    void draw_locked(bool last);

    friend void break_progress_line();
    FILE *out_ = nullptr;
    bool line_open_ = false; // a line of the bar waits for its end
    std::mutex mu_;
    std::condition_variable wake_;
    bool stop_ = false;
    bool visible_ = false;   // the bar has been drawn
    size_t width_ = 0;       // the length of the line last drawn
    BarState state_;
    std::atomic<uint64_t> done_{0};
    std::function<uint64_t()> follow_;
    Clock::time_point start_;
    std::thread thread_;
};

} // namespace vexactl

#endif
