// vexactl's progress bar: one line on standard error, redrawn by its own
// thread while a long job runs.
#include "tools/vexactl/progress.h"

#include <unistd.h>

#include "tools/vexactl/command.h"

namespace vexactl {

namespace {

constexpr int kBarWidth = 30;
constexpr auto kFirstDraw = std::chrono::seconds(1);
constexpr auto kRedraw = std::chrono::milliseconds(250);

// The bar being drawn, for break_progress_line. Taken before a bar's own
// lock, never after it.
std::mutex g_current_mu;
Progress *g_current = nullptr;

} // namespace

void break_progress_line()
{
    std::lock_guard<std::mutex> current(g_current_mu);
    if (!g_current)
        return;
    std::lock_guard<std::mutex> lock(g_current->mu_);
    if (g_current->line_open_) {
        std::fputc('\n', g_current->out_);
        std::fflush(g_current->out_);
        g_current->line_open_ = false;
        g_current->width_ = 0;
    }
}

std::string amount_text(uint64_t value, const std::string &unit)
{
    if (unit != "bytes")
        return std::to_string(value) + (unit.empty() ? "" : " " + unit);
    if (value < 1024)
        return std::to_string(value) + " bytes";
    const char *units[] = {"KiB", "MiB", "GiB", "TiB"};
    double scaled = static_cast<double>(value) / 1024;
    size_t at = 0;
    while (scaled >= 1024 && at + 1 < sizeof units / sizeof *units) {
        scaled /= 1024;
        ++at;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f %s", scaled, units[at]);
    return text;
}

std::string render_bar(const BarState &state)
{
    std::string bar(kBarWidth, ' ');
    std::string amounts;
    char percent[8] = "";
    if (state.total > 0) {
        const uint64_t done = state.done < state.total ? state.done : state.total;
        const auto filled = static_cast<size_t>(done * kBarWidth / state.total);
        bar.replace(0, filled, filled, '#');
        std::snprintf(percent, sizeof percent, "%3u%%", static_cast<unsigned>(done * 100 / state.total));
        amounts = state.unit == "bytes"
                      ? amount_text(state.done, state.unit) + " of " + amount_text(state.total, state.unit)
                      : std::to_string(state.done) + "/" + amount_text(state.total, state.unit);
    } else {
        // Not knowing the total, the bar shows that the job is alive: a
        // mark that goes to and fro, four steps a second.
        const int span = kBarWidth - 3;
        const int step = static_cast<int>(state.seconds * 4) % (2 * span);
        bar.replace(static_cast<size_t>(step < span ? step : 2 * span - step), 3, "<=>");
        if (!state.unit.empty())
            amounts = amount_text(state.done, state.unit);
    }
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f s", state.seconds);
    std::string line = state.phase;
    if (line.size() < 8)
        line.resize(8, ' ');
    line += " [" + bar + "]";
    if (*percent)
        line += std::string(" ") + percent;
    if (!amounts.empty())
        line += "  " + amounts;
    if (!state.note.empty())
        line += (amounts.empty() ? "  " : ", ") + state.note;
    line += "  " + std::string(seconds);
    return line;
}

Progress::Progress(const Context &ctx, std::string phase, uint64_t total, std::string unit)
    : start_(Clock::now())
{
    state_.phase = std::move(phase);
    state_.total = total;
    state_.unit = std::move(unit);
    FILE *err = errors();
    if (ctx.quiet || !::isatty(fileno(err)))
        return;
    out_ = err;
    {
        std::lock_guard<std::mutex> current(g_current_mu);
        g_current = this;
    }
    thread_ = std::thread([this] { run(); });
}

Progress::~Progress()
{
    {
        std::lock_guard<std::mutex> current(g_current_mu);
        if (g_current == this)
            g_current = nullptr;
    }
    finish();
}

void Progress::set(uint64_t done) { done_.store(done, std::memory_order_relaxed); }

void Progress::note(std::string text)
{
    std::lock_guard<std::mutex> lock(mu_);
    state_.note = std::move(text);
}

void Progress::follow(std::function<uint64_t()> done)
{
    std::lock_guard<std::mutex> lock(mu_);
    follow_ = std::move(done);
}

void Progress::phase(std::string phase, uint64_t total, std::string unit)
{
    std::lock_guard<std::mutex> lock(mu_);
    if (visible_)
        draw_locked(true);
    state_.phase = std::move(phase);
    state_.total = total;
    state_.unit = std::move(unit);
    state_.note.clear();
    done_.store(0, std::memory_order_relaxed);
}

void Progress::finish()
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (stop_)
            return;
        stop_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable())
        thread_.join();
    std::lock_guard<std::mutex> lock(mu_);
    if (visible_)
        draw_locked(true);
}

void Progress::run()
{
    std::unique_lock<std::mutex> lock(mu_);
    if (wake_.wait_until(lock, start_ + kFirstDraw, [this] { return stop_; }))
        return;
    do
        draw_locked(false);
    while (!wake_.wait_for(lock, kRedraw, [this] { return stop_; }));
}

// Draws the current state; the last draw of a phase ends its line. Once
// drawn, the bar shows every later phase too, if only its last state.
void Progress::draw_locked(bool last)
{
    if (follow_)
        done_.store(follow_(), std::memory_order_relaxed);
    state_.done = done_.load(std::memory_order_relaxed);
    state_.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    std::string line = render_bar(state_);
    const size_t width = line.size();
    if (width < width_)
        line.append(width_ - width, ' '); // wipe what a longer line left
    std::fprintf(out_, "\r%s%s", line.c_str(), last ? "\n" : "");
    std::fflush(out_);
    width_ = last ? 0 : width;
    line_open_ = !last;
    visible_ = true;
}

} // namespace vexactl
