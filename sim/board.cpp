// The virtual board: attaching, building, state files and the Board API.
#include "sim/board.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <system_error>

#include "platform/os.h"
#include "sim/host.h"
#include "sim/state.h"
#include "sim/wire.h"

namespace fs = std::filesystem;

namespace vexa::sim {

namespace {

struct Hook {
    std::string name;
    std::function<void(Board &)> fn;
};

std::vector<Hook> &seeders()
{
    static std::vector<Hook> hooks;
    return hooks;
}

std::vector<Hook> &attachers()
{
    static std::vector<Hook> hooks;
    return hooks;
}

std::mutex g_attach_mu;
std::shared_ptr<Board::State> g_attached;
bool g_ever_attached = false;
// Boards this process hosts, by root: open() of one of them shares it.
std::map<std::string, std::weak_ptr<Board::State>> g_hosted;

void write_host_file(const std::string &path, const std::string &contents)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

std::string read_host_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

uint64_t real_monotonic_ns()
{
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

bool is_board(const std::string &root) { return fs::exists(root + "/.board"); }

// A new board is laid out only in a missing or empty directory, never over
// someone's files.
void check_new_root(const std::string &root)
{
    std::error_code ec;
    if (fs::exists(root, ec) && !fs::is_empty(root, ec))
        throw std::runtime_error(root + " is not a virtual board (it has no .board) and is not empty");
}

} // namespace

void register_seeder(const char *name, std::function<void(Board &)> seed)
{
    seeders().push_back({name, std::move(seed)});
}

void register_attacher(const char *name, std::function<void(Board &)> attach)
{
    attachers().push_back({name, std::move(attach)});
}

Board::State::State() = default;

Board::State::~State()
{
    // The host's threads and the timers call into the models: they stop first.
    timers.stop();
    host.reset();
    link.reset();
    if (temporary) {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
}

std::shared_ptr<Board::State> attached()
{
    {
        std::lock_guard<std::mutex> lock(g_attach_mu);
        if (g_attached || g_ever_attached)
            return g_attached;
    }
    // The first platform call of a process that attached nothing: the default
    // board, attached for the life of the process.
    static std::once_flag once;
    std::call_once(once, [] { static Board board = Board::open(Board::default_root()); });
    std::lock_guard<std::mutex> lock(g_attach_mu);
    return g_attached;
}

// ---- state files ----

BoardLock::BoardLock(const Board::State &s)
{
    fd_ = ::open(s.state_path("lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ >= 0)
        ::flock(fd_, LOCK_EX);
}

BoardLock::~BoardLock()
{
    if (fd_ >= 0)
        ::close(fd_);
}

std::string read_state(const Board::State &s, const char *name)
{
    return read_host_file(s.state_path(name));
}

std::vector<std::string> state_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (!line.empty() && line[0] != '#')
            lines.push_back(line);
    return lines;
}

void write_state(const Board::State &s, const char *name, const std::string &text)
{
    const std::string path = s.state_path(name);
    const std::string tmp = path + ".new";
    write_host_file(tmp, text);
    fs::rename(tmp, path);
}

void append_state(const Board::State &s, const char *name, const std::string &line)
{
    const int fd = ::open(s.state_path(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    const std::string record = line + "\n";
    // One write per record: appends from several processes do not interleave.
    ssize_t n = ::write(fd, record.data(), record.size());
    (void)n;
    ::close(fd);
}

std::string escape_line(const std::string &text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        default: out += c;
        }
    }
    return out;
}

std::string unescape_line(const std::string &text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            const char c = text[++i];
            out += c == 'n' ? '\n' : c == 't' ? '\t' : c;
        } else {
            out += text[i];
        }
    }
    return out;
}

// ---- faults ----

namespace {

bool fault_matches(const Fault &f, const char *call, const std::string &path)
{
    if (f.call != call)
        return false;
    if (f.path.empty())
        return true;
    if (f.call == "system" || f.call == "popen")
        return path.compare(0, f.path.size(), f.path) == 0;
    return f.path == path;
}

} // namespace

bool fault_fires(Board::State &s, const char *call, const std::string &path, long *result)
{
    std::lock_guard<std::mutex> lock(s.mu);
    for (auto &slot : s.faults) {
        if (slot.fault.byte_budget >= 0 || !fault_matches(slot.fault, call, path))
            continue;
        if (++slot.seen <= slot.fault.skip)
            continue;
        if (slot.fault.times >= 0 && slot.fired >= slot.fault.times)
            continue;
        ++slot.fired;
        *result = slot.fault.result;
        errno = slot.fault.error;
        return true;
    }
    return false;
}

long long fault_write_allowance(Board::State &s, const char *call, const std::string &path,
                                long long count)
{
    std::lock_guard<std::mutex> lock(s.mu);
    for (auto &slot : s.faults) {
        if (slot.fault.byte_budget < 0 || !fault_matches(slot.fault, call, path))
            continue;
        if (slot.budget_left < 0)
            slot.budget_left = slot.fault.byte_budget;
        if (slot.budget_left == 0) {
            errno = slot.fault.error;
            return -1;
        }
        const long long allowed = std::min(count, slot.budget_left);
        slot.budget_left -= allowed;
        return allowed;
    }
    return count;
}

// ---- LogRecord ----

std::string LogRecord::line() const
{
    const char p = priority <= 3 ? 'D' : priority == 4 ? 'I' : priority == 5 ? 'W' : 'E';
    std::string body = text;
    if (!body.empty() && body.back() == '\n')
        body.pop_back();
    return std::string(1, p) + "/" + tag + ": " + body;
}

// ---- DeviceModel defaults ----

DeviceModel::~DeviceModel() = default;
int DeviceModel::open(const Folder &folder, const std::string &board_path, int flags, mode_t mode)
{
    return folder.open(board_path, flags, mode);
}
ssize_t DeviceModel::read(int fd, void *buf, size_t count) { return ::read(fd, buf, count); }
ssize_t DeviceModel::write(int fd, const void *buf, size_t count) { return ::write(fd, buf, count); }
ssize_t DeviceModel::pread(int fd, void *buf, size_t count, off_t offset)
{
    return ::pread(fd, buf, count, offset);
}
ssize_t DeviceModel::pwrite(int fd, const void *buf, size_t count, off_t offset)
{
    return ::pwrite(fd, buf, count, offset);
}
int DeviceModel::ioctl(int, unsigned long, void *)
{
    errno = ENOTTY;
    return -1;
}
int DeviceModel::fsync(int fd) { return ::fsync(fd); }
void DeviceModel::close(int fd) { ::close(fd); }
size_t DeviceModel::ioctl_size(unsigned long request) const { return _IOC_SIZE(request); }

// ---- Builder ----

struct Board::Builder::Files {
    std::string root;
    bool has_ini = false, has_pz25 = false, has_modid = false;
    std::string ini, pz25, modid;
    std::vector<std::pair<std::string, std::string>> files;
    bool bare = false;
    bool fast = true;
};

Board::Builder::Builder() : spec_(std::make_shared<Files>()) {}
Board::Builder &Board::Builder::root(std::string dir) { spec_->root = std::move(dir); return *this; }
Board::Builder &Board::Builder::ini(std::string text)
{
    spec_->ini = std::move(text);
    spec_->has_ini = true;
    return *this;
}
Board::Builder &Board::Builder::ini_pz25(std::string text)
{
    spec_->pz25 = std::move(text);
    spec_->has_pz25 = true;
    return *this;
}
Board::Builder &Board::Builder::module_id(std::string text)
{
    spec_->modid = std::move(text);
    spec_->has_modid = true;
    return *this;
}
Board::Builder &Board::Builder::file(std::string path, std::string contents)
{
    spec_->files.emplace_back(std::move(path), std::move(contents));
    return *this;
}
Board::Builder &Board::Builder::bare() { spec_->bare = true; return *this; }
Board::Builder &Board::Builder::fast_clock(bool on) { spec_->fast = on; return *this; }

namespace {

std::shared_ptr<Board::State> make_state(const std::string &root, bool temporary, bool fast)
{
    auto state = std::make_shared<Board::State>();
    state->root = fs::absolute(root).lexically_normal().string();
    while (state->root.size() > 1 && state->root.back() == '/')
        state->root.pop_back();
    state->temporary = temporary;
    state->fast = fast;
    fs::create_directories(state->root + "/.board");
    state->log_journal = std::make_unique<Journal>(state->state_path("log"));
    state->property_journal = std::make_unique<Journal>(state->state_path("properties"));
    state->gpio_journal = std::make_unique<Journal>(state->state_path("gpio"));
    return state;
}

// Hosts the board in this process, or makes it a client of the host that
// runs already when `or_client`.
void host_or_link(const std::shared_ptr<Board::State> &state, bool or_client)
{
    try {
        state->host = std::make_unique<Host>(*state);
        std::lock_guard<std::mutex> lock(g_attach_mu);
        g_hosted[state->root] = state;
    } catch (const HostBusy &) {
        if (!or_client)
            throw;
        state->link = std::make_unique<HostLink>(*state);
    }
}

std::shared_ptr<Board::State> hosted_here(const std::string &dir)
{
    const std::string root = fs::absolute(dir).lexically_normal().string();
    std::lock_guard<std::mutex> lock(g_attach_mu);
    for (auto it = g_hosted.begin(); it != g_hosted.end();) {
        auto state = it->second.lock();
        if (!state) {
            it = g_hosted.erase(it);
            continue;
        }
        if (fs::path(it->first) == fs::path(root).lexically_normal() ||
            it->first + "/" == root)
            return state;
        ++it;
    }
    return nullptr;
}

} // namespace

Board Board::Builder::build()
{
    std::string root = spec_->root;
    bool temporary = false;
    if (root.empty()) {
        const char *tmp = std::getenv("TMPDIR");
        std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/vexaboard-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        if (::mkdtemp(buf.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), "mkdtemp");
        root = buf.data();
        temporary = true;
    }
    const bool fresh = !is_board(root);
    if (fresh && !temporary)
        check_new_root(root);
    Board board(make_state(root, temporary, spec_->fast));
    if (fresh && !spec_->bare) {
        for (auto &hook : seeders())
            hook.fn(board);
    }
    if (spec_->has_ini)
        board.write_file("/vendor/etc/product.ini", spec_->ini);
    if (spec_->has_pz25)
        board.write_file("/vendor/etc/product_pz25.ini", spec_->pz25);
    if (spec_->has_modid || (fresh && spec_->bare))
        board.set_module_id(spec_->has_modid ? spec_->modid : "0");
    for (auto &[path, contents] : spec_->files)
        board.write_file(path, contents);
    host_or_link(board.state_, true);
    board.attach();
    return board;
}

// ---- Board ----

Board::Board(std::shared_ptr<State> state) : state_(std::move(state)) {}
Board::Board(Board &&other) noexcept : state_(std::move(other.state_)), owner_(other.owner_)
{
    other.owner_ = false;
}
Board &Board::operator=(Board &&other) noexcept
{
    if (this != &other) {
        detach();
        state_ = std::move(other.state_);
        owner_ = other.owner_;
        other.owner_ = false;
    }
    return *this;
}
Board::~Board() { detach(); }

void Board::attach()
{
    {
        std::lock_guard<std::mutex> lock(g_attach_mu);
        g_attached = state_;
        g_ever_attached = true;
    }
    owner_ = true;
    // The models live where the board is hosted, set up once.
    if (state_->host && !state_->host_started) {
        state_->host_started = true;
        for (auto &hook : attachers())
            hook.fn(*this);
        state_->host->start();
    }
}

void Board::detach()
{
    if (!owner_ || !state_)
        return;
    owner_ = false;
    std::lock_guard<std::mutex> lock(g_attach_mu);
    if (g_attached == state_)
        g_attached.reset();
}

// Lays out a default board in a missing or empty dir.
std::shared_ptr<Board::State> Board::prepare(const std::string &dir, bool fast_clock)
{
    const bool fresh = !is_board(dir);
    if (fresh)
        check_new_root(dir);
    auto state = make_state(dir, false, fast_clock);
    if (fresh) {
        Board seed(state);
        for (auto &hook : seeders())
            hook.fn(seed);
        if (!fs::exists(state->state_path("product_info")))
            seed.set_module_id("0");
    }
    return state;
}

Board Board::open(const std::string &dir, bool fast_clock)
{
    if (auto state = hosted_here(dir)) {
        Board board(state);
        board.attach();
        return board;
    }
    auto state = prepare(dir, fast_clock);
    if (host_program().empty()) {
        // No host program to start (a program built without one): the
        // models live in this process while it holds the board.
        host_or_link(state, true);
    } else {
        state->link = std::make_unique<HostLink>(*state);
    }
    Board board(state);
    board.attach();
    return board;
}

Board Board::host(const std::string &dir, bool fast_clock)
{
    auto state = prepare(dir, fast_clock);
    try {
        host_or_link(state, false);
    } catch (const HostBusy &e) {
        throw std::runtime_error(e.what());
    }
    Board board(state);
    board.attach();
    return board;
}

bool Board::stop_host(const std::string &dir, int timeout_ms)
{
    const std::string root = fs::absolute(dir).lexically_normal().string();
    const std::string lock_path = root + "/.board/host.lock";
    auto free_now = [&] {
        const int fd = ::open(lock_path.c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0)
            return true;
        const bool free = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
        ::close(fd);
        return free;
    };
    if (free_now())
        return true;
    request_host_quit(root);
    for (int waited = 0; waited < timeout_ms; waited += 20) {
        if (free_now())
            return true;
        ::usleep(20000);
    }
    return free_now();
}

std::string Board::default_root()
{
    if (const char *dir = std::getenv("VEXA_BOARD"); dir && *dir)
        return dir;
    if (const char *state = std::getenv("XDG_STATE_HOME"); state && *state)
        return std::string(state) + "/vexasdk/board";
    const char *home = std::getenv("HOME");
    return std::string(home && *home ? home : "/tmp") + "/.local/state/vexasdk/board";
}

Board Board::current()
{
    auto state = attached();
    if (!state)
        throw std::runtime_error("no virtual board is attached");
    return Board(state);
}

bool Board::hosting() const { return host_here(*state_) != nullptr; }

uint64_t Board::idle_ns() const
{
    Host *host = host_here(*state_);
    return host ? host->idle_ns() : 0;
}

bool Board::should_leave() const
{
    Host *host = host_here(*state_);
    return host && host->should_leave();
}

bool Board::exists_state(const char *name) const { return fs::exists(state_->state_path(name)); }

const std::string &Board::root() const { return state_->root; }
std::string Board::host_path(const std::string &board_path) const
{
    const std::string normal = Folder::normal(board_path);
    return normal == "/" ? state_->root : state_->root + normal;
}

Folder Board::folder() const { return state_->folder(); }

bool Board::exists(const std::string &board_path) const
{
    struct stat st;
    return state_->folder().stat(board_path, &st) == 0;
}

std::string Board::read_file(const std::string &board_path) const
{
    return state_->folder().read(board_path).value_or("");
}

void Board::write_file(const std::string &board_path, const std::string &contents) const
{
    if (state_->folder().write(board_path, contents) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot write " + board_path);
    file_written(*state_, board_path);
}

void Board::remove_file(const std::string &board_path) const
{
    state_->folder().remove_all(board_path);
}

void Board::set_module_id(const std::string &text) const
{
    std::string info(2048, '\0');
    const char name[] = "vexa virtual board";
    std::memcpy(&info[0], name, sizeof name - 1);
    std::memcpy(&info[64], text.data(), std::min<size_t>(text.size(), 2048 - 64 - 1));
    write_state(*state_, "product_info", info);
}

// Lines: the GPIO journal ROOT/.board/gpio (see state.h).
bool parse_gpio_record(const std::string &record, GpioRecord *out)
{
    // "ID LEVEL DIRECTION [TIME]", parsed by hand: this is the GPIO calls'
    // hot path.
    const char *p = record.c_str();
    char *end;
    GpioRecord r;
    r.id = static_cast<int>(std::strtol(p, &end, 10));
    if (end == p || *end != ' ')
        return false;
    p = end;
    r.level = static_cast<int>(std::strtol(p, &end, 10));
    if (end == p || *end != ' ')
        return false;
    p = end + 1;
    const char *dir_end = std::strchr(p, ' ');
    r.direction.assign(p, dir_end ? static_cast<size_t>(dir_end - p) : std::strlen(p));
    if (r.direction.empty())
        return false;
    if (dir_end)
        r.time_ns = std::strtoull(dir_end + 1, nullptr, 10);
    *out = std::move(r);
    return true;
}

void read_gpio(Board::State &s)
{
    // The host keeps its view from the reading that feeds the line watchers
    // (refresh_gpio below).
    if (host_here(s))
        return;
    bool restarted = false;
    auto records = s.gpio_journal->read_new(&restarted);
    if (restarted)
        s.gpio.clear();
    for (auto &record : records) {
        GpioRecord r;
        if (!parse_gpio_record(record, &r) || r.id < 0)
            continue;
        auto &line = s.gpio[r.id];
        line.level = r.level != 0 ? 1 : 0;
        if (r.direction != "=")
            line.direction = r.direction;
    }
}

// Brings the process's view of the lines up to date; in the host, hands the
// new records to the line watchers too.
void refresh_gpio(Board::State &s)
{
    if (Host *host = host_here(s))
        host->drain_lines();
}

int line_level(Board::State &s, int id)
{
    if (id < 0)
        return -1;
    refresh_gpio(s);
    std::lock_guard<std::mutex> lock(s.gpio_mu);
    read_gpio(s);
    auto it = s.gpio.find(id);
    return it == s.gpio.end() ? 0 : it->second.level;
}

void notify_line_watchers(Board::State &s, const GpioRecord &record)
{
    std::shared_ptr<const std::vector<Board::LineWatcher>> watchers;
    {
        std::lock_guard<std::mutex> lock(s.watch_mu);
        watchers = s.line_watchers;
    }
    for (auto &watch : *watchers)
        watch(record.id, record.level != 0 ? 1 : 0, record.time_ns);
}

namespace {

GpioRecord append_drive(Board::State &s, int id, int level, const char *direction)
{
    GpioRecord record;
    record.id = id;
    record.level = level != 0 ? 1 : 0;
    record.direction = direction ? direction : "=";
    record.time_ns = real_monotonic_ns() + static_cast<uint64_t>(s.clock_offset_ns.load());
    s.gpio_journal->append(std::to_string(record.id) + ' ' + std::to_string(record.level) + ' ' +
                           record.direction + ' ' + std::to_string(record.time_ns));
    return record;
}

} // namespace

void drive_line(Board::State &s, int id, int level, const char *direction)
{
    if (id < 0)
        return;
    const GpioRecord record = append_drive(s, id, level, direction);
    if (Host *host = host_here(s))
        host->drain_lines(); // the host's watchers see it now, in order
    else if (own_registry(s))
        notify_line_watchers(s, record);
}

void drive_line_from_model(Board::State &s, int id, int level, const char *direction)
{
    if (id < 0)
        return;
    const GpioRecord record = append_drive(s, id, level, direction);
    // In the host the follow thread takes the record in (the journal's
    // change wakes it); a reader of the line drains first, so it sees it.
    if (!host_here(s) && own_registry(s))
        notify_line_watchers(s, record);
}

void Board::watch_lines(LineWatcher watcher) const
{
    std::lock_guard<std::mutex> lock(state_->watch_mu);
    auto watchers = std::make_shared<std::vector<LineWatcher>>(*state_->line_watchers);
    watchers->push_back(std::move(watcher));
    state_->line_watchers = std::move(watchers);
}

int Board::line(int id) const { return line_level(*state_, id); }
void Board::set_line(int id, int level) const { drive_line(*state_, id, level, nullptr); }

std::string Board::line_direction(int id) const
{
    refresh_gpio(*state_);
    std::lock_guard<std::mutex> lock(state_->gpio_mu);
    read_gpio(*state_);
    auto it = state_->gpio.find(id);
    return it == state_->gpio.end() ? "in" : it->second.direction;
}

std::vector<std::pair<int, int>> Board::lines() const
{
    std::vector<std::pair<int, int>> out;
    refresh_gpio(*state_);
    std::lock_guard<std::mutex> lock(state_->gpio_mu);
    read_gpio(*state_);
    for (auto &[id, line] : state_->gpio)
        out.emplace_back(id, line.level);
    return out;
}

// Properties: the journal ROOT/.board/properties holds "key=value" a line;
// the last record of a key holds.
std::string Board::property(const std::string &key) const
{
    auto &s = *state_;
    std::lock_guard<std::mutex> lock(s.property_mu);
    bool restarted = false;
    auto records = s.property_journal->read_new(&restarted);
    if (restarted)
        s.properties.clear();
    for (auto &record : records) {
        const auto eq = record.find('=');
        if (eq != std::string::npos)
            s.properties[record.substr(0, eq)] = unescape_line(record.substr(eq + 1));
    }
    auto it = s.properties.find(key);
    return it == s.properties.end() ? std::string() : it->second;
}

void Board::set_property(const std::string &key, const std::string &value) const
{
    state_->property_journal->append(key + '=' + escape_line(value));
}

bool parse_log_record(const std::string &record, LogRecord *out)
{
    std::vector<std::string> fields;
    size_t start = 0;
    for (int i = 0; i < 5; ++i) {
        const size_t tab = record.find('\t', start);
        if (tab == std::string::npos)
            break;
        fields.push_back(record.substr(start, tab - start));
        start = tab + 1;
    }
    LogRecord r{0, "", ""};
    if (fields.size() == 5 && fields[0].find('.') != std::string::npos) {
        const auto dot = fields[0].find('.');
        r.time_ns = std::atoll(fields[0].substr(0, dot).c_str()) * 1000000000ll +
                    std::atoll(fields[0].substr(dot + 1).c_str());
        r.pid = std::atoi(fields[1].c_str());
        r.tid = std::atoi(fields[2].c_str());
        r.priority = std::atoi(fields[3].c_str());
        r.tag = unescape_line(fields[4]);
    } else if (fields.size() >= 2) {
        // An older board: PRIORITY, TAG, TEXT.
        start = fields[0].size() + fields[1].size() + 2;
        r.priority = std::atoi(fields[0].c_str());
        r.tag = unescape_line(fields[1]);
    } else {
        return false;
    }
    r.text = unescape_line(record.substr(start));
    *out = std::move(r);
    return true;
}

std::vector<LogRecord> Board::log() const
{
    std::vector<LogRecord> records;
    for (auto &text : state_->log_journal->read_all()) {
        LogRecord record{0, "", ""};
        if (parse_log_record(text, &record))
            records.push_back(std::move(record));
    }
    return records;
}

std::vector<LogRecord> Board::new_log() const
{
    auto &s = *state_;
    std::lock_guard<std::mutex> lock(s.mu);
    if (!s.log_follow)
        s.log_follow = std::make_unique<Journal>(s.state_path("log"));
    bool restarted = false;
    std::vector<LogRecord> records;
    for (auto &text : s.log_follow->read_new(&restarted)) {
        LogRecord record{0, "", ""};
        if (parse_log_record(text, &record))
            records.push_back(std::move(record));
    }
    return records;
}

std::vector<std::string> Board::log_lines() const
{
    std::vector<std::string> lines;
    for (auto &record : log())
        lines.push_back(record.line());
    return lines;
}

void Board::clear_log() const
{
    state_->log_journal->rewrite([](const std::vector<std::string> &, size_t) {
        return std::vector<std::string>();
    });
}

std::vector<std::string> Board::commands() const
{
    std::vector<std::string> out;
    std::istringstream in(read_state(*state_, "commands"));
    std::string line;
    while (std::getline(in, line))
        out.push_back(unescape_line(line));
    return out;
}

void Board::clear_commands() const { write_state(*state_, "commands", ""); }

void Board::on_command(const std::string &program, CommandHandler handler) const
{
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->commands[program] = std::move(handler);
}

void Board::on_mount(const std::string &source, MountHandler handler) const
{
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->mount_handlers[source] = std::move(handler);
}

std::vector<std::string> Board::reboots() const
{
    std::vector<std::string> out;
    std::istringstream in(read_state(*state_, "reboots"));
    std::string line;
    while (std::getline(in, line))
        out.push_back(unescape_line(line));
    return out;
}

void Board::inject(const Fault &fault) const
{
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->faults.push_back({fault});
}

void Board::clear_faults() const
{
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->faults.clear();
}

void Board::add_model(const std::string &board_path, std::shared_ptr<DeviceModel> model) const
{
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->models[board_path] = std::move(model);
}

void Board::serve(const std::string &name, Service service) const
{
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->services[name] = std::move(service);
}

std::optional<std::string> Board::call(const std::string &name, const std::string &request) const
{
    return call_service(*state_, name, request);
}

std::optional<std::string> call_service(Board::State &s, const std::string &name,
                                        const std::string &request)
{
    Service service;
    if (own_registry(s)) {
        std::lock_guard<std::mutex> lock(s.mu);
        auto it = s.services.find(name);
        if (it != s.services.end())
            service = it->second;
    }
    if (service)
        return service(request);
    if (HostLink *link = link_here(s)) {
        std::string reply;
        if (!link->request(wire::Writer().u8(wire::kCall).str(name).str(request).bytes(), &reply))
            return std::nullopt;
        wire::Reader in(reply);
        if (in.u8()) {
            std::string answer = in.str();
            if (!in.bad())
                return answer;
        }
        errno = in.bad() ? EPROTO : in.i32();
        return std::nullopt;
    }
    errno = ENODEV;
    return std::nullopt;
}

void Board::watch_file(const std::string &board_path, FileWatcher watcher) const
{
    {
        std::lock_guard<std::mutex> lock(state_->mu);
        state_->file_watchers.emplace(board_path, std::move(watcher));
    }
    if (Host *host = host_here(*state_))
        host->watch(board_path);
}

bool has_file_watcher(Board::State &s, const std::string &board_path)
{
    std::lock_guard<std::mutex> lock(s.mu);
    return s.file_watchers.count(board_path) != 0;
}

void notify_file_watchers(Board::State &s, const std::string &board_path)
{
    std::vector<FileWatcher> watchers;
    {
        std::lock_guard<std::mutex> lock(s.mu);
        auto [first, last] = s.file_watchers.equal_range(board_path);
        for (auto it = first; it != last; ++it)
            watchers.push_back(it->second);
    }
    if (watchers.empty())
        return;
    const std::string contents = s.folder().read(board_path).value_or("");
    for (auto &watch : watchers)
        watch(board_path, contents);
}

void file_written(Board::State &s, const std::string &board_path)
{
    if (Host *host = host_here(s)) {
        // The host's watchers learn of it from the folder, in order with
        // every other writer's.
        host->drain();
        return;
    }
    if (own_registry(s))
        notify_file_watchers(s, board_path);
    if (HostLink *link = link_here(s); link && link->watches(board_path)) {
        std::string reply;
        link->request(wire::Writer().u8(wire::kSync).bytes(), &reply);
    }
}

bool Board::fast_clock() const { return state_->fast; }
void Board::set_fast_clock(bool on) const { state_->fast = on; }

uint64_t Board::now_ns() const
{
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec) +
           static_cast<uint64_t>(state_->clock_offset_ns.load());
}

void Board::advance_clock(uint64_t ns) const { advance_board_clock(*state_, ns); }

void on_clock_advance(Board::State &s, std::function<void()> listener)
{
    std::lock_guard<std::mutex> lock(s.watch_mu);
    auto listeners = std::make_shared<std::vector<std::function<void()>>>(*s.clock_listeners);
    listeners->push_back(std::move(listener));
    s.clock_listeners = std::move(listeners);
}

void clock_advanced(Board::State &s)
{
    std::shared_ptr<const std::vector<std::function<void()>>> listeners;
    {
        std::lock_guard<std::mutex> lock(s.watch_mu);
        listeners = s.clock_listeners;
    }
    for (const auto &listen : *listeners)
        listen();
}

} // namespace vexa::sim
