// The virtual board's internal state, shared by the core's files.
#ifndef VEXA_SIM_STATE_H
#define VEXA_SIM_STATE_H

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "sim/board.h"
#include "sim/board_clock.h"
#include "sim/folder.h"
#include "sim/journal.h"

namespace vexa::sim {

class Host;
class HostLink;

struct Board::State {
    std::string root;
    bool temporary = false;
    std::atomic<bool> fast{false};
    std::atomic<int64_t> clock_offset_ns{0};

    struct FaultSlot {
        Fault fault;
        int seen = 0;
        int fired = 0;
        long long budget_left = -1;
    };
    struct OpenFile {
        std::string board_path;
        std::shared_ptr<DeviceModel> model;
        bool writable = false;
    };

    // The board's journals (sim/journal.h), kept open by the process.
    std::unique_ptr<Journal> log_journal, property_journal, gpio_journal;
    std::mutex property_mu; // guards properties: what the journal said so far
    std::map<std::string, std::string> properties;
    struct Line {
        int level = 0;
        std::string direction = "in";
    };
    std::mutex gpio_mu; // guards gpio: what the journal said so far
    std::map<int, Line> gpio;

    // Exactly one of these once attached: this process hosts the board's
    // models, or reaches them through the host (sim/host.h).
    std::unique_ptr<Host> host;
    std::unique_ptr<HostLink> link;
    bool host_started = false;    // the attachers ran and the host listens
    std::unique_ptr<Journal> log_follow; // Board::new_log's cursor
    std::mutex link_mu; // guards link while it is made anew (after a fork)

    std::mutex mu; // guards everything below
    std::vector<FaultSlot> faults;
    std::map<std::string, std::shared_ptr<DeviceModel>> models;
    std::map<int, OpenFile> open_files;
    std::map<std::string, CommandHandler> commands;
    std::map<std::string, MountHandler> mount_handlers; // by source device
    std::map<std::string, Service> services;
    std::multimap<std::string, FileWatcher> file_watchers; // by board path
    std::map<FILE *, int> popen_status;
    // Called after this process moved the board's clock on (a fast sleep,
    // a fast poll, advance_clock), and when the board is reset; replaced
    // whole when one is added, so a sleep copies nothing.
    std::shared_ptr<const std::vector<std::function<void()>>> clock_listeners =
        std::make_shared<std::vector<std::function<void()>>>();
    std::vector<std::function<void(const std::string &)>> reset_hooks;
    std::map<std::string, Knob> knob_table; // the knobs registered in this process
    std::mutex knob_mu; // guards the copy of ROOT/.board/knobs below
    std::string knob_stamp;
    std::map<std::string, std::string> knob_set;
    mutable std::mutex watch_mu; // guards line_watchers
    // Replaced whole when one is added, so a drive copies no watcher.
    std::shared_ptr<const std::vector<Board::LineWatcher>> line_watchers =
        std::make_shared<std::vector<Board::LineWatcher>>();

    // Timers on the board's clock (sim/board_clock.h); last, so that their
    // thread ends before anything it may reach.
    BoardTimers timers;

    State();
    ~State();

    std::string state_path(const char *name) const { return root + "/.board/" + name; }
    // Every board path is reached through the folder (sim/folder.h).
    Folder folder() const { return Folder(root); }
};

// The attached board, or null when a board was attached and detached again
// (a platform call then fails rather than touching the default board).
std::shared_ptr<Board::State> attached();

// What a failed call returns: the fault's value, or null for a pointer.
template <typename T> T fault_value(long value)
{
    if constexpr (std::is_pointer_v<T>)
        return nullptr;
    else
        return static_cast<T>(value);
}

// Fault injection. fires() counts the call and tells whether a fault takes it;
// then *result and errno are what the call returns.
bool fault_fires(Board::State &s, const char *call, const std::string &path, long *result);
// Bytes a write of count bytes on path may pass, or count when no budget
// applies; -1 when the budget is spent (errno set).
long long fault_write_allowance(Board::State &s, const char *call, const std::string &path,
                                long long count);

// A text file of the board's state, read and replaced under an exclusive lock
// shared with other processes.
std::string read_state(const Board::State &s, const char *name);
void write_state(const Board::State &s, const char *name, const std::string &text);
void append_state(const Board::State &s, const char *name, const std::string &line);
// The lines of a state file's text, without blank lines and '#' comments.
std::vector<std::string> state_lines(const std::string &text);
// Runs fn while holding the board's cross-process lock.
template <typename Fn> auto with_board_lock(const Board::State &s, Fn fn) -> decltype(fn());
class BoardLock {
public:
    explicit BoardLock(const Board::State &s);
    ~BoardLock();
    BoardLock(const BoardLock &) = delete;
    BoardLock &operator=(const BoardLock &) = delete;

private:
    int fd_;
};
template <typename Fn> auto with_board_lock(const Board::State &s, Fn fn) -> decltype(fn())
{
    BoardLock lock(s);
    return fn();
}

// Escaping for one-line records: backslash, newline, tab.
std::string escape_line(const std::string &text);
std::string unescape_line(const std::string &text);

// GPIO lines: the journal's records are "ID LEVEL DIRECTION TIME_NS", with
// DIRECTION "=" for a level set from outside that keeps the direction.
int line_level(Board::State &s, int id);
void drive_line(Board::State &s, int id, int level, const char *direction);
// A model drives a line (an FPGA's done pin): the record goes into the
// journal at once, and the host hands it to the line watchers from its own
// thread. Unlike drive_line it never waits for the host's watchers, so a model
// may call it while holding its own lock (a watcher on the host's thread may
// be waiting for that lock).
void drive_line_from_model(Board::State &s, int id, int level, const char *direction);
void read_gpio(Board::State &s); // brings s.gpio up to date; gpio_mu held
struct GpioRecord {
    int id = -1;
    int level = 0;
    std::string direction;
    uint64_t time_ns = 0;
};
bool parse_gpio_record(const std::string &record, GpioRecord *out);
// Calls the line watchers of this process.
void notify_line_watchers(Board::State &s, const GpioRecord &record);
// Calls the file watchers of this process with the file's contents now.
void notify_file_watchers(Board::State &s, const std::string &board_path);
bool has_file_watcher(Board::State &s, const std::string &board_path);

// The board's clock (sim/board_clock.h): the time now; a fast clock moved on
// (firing the timers it passes; in real time the timer thread looks again);
// a device operation that takes ns (a fast clock moves on, in real time the
// caller waits); a timer that calls fn once the clock reaches at_ns (its id,
// for cancel_board_timer).
uint64_t board_now_ns(const Board::State &s);
void advance_board_clock(Board::State &s, uint64_t ns);
void take_board_time(Board::State &s, uint64_t ns);
uint64_t set_board_timer(Board::State &s, uint64_t at_ns, std::function<void()> fn);
// A timer ns from now.
uint64_t set_board_timer_in(Board::State &s, uint64_t ns, std::function<void()> fn);
bool cancel_board_timer(Board::State &s, uint64_t id);
// Models that wait on the board's clock hear of its moves (advance_board_clock
// tells them after its timers).
void on_clock_advance(Board::State &s, std::function<void()> listener);
void clock_advanced(Board::State &s);
// Resets the board as its reset line would (see Board::reset).
void reset_board(Board::State &s, const std::string &reason);

// A knob's value in force (Board::knob), for models that keep the state.
std::string knob_value(Board::State &s, const std::string &name);

// Whether writes to a board path fail because the knob partitions.fail_writes
// names its partition (a name under /dev/block/by-name, or the node's path).
bool partition_write_fails(Board::State &s, const std::string &board_path);

// Calls a model's service (Board::call) on behalf of a platform call.
std::optional<std::string> call_service(Board::State &s, const std::string &name,
                                        const std::string &request);

// Tells the watchers of a board file (Board::watch_file) that it was written.
void file_written(Board::State &s, const std::string &board_path);

void record_command(Board::State &s, const std::string &command);
CommandResult run_command(Board::State &s, const std::string &command);
// The handler a process uses for a mount of `source` (the host's, through
// the link, in a client).
MountHandler mount_handler_of(Board::State &s, const std::string &source);

// Mount records (ROOT/.board/mounts): "SOURCE TARGET FSTYPE FLAGS", a field's
// space, tab, newline and backslash written as /proc/mounts writes them
// ("\040", "\011", "\012", "\134").
struct MountRecord {
    std::string source, target, fstype;
    unsigned long flags = 0;
};
std::string mount_field(const std::string &text);
std::vector<MountRecord> mount_records(const std::string &text);

// Log records: "SEC.NSEC<TAB>PID<TAB>TID<TAB>PRIORITY<TAB>TAG<TAB>TEXT",
// tag and text escaped (older boards: "PRIORITY<TAB>TAG<TAB>TEXT").
bool parse_log_record(const std::string &record, LogRecord *out);

} // namespace vexa::sim

// Opens a platform call: binds `s` to the attached board, or fails the call
// with ENODEV when there is none (one was attached and has gone).
#define VEXA_SIM_ATTACHED_OR(fail_value)                                                           \
    auto vexa_sim_state = ::vexa::sim::attached();                                                 \
    if (!vexa_sim_state) {                                                                         \
        errno = ENODEV;                                                                            \
        return fail_value;                                                                         \
    }                                                                                              \
    auto &s = *vexa_sim_state

// Returns from a platform call of type `type` when an injected fault takes it.
#define VEXA_SIM_FAULT(call, path, type)                                                           \
    do {                                                                                           \
        long vexa_sim_fault_result;                                                                \
        if (::vexa::sim::fault_fires(s, call, path, &vexa_sim_fault_result))                       \
            return ::vexa::sim::fault_value<type>(vexa_sim_fault_result);                          \
    } while (0)

#endif
