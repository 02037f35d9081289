// The OS layer on the virtual board: absolute paths map below the board's
// root, device models serve their nodes, shell commands are journaled and
// carried out by the handlers that areas register, reboots are recorded.
#include "platform/os.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <type_traits>

#include "sim/host.h"
#include "sim/precise_wait.h"
#include "sim/state.h"
#include "sim/wire.h"

namespace fs = std::filesystem;
using vexa::sim::Board;

namespace {

std::string str(const char *p) { return p ? p : ""; }

struct Route {
    std::string board_path;
    std::shared_ptr<vexa::sim::DeviceModel> model;
};

Route route(vexa::sim::Board::State &s, int fd)
{
    std::lock_guard<std::mutex> lock(s.mu);
    auto it = s.open_files.find(fd);
    if (it == s.open_files.end())
        return {};
    return {it->second.board_path, it->second.model};
}

uint64_t real_monotonic_ns()
{
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

std::vector<std::string> split_words(const std::string &command)
{
    std::vector<std::string> words;
    std::istringstream in(command);
    std::string word;
    while (in >> word)
        words.push_back(word);
    return words;
}

// A board line leads to a pty of the host (sim/serial/serial_line.h). A pty
// cannot keep parity, and the kernel refuses (EINVAL) a parity setting that
// changes nothing else, so each opener through the library starts from raw
// 8N1, as the line stood when the host made it.
void reset_board_pty(int fd)
{
    char name[64];
    if (!::isatty(fd) || ::ttyname_r(fd, name, sizeof name) != 0 ||
        std::string(name).rfind("/dev/pts/", 0) != 0)
        return;
    struct termios tio;
    if (::tcgetattr(fd, &tio) == 0) {
        ::cfmakeraw(&tio);
        tio.c_cflag &= ~CLOCAL;
        ::tcsetattr(fd, TCSANOW, &tio);
    }
}

// open(2) flags of an fopen(3) mode; -1 for a mode fopen refuses.
int fopen_flags(const char *mode)
{
    if (!mode)
        return -1;
    int flags;
    switch (mode[0]) {
    case 'r': flags = 0; break;
    case 'w': flags = O_CREAT | O_TRUNC; break;
    case 'a': flags = O_CREAT | O_APPEND; break;
    default: return -1;
    }
    bool update = false;
    for (const char *c = mode + 1; *c; ++c) {
        if (*c == '+')
            update = true;
        else if (*c == 'x')
            flags |= O_EXCL;
    }
    return flags | (update ? O_RDWR : mode[0] == 'r' ? O_RDONLY : O_WRONLY);
}

// The longest real wait of a poll with a fast clock: long enough for a model
// thread to answer, short enough that silence costs no real time.
constexpr int kFastPollRealMs = 200;

} // namespace

namespace vexa::sim {

void record_command(Board::State &s, const std::string &command)
{
    append_state(s, "commands", escape_line(command));
}

CommandResult run_command(Board::State &s, const std::string &command)
{
    const auto argv = split_words(command);
    CommandHandler handler;
    if (!argv.empty() && own_registry(s)) {
        const std::string program = fs::path(argv[0]).filename().string();
        std::lock_guard<std::mutex> lock(s.mu);
        auto it = s.commands.find(program);
        if (it != s.commands.end())
            handler = it->second;
    }
    if (handler)
        return handler(argv, command);
    // The host's handlers carry out a client's commands.
    HostLink *link = link_here(s);
    if (link && !argv.empty() && link->offers_command(fs::path(argv[0]).filename().string())) {
        std::string reply;
        if (!link->request(wire::Writer().u8(wire::kCommand).str(command).bytes(), &reply))
            return {127 << 8, ""};
        wire::Reader in(reply);
        CommandResult result;
        result.status = in.i32();
        result.output = in.str();
        return result;
    }
    // A command no area carries out is journaled and succeeds.
    return CommandResult{};
}

std::string mount_field(const std::string &text)
{
    std::string out;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\\') {
            char code[5];
            std::snprintf(code, sizeof code, "\\%03o", static_cast<unsigned char>(c));
            out += code;
        } else {
            out += c;
        }
    }
    return out;
}

std::vector<MountRecord> mount_records(const std::string &text)
{
    const auto octal = [](char c) { return c >= '0' && c <= '7'; };
    const auto unescape = [&](const std::string &field) {
        std::string out;
        for (size_t i = 0; i < field.size(); ++i) {
            if (field[i] == '\\' && i + 3 < field.size() && octal(field[i + 1]) && octal(field[i + 2]) &&
                octal(field[i + 3])) {
                out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
                i += 3;
            } else {
                out += field[i];
            }
        }
        return out;
    };
    std::vector<MountRecord> records;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string source, target, fstype, flags;
        if (!(words >> source >> target))
            continue;
        words >> fstype >> flags;
        records.push_back({unescape(source), unescape(target), unescape(fstype),
                           std::strtoul(flags.c_str(), nullptr, 10)});
    }
    return records;
}

MountHandler mount_handler_of(Board::State &s, const std::string &source)
{
    if (own_registry(s)) {
        std::lock_guard<std::mutex> lock(s.mu);
        auto it = s.mount_handlers.find(source);
        if (it != s.mount_handlers.end())
            return it->second;
    }
    HostLink *link = link_here(s);
    if (!link || !link->offers_mount(source))
        return MountHandler();
    Board::State *state = &s;
    return [state](const std::string &src, const std::string &target, bool attaching) {
        HostLink *l = link_here(*state);
        std::string reply;
        if (!l || !l->request(wire::Writer().u8(wire::kMount).str(src).str(target).u8(attaching).bytes(),
                              &reply))
            return -1;
        wire::Reader in(reply);
        const int result = in.i32();
        const int error = in.i32();
        if (result != 0)
            errno = error;
        return result;
    };
}

} // namespace vexa::sim

namespace vexa::os {

int open(const char *path, int flags, mode_t mode)
{
    VEXA_SIM_ATTACHED_OR(-1);
    const std::string board_path = str(path);
    VEXA_SIM_FAULT("open", board_path, int);
    std::shared_ptr<sim::DeviceModel> model;
    if (sim::own_registry(s)) {
        std::lock_guard<std::mutex> lock(s.mu);
        auto it = s.models.find(board_path);
        if (it != s.models.end())
            model = it->second;
    }
    int fd;
    if (model) {
        fd = model->open(s.folder(), board_path, flags, mode);
    } else if (sim::HostLink *link = sim::link_here(s); link && link->offers_model(board_path)) {
        // The host's model serves it; the calls on the descriptor go there.
        fd = link->open(board_path, flags, mode, &model);
    } else {
        fd = s.folder().open(board_path, flags, mode);
    }
    if (fd >= 0) {
        if (!model)
            reset_board_pty(fd);
        std::lock_guard<std::mutex> lock(s.mu);
        s.open_files[fd] = {board_path, model, (flags & O_ACCMODE) != O_RDONLY};
    }
    return fd;
}

ssize_t read(int fd, void *buf, size_t count)
{
    VEXA_SIM_ATTACHED_OR(-1);
    const Route r = route(s, fd);
    VEXA_SIM_FAULT("read", r.board_path, ssize_t);
    return r.model ? r.model->read(fd, buf, count) : ::read(fd, buf, count);
}

ssize_t write(int fd, const void *buf, size_t count)
{
    VEXA_SIM_ATTACHED_OR(-1);
    const Route r = route(s, fd);
    VEXA_SIM_FAULT("write", r.board_path, ssize_t);
    if (sim::partition_write_fails(s, r.board_path)) {
        errno = EIO;
        return -1;
    }
    const long long allowed = sim::fault_write_allowance(s, "write", r.board_path, count);
    if (allowed < 0)
        return -1;
    return r.model ? r.model->write(fd, buf, allowed) : ::write(fd, buf, allowed);
}

ssize_t pread(int fd, void *buf, size_t count, off_t offset)
{
    VEXA_SIM_ATTACHED_OR(-1);
    const Route r = route(s, fd);
    VEXA_SIM_FAULT("pread", r.board_path, ssize_t);
    return r.model ? r.model->pread(fd, buf, count, offset) : ::pread(fd, buf, count, offset);
}

ssize_t pwrite(int fd, const void *buf, size_t count, off_t offset)
{
    VEXA_SIM_ATTACHED_OR(-1);
    const Route r = route(s, fd);
    VEXA_SIM_FAULT("pwrite", r.board_path, ssize_t);
    if (sim::partition_write_fails(s, r.board_path)) {
        errno = EIO;
        return -1;
    }
    const long long allowed = sim::fault_write_allowance(s, "pwrite", r.board_path, count);
    if (allowed < 0)
        return -1;
    return r.model ? r.model->pwrite(fd, buf, allowed, offset) : ::pwrite(fd, buf, allowed, offset);
}

int ioctl(int fd, unsigned long request, void *arg)
{
    VEXA_SIM_ATTACHED_OR(-1);
    const Route r = route(s, fd);
    VEXA_SIM_FAULT("ioctl", r.board_path, int);
    return r.model ? r.model->ioctl(fd, request, arg) : ::ioctl(fd, request, arg);
}

off_t lseek(int fd, off_t offset, int whence)
{
    VEXA_SIM_ATTACHED_OR(-1);
    const Route r = route(s, fd);
    VEXA_SIM_FAULT("lseek", r.board_path, off_t);
    return ::lseek(fd, offset, whence);
}

int fsync(int fd)
{
    VEXA_SIM_ATTACHED_OR(-1);
    const Route r = route(s, fd);
    VEXA_SIM_FAULT("fsync", r.board_path, int);
    return r.model ? r.model->fsync(fd) : ::fsync(fd);
}

int close(int fd)
{
    VEXA_SIM_ATTACHED_OR(-1);
    Route r;
    bool written = false;
    {
        std::lock_guard<std::mutex> lock(s.mu);
        auto it = s.open_files.find(fd);
        if (it != s.open_files.end()) {
            r = {it->second.board_path, it->second.model};
            written = it->second.writable;
            s.open_files.erase(it);
        }
    }
    VEXA_SIM_FAULT("close", r.board_path, int);
    if (r.model) {
        r.model->close(fd);
        return 0;
    }
    const int result = ::close(fd);
    if (written)
        sim::file_written(s, r.board_path);
    return result;
}

int poll(struct pollfd *fds, nfds_t nfds, int timeout_ms)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("poll", "", int);
    if (!s.fast || timeout_ms <= kFastPollRealMs)
        return ::poll(fds, nfds, timeout_ms);
    // Fast clock: wait a short real time; silence then counts as the whole
    // timeout on the board's clock.
    const uint64_t start = real_monotonic_ns();
    const int ready = ::poll(fds, nfds, kFastPollRealMs);
    if (ready == 0) {
        const uint64_t waited = real_monotonic_ns() - start;
        const uint64_t whole = static_cast<uint64_t>(timeout_ms) * 1000000u;
        if (whole > waited)
            sim::advance_board_clock(s, whole - waited);
    }
    return ready;
}

FILE *fopen(const char *path, const char *mode)
{
    VEXA_SIM_ATTACHED_OR(nullptr);
    VEXA_SIM_FAULT("fopen", str(path), FILE *);
    const int flags = fopen_flags(mode);
    if (flags < 0) {
        errno = EINVAL;
        return nullptr;
    }
    const int fd = s.folder().open(str(path), flags, 0666);
    if (fd < 0)
        return nullptr;
    FILE *f = ::fdopen(fd, mode);
    if (!f) {
        const int error = errno;
        ::close(fd);
        errno = error;
    }
    return f;
}

int stat(const char *path, struct stat *st)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("stat", str(path), int);
    return s.folder().stat(str(path), st);
}

int access(const char *path, int mode)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("access", str(path), int);
    // A modelled node exists even where no file stands for it.
    if (sim::own_registry(s)) {
        std::lock_guard<std::mutex> lock(s.mu);
        if (s.models.count(str(path)))
            return 0;
    }
    if (sim::HostLink *link = sim::link_here(s); link && link->offers_model(str(path)))
        return 0;
    return s.folder().access(str(path), mode);
}

DIR *opendir(const char *path)
{
    VEXA_SIM_ATTACHED_OR(nullptr);
    VEXA_SIM_FAULT("opendir", str(path), DIR *);
    return s.folder().opendir(str(path));
}

int mkdir(const char *path, mode_t mode)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("mkdir", str(path), int);
    return s.folder().mkdir(str(path), mode);
}

int remove(const char *path)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("remove", str(path), int);
    return s.folder().remove(str(path));
}

int rename(const char *from, const char *to)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("rename", str(from), int);
    return s.folder().rename(str(from), str(to));
}

// Mounts are recorded in ROOT/.board/mounts as "SOURCE TARGET FSTYPE FLAGS",
// the paths as the device reads them ("/mnt/../data" is "/data") with space,
// tab, newline and backslash written as /proc/mounts writes them (\040 ...).
int mount(const char *source, const char *target, const char *fstype, unsigned long flags,
          const void *)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("mount", str(target), int);
    if (!source || !target) {
        errno = EFAULT;
        return -1;
    }
    const sim::Folder folder = s.folder();
    const std::string src = sim::Folder::normal(source), dst = sim::Folder::normal(target);
    struct stat st;
    if (folder.stat(src, &st) != 0 || folder.stat(dst, &st) != 0)
        return -1;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    std::ostringstream line;
    line << sim::mount_field(src) << ' ' << sim::mount_field(dst) << ' '
         << sim::mount_field(fstype ? fstype : "none") << ' ' << flags;
    return sim::with_board_lock(s, [&] {
        std::string mounts = sim::read_state(s, "mounts");
        for (const auto &record : sim::mount_records(mounts)) {
            if (record.target == dst) {
                errno = EBUSY;
                return -1;
            }
        }
        if (auto handler = sim::mount_handler_of(s, src); handler && handler(src, dst, true) != 0)
            return -1;
        sim::write_state(s, "mounts", mounts + line.str() + "\n");
        return 0;
    });
}

int umount(const char *target)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("umount", str(target), int);
    const std::string dst = sim::Folder::normal(str(target));
    return sim::with_board_lock(s, [&] {
        std::istringstream in(sim::read_state(s, "mounts"));
        std::string kept, l;
        bool found = false;
        while (std::getline(in, l)) {
            const auto record = sim::mount_records(l);
            if (!found && target && !record.empty() && sim::Folder::normal(record[0].target) == dst) {
                found = true;
                if (auto handler = sim::mount_handler_of(s, record[0].source);
                    handler && handler(record[0].source, dst, false) != 0)
                    return -1;
            } else {
                kept += l + "\n";
            }
        }
        if (!found) {
            errno = EINVAL;
            return -1;
        }
        sim::write_state(s, "mounts", kept);
        return 0;
    });
}

void sync()
{
    auto state = sim::attached();
    if (state) {
        long ignored;
        sim::fault_fires(*state, "sync", "", &ignored);
    }
}

int reboot(const char *arg)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("reboot", str(arg), int);
    sim::append_state(s, "reboots", sim::escape_line(str(arg)));
    return 0;
}

int system(const char *command)
{
    VEXA_SIM_ATTACHED_OR(-1);
    if (command == nullptr)
        return 1; // a shell is available
    sim::record_command(s, command);
    VEXA_SIM_FAULT("system", command, int);
    return sim::run_command(s, command).status;
}

FILE *popen(const char *command, const char *type)
{
    VEXA_SIM_ATTACHED_OR(nullptr);
    sim::record_command(s, str(command));
    VEXA_SIM_FAULT("popen", str(command), FILE *);
    const sim::CommandResult result = sim::run_command(s, str(command));
    FILE *f = ::tmpfile();
    if (!f)
        return nullptr;
    if (type && type[0] == 'r') {
        ::fwrite(result.output.data(), 1, result.output.size(), f);
        ::rewind(f);
    }
    std::lock_guard<std::mutex> lock(s.mu);
    s.popen_status[f] = result.status;
    return f;
}

int pclose(FILE *stream)
{
    VEXA_SIM_ATTACHED_OR(-1);
    int status = -1;
    {
        std::lock_guard<std::mutex> lock(s.mu);
        auto it = s.popen_status.find(stream);
        if (it != s.popen_status.end()) {
            status = it->second;
            s.popen_status.erase(it);
        }
    }
    ::fclose(stream);
    return status;
}

void sleep_us(uint64_t us)
{
    auto state = sim::attached();
    if (state && state->fast) {
        sim::advance_board_clock(*state, us * 1000);
        return;
    }
    // The board's timer keeps its sleeps to the microsecond, as the
    // device's does, so a protocol's fixed waits are not stretched.
    static sim::PreciseWait wait;
    wait.until(std::chrono::steady_clock::now() + std::chrono::microseconds(us));
}

uint64_t monotonic_ns()
{
    auto state = sim::attached();
    return real_monotonic_ns() + (state ? static_cast<uint64_t>(state->clock_offset_ns.load()) : 0);
}

} // namespace vexa::os
