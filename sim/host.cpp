// The board's host: the process that holds a folder's device models and
// serves the other processes that attach the folder.
#include "sim/host.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <system_error>
#include <filesystem>

#include "sim/state.h"
#include "sim/wire.h"

namespace fs = std::filesystem;

namespace vexa::sim {

namespace {

uint64_t now_ns()
{
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// A journal that has grown past `limit` bytes is compacted.
constexpr off_t kLogLimit = 1 << 20;       // then about the newest half stays
constexpr off_t kPropertyLimit = 64 << 10; // then the last value of each key
constexpr off_t kGpioLimit = 256 << 10;    // then the last record of each line
constexpr uint64_t kHousekeepingNs = 1000000000u;
// The largest read or write a client's model call carries at once.
constexpr uint64_t kMaxTransfer = 16u << 20;

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

bool make_address(const std::string &path, struct sockaddr_un *addr)
{
    std::memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    if (path.size() >= sizeof addr->sun_path)
        return false;
    std::memcpy(addr->sun_path, path.data(), path.size());
    return true;
}

// Connects to the host of root; -1 when none answers.
int connect_host(const std::string &root)
{
    Fd dir(::open((root + "/.board").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct sockaddr_un addr;
    if (!make_address(host_socket_address(root, dir.get()), &addr))
        return -1;
    const int sock = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock < 0)
        return -1;
    if (::connect(sock, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
        ::close(sock);
        return -1;
    }
    return sock;
}

std::atomic<uint64_t> g_generation{0};

} // namespace

std::string host_socket_address(const std::string &root, int dir_fd)
{
    const std::string path = root + "/.board/host.sock";
    if (path.size() < sizeof(sockaddr_un::sun_path))
        return path;
    return "/proc/self/fd/" + std::to_string(dir_fd) + "/host.sock";
}

std::string host_program()
{
    if (const char *named = std::getenv("VEXA_BOARD_HOST"); named && *named)
        return named;
    std::vector<std::string> dirs;
    Dl_info info;
    if (::dladdr(reinterpret_cast<void *>(&host_program), &info) != 0 && info.dli_fname)
        dirs.push_back(fs::path(info.dli_fname).parent_path().string());
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (!ec)
        dirs.push_back(exe.parent_path().string());
    for (auto &dir : dirs)
        for (const char *rel : {"/vexaboard-host", "/../libexec/vexaboard-host", "/../../libexec/vexaboard-host"})
            if (::access((dir + rel).c_str(), X_OK) == 0)
                return dir + rel;
#ifdef VEXA_BOARD_HOST_FALLBACK
    if (::access(VEXA_BOARD_HOST_FALLBACK, X_OK) == 0)
        return VEXA_BOARD_HOST_FALLBACK;
#endif
    return "";
}

Host *host_here(Board::State &s)
{
    Host *host = s.host.get();
    return host && host->pid() == ::getpid() ? host : nullptr;
}

bool own_registry(Board::State &s) { return !s.host || s.host->pid() == ::getpid(); }

HostLink *link_here(Board::State &s)
{
    if (host_here(s))
        return nullptr;
    std::lock_guard<std::mutex> lock(s.link_mu);
    if (s.link && s.link->pid() == ::getpid())
        return s.link.get();
    if (!s.link && !s.host)
        return nullptr; // not attached yet
    // A child forked from the host or from a client: its own connection.
    try {
        // The parent's link stays untouched (its socket is the parent's too).
        (void)s.link.release();
        s.link = std::make_unique<HostLink>(s);
    } catch (const std::exception &) {
        return nullptr;
    }
    return s.link.get();
}

void request_host_quit(const std::string &root)
{
    const int sock = connect_host(root);
    if (sock < 0)
        return;
    std::string reply;
    if (wire::send_message(sock, wire::Writer().u8(wire::kQuit).bytes()))
        wire::receive_message(sock, &reply);
    ::close(sock);
}

// ---- the host ----

struct Host::Connection {
    int fd = -1;
    struct Handle {
        int fd;
        std::shared_ptr<DeviceModel> model;
    };
    std::map<int64_t, Handle> handles;
    int64_t next_handle = 1;
};

namespace {
std::mutex g_conn_done_mu;
std::condition_variable g_conn_done;
} // namespace

Host::Host(Board::State &s) : s_(s), pid_(::getpid()), gpio_follow_(s.state_path("gpio"))
{
    lock_fd_ = ::open(s.state_path("host.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock_fd_ < 0 || ::flock(lock_fd_, LOCK_EX | LOCK_NB) != 0) {
        if (lock_fd_ >= 0)
            ::close(lock_fd_);
        throw HostBusy("the board in " + s.root + " is hosted by another process");
    }
    notify_fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    // Only what happens from now on concerns the models; what was before is
    // the lines' state.
    bool restarted;
    for (auto &text : gpio_follow_.read_new(&restarted)) {
        GpioRecord record;
        if (!parse_gpio_record(text, &record) || record.id < 0)
            continue;
        auto &line = s.gpio[record.id];
        line.level = record.level != 0 ? 1 : 0;
        if (record.direction != "=")
            line.direction = record.direction;
    }
    if (notify_fd_ >= 0)
        gpio_wd_ = ::inotify_add_watch(notify_fd_, s.state_path("gpio").c_str(), IN_MODIFY);
    struct stat st;
    if (::stat((s.root + "/.board").c_str(), &st) == 0)
        root_ino_ = st.st_ino;
    if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0)
        wake_[0] = wake_[1] = -1;
    last_activity_ns_ = now_ns();
}

Host::~Host()
{
    if (::getpid() != pid_) {
        // A forked child's copy: the threads are the parent's.
        accept_thread_.detach();
        follow_thread_.detach();
        return;
    }
    stop_ = true;
    if (wake_[1] >= 0)
        (void)!::write(wake_[1], "x", 1);
    if (listen_fd_ >= 0)
        ::shutdown(listen_fd_, SHUT_RDWR);
    if (accept_thread_.joinable())
        accept_thread_.join();
    if (follow_thread_.joinable())
        follow_thread_.join();
    {
        std::unique_lock<std::mutex> lock(conn_mu_);
        for (auto &c : connections_)
            ::shutdown(c->fd, SHUT_RDWR);
    }
    {
        std::unique_lock<std::mutex> lock(g_conn_done_mu);
        g_conn_done.wait(lock, [this] { return clients_.load() == 0; });
    }
    if (listen_fd_ >= 0) {
        ::close(listen_fd_);
        ::unlink(s_.state_path("host.sock").c_str());
    }
    for (int fd : {notify_fd_, wake_[0], wake_[1], lock_fd_})
        if (fd >= 0)
            ::close(fd);
}

void Host::start()
{
    const std::string sock_path = s_.state_path("host.sock");
    ::unlink(sock_path.c_str()); // ours: we hold the lock
    Fd dir(::open((s_.root + "/.board").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct sockaddr_un addr;
    listen_fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0 || !make_address(host_socket_address(s_.root, dir.get()), &addr) ||
        ::bind(listen_fd_, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0 ||
        ::listen(listen_fd_, 64) != 0) {
        const int err = errno;
        if (listen_fd_ >= 0)
            ::close(listen_fd_);
        listen_fd_ = -1;
        throw std::system_error(err, std::generic_category(), "cannot listen on " + sock_path);
    }
    accept_thread_ = std::thread([this] { accept_loop(); });
    follow_thread_ = std::thread([this] { follow_loop(); });
}

uint64_t Host::idle_ns() const
{
    if (clients_.load() > 0)
        return 0;
    const uint64_t now = now_ns();
    const uint64_t last = last_activity_ns_.load();
    return now > last ? now - last : 0;
}

bool Host::should_leave() const { return quit_.load() || gone_.load(); }

void Host::watch(const std::string &board_path)
{
    if (notify_fd_ < 0)
        return;
    // The folder that holds the file, made when missing and watched through
    // a descriptor of it, so that the watch stays inside the board.
    const Folder folder = s_.folder();
    const std::string dir = fs::path(Folder::normal(board_path)).parent_path().string();
    folder.make_dirs(dir);
    const Descriptor at(folder.open(dir, O_PATH | O_DIRECTORY));
    if (!at)
        return;
    const int wd = ::inotify_add_watch(notify_fd_, descriptor_path(at.get()).c_str(),
                                       IN_CLOSE_WRITE | IN_MOVED_TO);
    if (wd < 0)
        return;
    std::lock_guard<std::mutex> lock(drain_mu_);
    dir_of_wd_[wd] = fs::path(board_path).parent_path().string();
}

// Set while this thread delivers events to watchers: a watcher that drives a
// line or writes a watched file must not take the drain lock again.
static thread_local bool t_draining = false;

void Host::drain()
{
    if (::getpid() != pid_)
        return;
    // A watcher that writes a file or drives a line comes back here (or to
    // drain_lines): the loop below takes that in.
    if (t_draining)
        return;
    t_draining = true;
    {
        std::lock_guard<std::mutex> lock(drain_mu_);
        for (;;) {
            alignas(struct inotify_event) char buf[8192];
            const ssize_t n = notify_fd_ >= 0 ? ::read(notify_fd_, buf, sizeof buf) : -1;
            bool any = n > 0 && deliver_file_events(buf, n);
            any = deliver_gpio() || any;
            if (!any)
                break;
        }
    }
    t_draining = false;
}

void Host::drain_lines()
{
    if (::getpid() != pid_)
        return;
    if (t_draining)
        return;
    t_draining = true;
    {
        std::lock_guard<std::mutex> lock(drain_mu_);
        while (deliver_gpio()) {
        }
    }
    t_draining = false;
}

bool Host::deliver_gpio()
{
    bool restarted = false;
    auto records = gpio_follow_.read_new(&restarted);
    if (records.empty() && !restarted)
        return false;
    std::vector<GpioRecord> parsed;
    {
        // The host's view of the lines comes from the same reading.
        std::lock_guard<std::mutex> lock(s_.gpio_mu);
        if (restarted)
            s_.gpio.clear();
        for (auto &text : records) {
            GpioRecord record;
            if (!parse_gpio_record(text, &record) || record.id < 0)
                continue;
            auto &line = s_.gpio[record.id];
            line.level = record.level != 0 ? 1 : 0;
            if (record.direction != "=")
                line.direction = record.direction;
            parsed.push_back(std::move(record));
        }
    }
    // A file cut short or replaced by someone else holds no new drives.
    if (restarted)
        return false;
    for (auto &record : parsed)
        notify_line_watchers(s_, record);
    return !parsed.empty();
}

bool Host::deliver_file_events(const char *buf, ssize_t len)
{
    bool any = false;
    for (ssize_t at = 0; at < len;) {
        const auto *event = reinterpret_cast<const struct inotify_event *>(buf + at);
        at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
        if (event->wd == gpio_wd_) {
            if (event->mask & IN_IGNORED) // replaced by a compaction
                gpio_wd_ = ::inotify_add_watch(notify_fd_, s_.state_path("gpio").c_str(), IN_MODIFY);
            continue;
        }
        if (event->len == 0 || !(event->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)))
            continue;
        auto dir = dir_of_wd_.find(event->wd);
        if (dir == dir_of_wd_.end())
            continue;
        const std::string path = (dir->second == "/" ? "" : dir->second) + "/" + event->name;
        if (has_file_watcher(s_, path)) {
            notify_file_watchers(s_, path);
            any = true;
        }
    }
    return any;
}

void Host::follow_loop()
{
    while (!stop_) {
        struct pollfd fds[2] = {{notify_fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        ::poll(fds, 2, 250);
        if (stop_)
            break;
        drain();
        // Writes come in bursts (a process driving a line, logging): take
        // them in a few at a time rather than waking for each.
        struct timespec pause = {0, 2000000};
        ::nanosleep(&pause, nullptr);
        if (now_ns() >= next_housekeeping_ns_) {
            next_housekeeping_ns_ = now_ns() + kHousekeepingNs;
            housekeeping();
        }
    }
}

void Host::housekeeping()
{
    struct stat st;
    if (::stat((s_.root + "/.board").c_str(), &st) != 0 || st.st_ino != root_ino_)
        gone_ = true;
    if (s_.log_journal->size() > kLogLimit) {
        Journal log(s_.state_path("log"));
        log.rewrite([](const std::vector<std::string> &all, size_t) {
            // The newest records that fit in half the limit.
            size_t bytes = 0;
            size_t first = all.size();
            while (first > 0 && bytes + all[first - 1].size() + 1 <= static_cast<size_t>(kLogLimit / 2))
                bytes += all[--first].size() + 1;
            return std::vector<std::string>(all.begin() + static_cast<long>(first), all.end());
        });
    }
    if (s_.property_journal->size() > kPropertyLimit) {
        Journal properties(s_.state_path("properties"));
        properties.rewrite([](const std::vector<std::string> &all, size_t) {
            std::map<std::string, std::string> last;
            for (auto &record : all) {
                const auto eq = record.find('=');
                if (eq != std::string::npos)
                    last[record.substr(0, eq)] = record;
            }
            std::vector<std::string> out;
            for (auto &[key, record] : last)
                out.push_back(record);
            return out;
        });
    }
    if (gpio_follow_.size() > kGpioLimit) {
        std::lock_guard<std::mutex> lock(drain_mu_);
        std::vector<GpioRecord> fresh;
        gpio_follow_.rewrite([&fresh](const std::vector<std::string> &all, size_t fresh_from) {
            std::map<int, GpioRecord> last;
            std::map<int, std::string> direction;
            for (size_t i = 0; i < all.size(); ++i) {
                GpioRecord record;
                if (!parse_gpio_record(all[i], &record) || record.id < 0)
                    continue;
                if (i >= fresh_from)
                    fresh.push_back(record);
                if (record.direction != "=")
                    direction[record.id] = record.direction;
                last[record.id] = record;
            }
            std::vector<std::string> out;
            for (auto &[id, record] : last) {
                const std::string dir = direction.count(id) ? direction[id] : "in";
                out.push_back(std::to_string(id) + ' ' + std::to_string(record.level) + ' ' + dir + ' ' +
                              std::to_string(record.time_ns));
            }
            return out;
        });
        for (auto &record : fresh)
            notify_line_watchers(s_, record);
    }
}

void Host::accept_loop()
{
    while (!stop_) {
        struct pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR)
            break;
        if (stop_)
            break;
        if (!(fds[0].revents & POLLIN))
            continue;
        const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        auto connection = std::make_shared<Connection>();
        connection->fd = fd;
        {
            std::lock_guard<std::mutex> lock(conn_mu_);
            connections_.push_back(connection);
        }
        ++clients_;
        std::thread([this, connection] { serve_connection(connection); }).detach();
    }
}

void Host::serve_connection(std::shared_ptr<Connection> connection)
{
    std::string request;
    while (!stop_ && wire::receive_message(connection->fd, &request)) {
        last_activity_ns_ = now_ns();
        // Whatever the client wrote before it asked reaches the models first.
        drain();
        int fd_out = -1;
        const std::string reply = handle(*connection, request, &fd_out);
        if (!wire::send_message(connection->fd, reply, fd_out))
            break;
    }
    for (auto &[id, handle] : connection->handles)
        handle.model->close(handle.fd);
    connection->handles.clear();
    {
        std::lock_guard<std::mutex> lock(conn_mu_);
        connections_.erase(std::remove(connections_.begin(), connections_.end(), connection),
                           connections_.end());
        ::close(connection->fd);
    }
    last_activity_ns_ = now_ns();
    std::lock_guard<std::mutex> lock(g_conn_done_mu);
    --clients_;
    g_conn_done.notify_all();
}

std::string Host::handle(Connection &connection, const std::string &request, int *fd_out)
{
    wire::Reader in(request);
    wire::Writer out;
    const uint8_t op = in.u8();
    auto handle_of = [&](int64_t id) -> Connection::Handle * {
        auto it = connection.handles.find(id);
        return it == connection.handles.end() ? nullptr : &it->second;
    };
    auto bad_handle = [&] { return wire::Writer().i64(-1).i32(EBADF).str("").bytes(); };
    switch (op) {
    case wire::kHello: {
        out.u32(static_cast<uint32_t>(pid_));
        std::lock_guard<std::mutex> lock(s_.mu);
        out.u32(static_cast<uint32_t>(s_.models.size()));
        for (auto &[path, model] : s_.models)
            out.str(path);
        out.u32(static_cast<uint32_t>(s_.commands.size()));
        for (auto &[program, handler] : s_.commands)
            out.str(program);
        out.u32(static_cast<uint32_t>(s_.mount_handlers.size()));
        for (auto &[source, handler] : s_.mount_handlers)
            out.str(source);
        std::set<std::string> watched;
        for (auto &[path, watcher] : s_.file_watchers)
            watched.insert(path);
        out.u32(static_cast<uint32_t>(watched.size()));
        for (auto &path : watched)
            out.str(path);
        return out.bytes();
    }
    case wire::kSync:
        return out.bytes();
    case wire::kCall: {
        const std::string name = in.str();
        const std::string body = in.str();
        Service service;
        {
            std::lock_guard<std::mutex> lock(s_.mu);
            auto it = s_.services.find(name);
            if (it != s_.services.end())
                service = it->second;
        }
        if (!service)
            return out.u8(0).i32(ENODEV).bytes();
        errno = 0;
        const std::string answer = service(body);
        return out.u8(1).str(answer).bytes();
    }
    case wire::kCommand: {
        const CommandResult result = run_command(s_, in.str());
        return out.i32(result.status).str(result.output).bytes();
    }
    case wire::kMount: {
        const std::string source = in.str();
        const std::string target = in.str();
        const bool attaching = in.u8() != 0;
        MountHandler handler;
        {
            std::lock_guard<std::mutex> lock(s_.mu);
            auto it = s_.mount_handlers.find(source);
            if (it != s_.mount_handlers.end())
                handler = it->second;
        }
        errno = 0;
        const int result = handler ? handler(source, target, attaching) : 0;
        return out.i32(result).i32(errno).bytes();
    }
    case wire::kOpen: {
        const std::string path = in.str();
        const int flags = in.i32();
        const mode_t mode = in.u32();
        std::shared_ptr<DeviceModel> model;
        {
            std::lock_guard<std::mutex> lock(s_.mu);
            auto it = s_.models.find(path);
            if (it != s_.models.end())
                model = it->second;
        }
        if (!model)
            return out.i64(-1).i32(ENOENT).bytes();
        const int fd = model->open(s_.folder(), path, flags, mode);
        if (fd < 0)
            return out.i64(-1).i32(errno).bytes();
        const int64_t id = connection.next_handle++;
        connection.handles[id] = {fd, model};
        *fd_out = fd;
        return out.i64(id).i32(0).u8(model->read_takes_buffer()).bytes();
    }
    case wire::kRead:
    case wire::kPread: {
        auto *h = handle_of(in.i64());
        const uint64_t count = std::min<uint64_t>(in.u64(), kMaxTransfer);
        const off_t offset = op == wire::kPread ? static_cast<off_t>(in.i64()) : 0;
        std::string bytes = in.str(); // what the caller's buffer held, for a transfer
        if (!h)
            return bad_handle();
        bytes.resize(count, '\0');
        errno = 0;
        const ssize_t n = op == wire::kRead ? h->model->read(h->fd, &bytes[0], count)
                                            : h->model->pread(h->fd, &bytes[0], count, offset);
        bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return out.i64(n).i32(errno).str(bytes).bytes();
    }
    case wire::kWrite:
    case wire::kPwrite: {
        auto *h = handle_of(in.i64());
        const std::string bytes = in.str();
        const off_t offset = op == wire::kPwrite ? static_cast<off_t>(in.i64()) : 0;
        if (!h)
            return bad_handle();
        errno = 0;
        const ssize_t n = op == wire::kWrite ? h->model->write(h->fd, bytes.data(), bytes.size())
                                             : h->model->pwrite(h->fd, bytes.data(), bytes.size(), offset);
        return out.i64(n).i32(errno).bytes();
    }
    case wire::kIoctl: {
        auto *h = handle_of(in.i64());
        const unsigned long req = static_cast<unsigned long>(in.u64());
        const uint64_t value = in.u64();
        const bool has_arg = in.u8() != 0;
        std::string arg = in.str();
        if (!h)
            return bad_handle();
        const size_t need = h->model->ioctl_size(req);
        if (has_arg && need > arg.size())
            return out.i64(-2).i32(0).str("").u64(need).bytes();
        errno = 0;
        const int result = h->model->ioctl(h->fd, req,
                                           has_arg ? static_cast<void *>(&arg[0])
                                                   : reinterpret_cast<void *>(static_cast<uintptr_t>(value)));
        return out.i64(result).i32(errno).str(has_arg ? arg : "").bytes();
    }
    case wire::kClose: {
        const int64_t id = in.i64();
        if (auto *h = handle_of(id)) {
            h->model->close(h->fd);
            connection.handles.erase(id);
        }
        return out.i64(0).bytes();
    }
    case wire::kQuit:
        quit_ = true;
        return out.bytes();
    default:
        return out.bytes();
    }
}

// ---- the client's side ----

namespace {

// Carries out the calls on a descriptor of a host's model in the host.
class ProxyModel : public DeviceModel {
public:
    ProxyModel(Board::State &s, int64_t handle, uint64_t generation, bool read_takes_buffer)
        : s_(s), handle_(handle), generation_(generation), read_takes_buffer_(read_takes_buffer)
    {
    }

    ssize_t read(int, void *buf, size_t count) override
    {
        return transfer(wire::Writer().u8(wire::kRead).i64(handle_).u64(count).str(contents(buf, count)).bytes(),
                        buf, count);
    }
    ssize_t pread(int, void *buf, size_t count, off_t offset) override
    {
        return transfer(wire::Writer().u8(wire::kPread).i64(handle_).u64(count).i64(offset)
                            .str(contents(buf, count)).bytes(),
                        buf, count);
    }
    ssize_t write(int, const void *buf, size_t count) override
    {
        count = std::min<size_t>(count, kMaxTransfer);
        return store(wire::Writer().u8(wire::kWrite).i64(handle_)
                         .str(std::string(static_cast<const char *>(buf), count)).bytes());
    }
    ssize_t pwrite(int, const void *buf, size_t count, off_t offset) override
    {
        count = std::min<size_t>(count, kMaxTransfer);
        return store(wire::Writer().u8(wire::kPwrite).i64(handle_)
                         .str(std::string(static_cast<const char *>(buf), count)).i64(offset).bytes());
    }
    int ioctl(int, unsigned long request, void *arg) override
    {
        size_t size = DeviceModel::ioctl_size(request);
        for (int round = 0; round < 2; ++round) {
            const bool has_arg = arg != nullptr && size > 0;
            const std::string bytes = has_arg ? std::string(static_cast<const char *>(arg), size) : "";
            std::string reply;
            if (!ask(wire::Writer().u8(wire::kIoctl).i64(handle_).u64(request)
                         .u64(reinterpret_cast<uintptr_t>(arg)).u8(has_arg).str(bytes).bytes(),
                     &reply))
                return -1;
            wire::Reader in(reply);
            const int64_t result = in.i64();
            const int error = in.i32();
            const std::string back = in.str();
            if (result == -2) {
                // The model's argument is larger than the request number says.
                size = static_cast<size_t>(in.u64());
                continue;
            }
            if (has_arg)
                std::memcpy(arg, back.data(), std::min(back.size(), size));
            if (result < 0)
                errno = error;
            return static_cast<int>(result);
        }
        errno = EPROTO;
        return -1;
    }
    void close(int fd) override
    {
        std::string reply;
        ask(wire::Writer().u8(wire::kClose).i64(handle_).bytes(), &reply);
        ::close(fd);
    }

private:
    // The caller's buffer, for a model whose read is a transfer.
    std::string contents(const void *buf, size_t count) const
    {
        if (!read_takes_buffer_ || buf == nullptr)
            return "";
        return std::string(static_cast<const char *>(buf), std::min<size_t>(count, kMaxTransfer));
    }
    bool ask(const std::string &message, std::string *reply)
    {
        HostLink *link = link_here(s_);
        if (!link || link->generation() != generation_) {
            errno = EBADF; // opened through a host that has gone
            return false;
        }
        return link->request(message, reply);
    }
    ssize_t transfer(const std::string &message, void *buf, size_t count)
    {
        std::string reply;
        if (!ask(message, &reply))
            return -1;
        wire::Reader in(reply);
        const int64_t result = in.i64();
        const int error = in.i32();
        const std::string bytes = in.str();
        std::memcpy(buf, bytes.data(), std::min(bytes.size(), count));
        if (result < 0)
            errno = error;
        return static_cast<ssize_t>(result);
    }
    ssize_t store(const std::string &message)
    {
        std::string reply;
        if (!ask(message, &reply))
            return -1;
        wire::Reader in(reply);
        const int64_t result = in.i64();
        const int error = in.i32();
        if (result < 0)
            errno = error;
        return static_cast<ssize_t>(result);
    }

    Board::State &s_;
    int64_t handle_;
    uint64_t generation_;
    bool read_takes_buffer_;
};

// Starts a detached host for root and waits until it listens.
void start_host(const std::string &root)
{
    const std::string program = host_program();
    if (program.empty())
        throw std::runtime_error("cannot start the board's host: vexaboard-host was not found "
                                 "(set VEXA_BOARD_HOST to its path)");
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe2");
    const int child_fd = ready[1] == 200 ? 201 : 200;
    const std::string fd_text = std::to_string(child_fd);
    const char *argv[] = {program.c_str(), "--detach", "--ready-fd", fd_text.c_str(), root.c_str(),
                          nullptr};
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The host is no child of ours: a second fork, in a new session.
        ::setsid();
        if (::fork() != 0)
            ::_exit(0);
        const int null = ::open("/dev/null", O_RDWR);
        if (null >= 0) {
            ::dup2(null, 0);
            ::dup2(null, 1);
            ::dup2(null, 2);
        }
        ::dup2(ready[1], child_fd);
        // Nothing else of ours goes with it: a pipe the host held open would
        // keep whoever reads its other end waiting for the host to leave.
        ::close_range(3, static_cast<unsigned>(child_fd) - 1, 0);
        ::close_range(static_cast<unsigned>(child_fd) + 1, ~0U, 0);
        ::execv(program.c_str(), const_cast<char *const *>(argv));
        const char message[] = "cannot run vexaboard-host\n";
        (void)!::write(child_fd, message, sizeof message - 1);
        ::_exit(127);
    }
    ::close(ready[1]);
    if (pid > 0) {
        int status;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    std::string said;
    char buf[256];
    for (;;) {
        struct pollfd pfd = {ready[0], POLLIN, 0};
        // Generous: a loaded machine or an emulator starts programs slowly.
        if (::poll(&pfd, 1, 60000) <= 0)
            break;
        const ssize_t n = ::read(ready[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        said.append(buf, static_cast<size_t>(n));
    }
    ::close(ready[0]);
    if (said.rfind("ready", 0) == 0 || said.rfind("busy", 0) == 0)
        return;
    while (!said.empty() && said.back() == '\n')
        said.pop_back();
    throw std::runtime_error("the board's host for " + root + " did not start" +
                             (said.empty() ? std::string() : ": " + said));
}

} // namespace

HostLink::HostLink(Board::State &s) : s_(s), pid_(::getpid())
{
    std::lock_guard<std::mutex> lock(mu_);
    if (!connect_locked())
        throw std::runtime_error("cannot reach the board's host for " + s.root);
}

HostLink::~HostLink()
{
    if (sock_ >= 0)
        ::close(sock_);
}

bool HostLink::connect_locked()
{
    for (int attempt = 0; attempt < 8; ++attempt) {
        if (attempt > 0) {
            // A host that is leaving (killed, or told to) holds the folder's
            // lock a moment after it stopped taking clients, and a new one
            // is "busy" until it has gone: wait for it, a little longer each
            // time (1.4 s in all).
            struct timespec pause = {0, 50000000L * attempt};
            ::nanosleep(&pause, nullptr);
        }
        sock_ = connect_host(s_.root);
        if (sock_ < 0) {
            // None runs: start one, one starter at a time.
            Fd lock(::open(s_.state_path("host.start").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
            if (lock.get() >= 0)
                ::flock(lock.get(), LOCK_EX);
            sock_ = connect_host(s_.root);
            if (sock_ < 0) {
                start_host(s_.root);
                sock_ = connect_host(s_.root);
            }
        }
        // The host's answer is read when it is first needed: a command that
        // asks the host nothing does not wait for it.
        if (sock_ >= 0 && wire::send_message(sock_, wire::Writer().u8(wire::kHello).bytes())) {
            hello_pending_ = true;
            generation_ = ++g_generation;
            return true;
        }
        if (sock_ >= 0)
            ::close(sock_);
        sock_ = -1;
    }
    return false;
}

bool HostLink::settle_locked()
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (sock_ < 0 && !connect_locked())
            return false;
        if (!hello_pending_ || hello_locked())
            return true;
        ::close(sock_);
        sock_ = -1;
    }
    return false;
}

bool HostLink::hello_locked()
{
    hello_pending_ = false;
    std::string reply;
    if (!wire::receive_message(sock_, &reply))
        return false;
    wire::Reader in(reply);
    host_pid_ = static_cast<pid_t>(in.u32());
    for (auto *set : {&models_, &commands_, &mounts_, &watched_}) {
        set->clear();
        const uint32_t n = in.u32();
        for (uint32_t i = 0; i < n && !in.bad(); ++i)
            set->insert(in.str());
    }
    return !in.bad();
}

pid_t HostLink::host_pid()
{
    std::lock_guard<std::mutex> lock(mu_);
    settle_locked();
    return host_pid_;
}

uint64_t HostLink::generation() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return generation_;
}

bool HostLink::offers_model(const std::string &board_path)
{
    std::lock_guard<std::mutex> lock(mu_);
    settle_locked();
    return models_.count(board_path) != 0;
}

bool HostLink::offers_command(const std::string &program)
{
    std::lock_guard<std::mutex> lock(mu_);
    settle_locked();
    return commands_.count(program) != 0;
}

bool HostLink::offers_mount(const std::string &source)
{
    std::lock_guard<std::mutex> lock(mu_);
    settle_locked();
    return mounts_.count(source) != 0;
}

bool HostLink::watches(const std::string &board_path)
{
    std::lock_guard<std::mutex> lock(mu_);
    settle_locked();
    return watched_.count(board_path) != 0;
}

bool HostLink::request(const std::string &message, std::string *reply, int *fd)
{
    std::lock_guard<std::mutex> lock(mu_);
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            if (!settle_locked())
                break;
        } catch (const std::exception &) {
            break;
        }
        if (wire::send_message(sock_, message) && wire::receive_message(sock_, reply, fd))
            return true;
        // The host has gone: a new one (or the one that took over) answers.
        ::close(sock_);
        sock_ = -1;
    }
    errno = ENODEV;
    return false;
}

int HostLink::open(const std::string &board_path, int flags, mode_t mode,
                   std::shared_ptr<DeviceModel> *proxy)
{
    std::string reply;
    int fd = -1;
    if (!request(wire::Writer().u8(wire::kOpen).str(board_path).i32(flags).u32(mode).bytes(), &reply, &fd))
        return -1;
    wire::Reader in(reply);
    const int64_t handle = in.i64();
    const int error = in.i32();
    if (handle < 0 || fd < 0) {
        if (fd >= 0)
            ::close(fd);
        errno = handle < 0 ? error : EPROTO;
        return -1;
    }
    const bool read_takes_buffer = in.u8() != 0;
    *proxy = std::make_shared<ProxyModel>(s_, handle, generation(), read_takes_buffer);
    return fd;
}

} // namespace vexa::sim
