// The virtual board: a host implementation of the whole platform.
//
// A board is a directory. Every path the library uses is resolved beneath it
// ("/vendor/etc/product.ini" is ROOT/vendor/etc/product.ini, and nothing
// reaches outside it: sim/folder.h); the board's own
// state (GPIO lines, properties, the log, the command journal, reboots) lives
// in plain text files under ROOT/.board/, so separate processes that open the
// same root see one board. Nodes that are not plain files are served by device
// models registered by path; the models live in the board's host, one set for
// every process that attaches the folder.
//
// One board is attached per process at a time: the platform calls (hal_*,
// the log, properties, the OS layer) act on it. A process that makes a
// platform call before attaching one attaches the default board.
//
// One process hosts a folder's device models (sim/host.h): a Builder board is
// hosted by the process that built it; Board::open makes the process a client
// of the folder's host, starting a detached one when none runs.
//
// Threads: the board's calls may be made from any thread.
#ifndef VEXA_SIM_BOARD_H
#define VEXA_SIM_BOARD_H

#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/folder.h"

namespace vexa::sim {

struct LogRecord {
    int priority;     // 3 debug, 4 info, 5 warning, 6 error
    std::string tag;
    std::string text; // as printed, trailing newline included
    int64_t time_ns = 0; // wall-clock time (CLOCK_REALTIME) of the record; 0: not known
    int pid = 0;         // the process and thread that logged it (0: not known)
    int tid = 0;

    // "P/TAG: TEXT" with P one of D I W E and TEXT without its trailing newline.
    std::string line() const;
};

// A fault that makes platform calls fail. `call` names the platform function
// ("hal_gpio_set_value", "open", "write", "system", ...); `path`, when set,
// limits it to calls on that board path (or, for "system"/"popen", to commands
// that start with it). The first `skip` matching calls go through; then `times`
// calls (-1: every call) return `result` with errno set to `error`.
// For "write" and "pwrite", a byte budget instead lets that many bytes reach
// the file in total (a short write at the cut) and fails every write after it:
// a power cut in the middle of a save.
struct Fault {
    std::string call;
    std::string path;
    int skip = 0;
    int times = -1;
    long result = -1;
    int error = EIO;
    long long byte_budget = -1;

    static Fault on(std::string call) { Fault f; f.call = std::move(call); return f; }
    Fault &at(std::string p) { path = std::move(p); return *this; }
    Fault &once() { times = 1; return *this; }
    Fault &always() { times = -1; return *this; }
    Fault &after(int calls) { skip = calls; return *this; }
    Fault &returns(long value, int err = EIO) { result = value; error = err; return *this; }
    Fault &cut_after(long long bytes) { byte_budget = bytes; return *this; }
};

// A node that is not a plain file. open() returns a real descriptor (the model
// may open a backing file, a pty or anything else); the board then routes the
// other calls on that descriptor to the model until it is closed. The defaults
// pass straight through to the descriptor.
//
// The model lives in the board's host. A client process's open reaches it
// there, and the client gets the same open file (a duplicate of the
// descriptor); its read, write, pread, pwrite, ioctl and close calls on it are
// carried out by the model in the host. An ioctl's argument travels as the
// bytes ioctl_size() names (default: the size the request number encodes).
class DeviceModel {
public:
    virtual ~DeviceModel();
    // The node's board path, and the board's folder that holds it; the
    // default opens the file there (folder.open).
    virtual int open(const Folder &folder, const std::string &board_path, int flags, mode_t mode);
    virtual ssize_t read(int fd, void *buf, size_t count);
    virtual ssize_t write(int fd, const void *buf, size_t count);
    virtual ssize_t pread(int fd, void *buf, size_t count, off_t offset);
    virtual ssize_t pwrite(int fd, const void *buf, size_t count, off_t offset);
    virtual int ioctl(int fd, unsigned long request, void *arg);
    virtual int fsync(int fd);
    virtual void close(int fd);
    // Bytes of the argument of `request` (0: the argument is a plain number).
    virtual size_t ioctl_size(unsigned long request) const;
    // True for a node whose read is a transfer that takes its request from
    // the buffer it fills (the FPGA's SPI driver): a read from another
    // process then carries the buffer's contents to the model.
    virtual bool read_takes_buffer() const { return false; }
};

// Output and status of a shell command that a handler carried out.
struct CommandResult {
    int status = 0;     // as system() returns it: exit code << 8
    std::string output; // what popen() readers see
};
// argv is the command split into words; the original text is in `command`.
using CommandHandler =
    std::function<CommandResult(const std::vector<std::string> &argv, const std::string &command)>;

// Carries out a mount of a device: called with attaching true after the
// core's checks pass (the device's files should appear at target) and with
// attaching false when target is unmounted. Returns 0, or -1 with errno set
// (the mount then fails and is not recorded).
using MountHandler =
    std::function<int(const std::string &source, const std::string &target, bool attaching)>;

// A request/reply endpoint of a device model: the model's attacher serves it
// where the model lives, and the board's platform calls (the HAL of an area,
// vexactl, a test) reach the model through Board::call from any process that
// attaches the board. Requests and replies are the model's own byte strings.
using Service = std::function<std::string(const std::string &request)>;

// Called after a board file has been written (by the library, a shell echo,
// the board's API), with the file's board path and its new contents: device
// models follow files that stand for lines and registers this way.
using FileWatcher = std::function<void(const std::string &board_path, const std::string &contents)>;

// A fault knob (or setting) of a model, named "MODEL.KNOB": one table for the
// whole board, which `vexactl board fault` lists and sets. A model's attacher
// registers its knobs with Board::add_knob; the model reads a value with
// Board::knob (or knob_value in sim/state.h) whenever it acts on it. Values
// are board state, kept in ROOT/.board/knobs: set by one process, seen by
// every process.
struct Knob {
    using Check = std::function<bool(const std::string &value)>;

    std::string name;    // "mcu.reply": the model, a dot, the knob
    std::string takes;   // the values it takes, for people: "ok|silent|nack", "BUS@ADDR,..."
    std::string help;    // one line: what a value does
    std::string initial; // its value while none is set ("ok"; "" for an empty list)
    // Whether the knob takes a value (never asked of "", which clears it).
    // Without one: a value is one of the '|'-separated words of `takes`.
    Check check = {};
    // Called in the host once the value has changed (set or cleared), with
    // the value now in force: for a model that must act at once (a cable
    // pulled) rather than when it next looks.
    std::function<void(const std::string &value)> changed = {};

    // Checks for values that are not words: a whole number from min to max
    // (decimal or 0x), and a comma-separated list of items the item check takes.
    static Check number(long long min, long long max);
    static Check list_of(Check item);
};

// A knob as listed: its value in force and what it takes.
struct KnobRow {
    std::string name, value, takes, help;
    bool set = false; // set on this board (not its initial value)
};

class Board;

// Hooks that areas of the board register from their own files (see
// VEXA_SIM_REGISTER below):
// - seeders lay out a new board's files (the default product INI, partitions,
//   resource files); they run once, when a board directory is created;
// - attachers add device models and command handlers each time a process
//   attaches a board.
void register_seeder(const char *name, std::function<void(Board &)> seed);
void register_attacher(const char *name, std::function<void(Board &)> attach);

class Board {
public:
    class Builder {
    public:
        Builder();
        // Where the board lives (an existing board, or a missing or empty
        // directory); default: a new temporary directory that the Board
        // removes when it is destroyed.
        Builder &root(std::string dir);
        // Text of "/vendor/etc/product.ini" (default: the default board's).
        Builder &ini(std::string text);
        // Text of "/vendor/etc/product_pz25.ini".
        Builder &ini_pz25(std::string text);
        // The module id text at byte 64 of the product information.
        Builder &module_id(std::string text);
        // Extra files, by board path.
        Builder &file(std::string path, std::string contents);
        // Skip the default board's files: only what the builder names.
        Builder &bare();
        // Sleeps return at once and advance the board's clock (default: on).
        Builder &fast_clock(bool on);
        Board build();

    private:
        friend class Board;
        struct Files;
        std::shared_ptr<Files> spec_;
    };

    // Attaches the board in dir, laying out a default board there when dir is
    // missing or empty (a directory with other files and no board throws
    // std::runtime_error). fast_clock as in the builder (default: off).
    // The process becomes a client of the folder's host, which is started
    // (detached, see docs/virtual-board.md) when none runs; a process that
    // hosts dir already gets its own board.
    static Board open(const std::string &dir, bool fast_clock = false);
    // Attaches the board in dir and hosts its device models in this process
    // (vexaboard-host, `vexactl board serve`); laid out as open() does.
    // Throws std::runtime_error when another process hosts the folder.
    static Board host(const std::string &dir, bool fast_clock = false);
    // Asks the host of dir to leave and waits up to timeout_ms for it to go;
    // true when no host runs for dir any more.
    static bool stop_host(const std::string &dir, int timeout_ms = 5000);
    // This process hosts the board's models (a Builder board does unless
    // another process hosts its folder).
    bool hosting() const;
    // For a hosting process: nanoseconds since the last client left or made
    // a request (0 while one is connected); and whether the host should
    // leave (its folder has gone, or a client asked it to).
    uint64_t idle_ns() const;
    bool should_leave() const;
    // Where the default board lives: $VEXA_BOARD, else
    // $XDG_STATE_HOME/vexasdk/board, else ~/.local/state/vexasdk/board.
    static std::string default_root();
    // The attached board; attaches the default board when there is none.
    static Board current();

    Board(Board &&other) noexcept;
    Board &operator=(Board &&) noexcept;
    ~Board(); // detaches; removes a temporary root
    Board(const Board &) = delete;
    Board &operator=(const Board &) = delete;

    const std::string &root() const;
    // Where a board path lies in the folder, for a person or a test to look
    // at from outside: the root joined with the path as the device reads it
    // ("/a/../../b" is ROOT/b). It follows no link: the board's own calls
    // reach files through folder().
    std::string host_path(const std::string &board_path) const;
    // The board's folder: board paths resolved beneath the root
    // (sim/folder.h).
    Folder folder() const;

    // Files, by board path, resolved beneath the root (a write makes the
    // folders above the file).
    bool exists(const std::string &board_path) const;
    std::string read_file(const std::string &board_path) const;
    void write_file(const std::string &board_path, const std::string &contents) const;
    void remove_file(const std::string &board_path) const;

    // Product information record and the module id text at byte 64.
    void set_module_id(const std::string &text) const;

    // GPIO lines. A line reads 0 until driven; ids below 0 do not exist.
    int line(int id) const;          // -1 when the line does not exist
    // Sets the level seen on a line from outside (0 or 1; any non-zero is 1).
    void set_line(int id, int level) const;
    // "out" once the library has driven or configured the line, else "in".
    std::string line_direction(int id) const;
    // Every line driven so far, ascending by id.
    std::vector<std::pair<int, int>> lines() const;
    // Calls watcher(id, level, board time in ns) for every drive of a line.
    // In the host: the drives of every process, each with the board time of
    // its driver, in order (at once for the host's own drives, and before the
    // host answers a client for the drives that client made). In a client:
    // this process's drives, from the driving thread.
    using LineWatcher = std::function<void(int id, int level, uint64_t now_ns)>;
    void watch_lines(LineWatcher watcher) const;

    // System properties.
    std::string property(const std::string &key) const;
    void set_property(const std::string &key, const std::string &value) const;

    // The log, oldest first. The host keeps it bounded: past 1 MiB the oldest
    // records go, and about the newest 512 KiB stay.
    std::vector<LogRecord> log() const;
    std::vector<std::string> log_lines() const;
    void clear_log() const;
    // Records logged since the last call in this process (the first call:
    // the whole log), oldest first: for following the log.
    std::vector<LogRecord> new_log() const;

    // Shell commands exactly as the library issued them, oldest first.
    std::vector<std::string> commands() const;
    void clear_commands() const;
    // Carries out commands whose first word (its base name) is `program`.
    void on_command(const std::string &program, CommandHandler handler) const;
    // Carries out mounts of the device `source` (board path).
    void on_mount(const std::string &source, MountHandler handler) const;

    // Reboot requests, recorded instead of carried out ("" for a plain one).
    std::vector<std::string> reboots() const;

    // Resets the board as its reset line would, for `reason` ("watchdog"):
    // the reset is recorded in the reboots file with its reason, the board
    // boots again (its uptime starts anew) and every model that registered
    // with on_reset goes back to its power-on state. What a reset keeps and
    // what it clears is told in docs/virtual-board.md. In a client the
    // host carries it out.
    void reset(const std::string &reason) const;
    // For attachers: called in the host when the board is reset, with its reason.
    void on_reset(std::function<void(const std::string &reason)> hook) const;

    // Fault injection (this process only).
    void inject(const Fault &fault) const;
    void clear_faults() const;

    // Device models, by board path. A model added by an attacher serves every
    // process (see DeviceModel); one added by a client process serves that
    // process only.
    void add_model(const std::string &board_path, std::shared_ptr<DeviceModel> model) const;

    // Services of the board's models (see Service). serve() is for
    // attachers; call() returns the reply, or nothing with errno ENODEV when
    // no model serves `name`. In a client, call() asks the host (after a
    // service of this process's own, if any).
    void serve(const std::string &name, Service service) const;
    std::optional<std::string> call(const std::string &name, const std::string &request) const;
    // Follows a board file (see FileWatcher); for attachers. In the host the
    // watcher sees every writer (the library in any process, a shell, another
    // program: the host follows the file with inotify); a write the library
    // makes reaches it before the writing call returns, a write from outside
    // when the host reads it (a pulse an outside program writes faster than
    // that may be seen as its last level only). In a client process: the
    // writes of this process.
    void watch_file(const std::string &board_path, FileWatcher watcher) const;

    // Fault knobs (see Knob). add_knob is for attachers: the host holds the
    // table. knob() is the value in force in any process: what was set, else
    // the initial value of a knob this process registered, else "".
    void add_knob(Knob knob) const;
    std::string knob(const std::string &name) const;
    // Every knob of the board, by name (from the host in a client).
    std::vector<KnobRow> knobs() const;
    // Sets knobs (a value "" clears one), all or none: 0, or -1 with errno
    // ENOENT when a name is no knob of the board, EINVAL when a knob does not
    // take its value; *refused then names that setting.
    int set_knobs(const std::vector<std::pair<std::string, std::string>> &settings,
                  std::string *refused = nullptr) const;
    int set_knob(const std::string &name, const std::string &value) const;

    // The clock. With a fast clock sleeps return at once and advance it.
    bool fast_clock() const;
    void set_fast_clock(bool on) const;
    uint64_t now_ns() const;
    // What the board has slept with a fast clock (its time is the host's
    // plus this), the moves of advance_clock included.
    uint64_t slept_ns() const;
    // Moves the board clock on, as a sleep of ns would with a fast clock
    // (the timers it passes fire before it returns).
    void advance_clock(uint64_t ns) const;
    // Calls fn once the board's clock reaches at_ns (see sim/board_clock.h:
    // with a fast clock in the thread that moves the clock past it, in real
    // time on the board's timer thread); returns the timer's id. A model's
    // timer lives where the model does, in the board's host.
    uint64_t set_timer(uint64_t at_ns, std::function<void()> fn) const;
    // Takes a timer back; false when it has fired or never was.
    bool cancel_timer(uint64_t id) const;

    struct State;

private:
    explicit Board(std::shared_ptr<State> state);
    static std::shared_ptr<State> prepare(const std::string &dir, bool fast_clock);
    void attach();
    void detach();
    bool exists_state(const char *name) const;

    std::shared_ptr<State> state_;
    bool owner_ = false; // this handle attached the board and detaches it
};

} // namespace vexa::sim

#define VEXA_SIM_CONCAT2(a, b) a##b
#define VEXA_SIM_CONCAT(a, b) VEXA_SIM_CONCAT2(a, b)
// Registers a seeder or attacher from a model's own file:
//   VEXA_SIM_SEEDER(partitions) { board.write_file(...); }
#define VEXA_SIM_SEEDER(name)                                                                  \
    static void vexa_sim_seed_##name(::vexa::sim::Board &board);                               \
    static const bool VEXA_SIM_CONCAT(vexa_sim_seed_reg_, name) =                              \
        (::vexa::sim::register_seeder(#name, vexa_sim_seed_##name), true);                     \
    static void vexa_sim_seed_##name(::vexa::sim::Board &board)
#define VEXA_SIM_ATTACHER(name)                                                                \
    static void vexa_sim_attach_##name(::vexa::sim::Board &board);                             \
    static const bool VEXA_SIM_CONCAT(vexa_sim_attach_reg_, name) =                            \
        (::vexa::sim::register_attacher(#name, vexa_sim_attach_##name), true);                 \
    static void vexa_sim_attach_##name(::vexa::sim::Board &board)

#endif
