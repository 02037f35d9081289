// Attaches the serial lines of the product INI and the MCU behind the MCU's
// line, and has the MCU follow the files of its reset lines, its watchdog
// line and its settings file.
#include <iniparser.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>

#include "sim/board.h"
#include "sim/serial/mcu_model.h"
#include "sim/serial/serial_line.h"

namespace vexa::sim {

namespace {

// What the board side of a plain line wrote lately, kept in
// ROOT/.board/serial/NAME (see serial_output_path) for the board's view and
// any other reader: the newest bytes, 64 KiB at most (past that the newest
// 32 KiB stay, written anew and renamed over the old file).
class Capture {
public:
    Capture(Folder folder, std::string board_path) : folder_(std::move(folder)), path_(std::move(board_path))
    {
        folder_.make_dirs(path_.substr(0, path_.rfind('/')));
        write_whole();
    }
    void append(const char *data, size_t n)
    {
        kept_.append(data, n);
        if (kept_.size() > kMax) {
            kept_.erase(0, kept_.size() - kMax / 2);
            write_whole();
            return;
        }
        const Descriptor fd(folder_.open(path_, O_WRONLY | O_APPEND | O_CREAT, 0644));
        if (fd)
            (void)!::write(fd.get(), data, n);
    }

private:
    static constexpr size_t kMax = 64 * 1024;
    void write_whole()
    {
        const std::string temp = path_ + ".new";
        if (folder_.write(temp, kept_, false, false) == 0)
            folder_.rename(temp, path_);
    }
    Folder folder_;
    std::string path_;
    std::string kept_;
};

// Joins each plain line's board side to its far end: what one side's
// master reads, the other's master writes. A side whose reader does not
// keep up loses the oldest bytes past 64 KiB, as a UART's receiver would
// overrun. What the board side writes is also kept in the line's capture.
class Bridge {
public:
    Bridge(std::vector<std::shared_ptr<SerialLine>> lines, const std::string &root) : lines_(std::move(lines))
    {
        gone_.assign(lines_.size(), false);
        if (lines_.empty() || ::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0)
            return;
        for (auto &line : lines_) {
            auto capture = std::make_shared<Capture>(Folder(root), serial_output_path(line->board_path()));
            pipes_.push_back({line->board_master(), line->far_master(), {}, capture});
            pipes_.push_back({line->far_master(), line->board_master(), {}, nullptr});
        }
        thread_ = std::thread([this] { run(); });
    }
    ~Bridge()
    {
        stop_ = true;
        if (wake_[1] >= 0)
            (void)!::write(wake_[1], "x", 1);
        if (thread_.joinable())
            thread_.join();
        for (int fd : wake_)
            if (fd >= 0)
                ::close(fd);
    }

    // The far ends that are gone (the knob serial.far_end_gone): what the
    // board side writes goes nowhere, and nothing comes from there.
    void set_gone(const std::set<std::string> &paths)
    {
        std::lock_guard<std::mutex> lock(gone_mu_);
        for (size_t i = 0; i < lines_.size(); ++i)
            gone_[i] = paths.count(lines_[i]->board_path()) != 0;
    }

private:
    struct Pipe {
        int from, to;
        std::string pending;
        std::shared_ptr<Capture> capture; // the board side's output, or null
    };

    bool gone(size_t pipe)
    {
        std::lock_guard<std::mutex> lock(gone_mu_);
        return gone_[pipe / 2];
    }
    static constexpr size_t kMaxPending = 64 * 1024;

    void run()
    {
        std::vector<struct pollfd> fds;
        while (!stop_) {
            fds.clear();
            for (auto &pipe : pipes_)
                fds.push_back(pipe.pending.empty() ? pollfd{pipe.from, POLLIN, 0} : pollfd{pipe.to, POLLOUT, 0});
            fds.push_back({wake_[0], POLLIN, 0});
            if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR)
                return;
            if (stop_)
                return;
            for (size_t i = 0; i < pipes_.size(); ++i) {
                Pipe &pipe = pipes_[i];
                if (pipe.pending.empty() && (fds[i].revents & POLLIN)) {
                    char buf[4096];
                    const ssize_t n = ::read(pipe.from, buf, sizeof buf);
                    if (n > 0) {
                        pipe.pending.append(buf, static_cast<size_t>(n));
                        if (pipe.capture)
                            pipe.capture->append(buf, static_cast<size_t>(n));
                    }
                } else if (!pipe.pending.empty() && !(fds[i].revents & POLLOUT)) {
                    continue;
                }
                if (!pipe.pending.empty() && gone(i))
                    pipe.pending.clear();
                if (!pipe.pending.empty()) {
                    const ssize_t n = ::write(pipe.to, pipe.pending.data(), pipe.pending.size());
                    if (n > 0)
                        pipe.pending.erase(0, static_cast<size_t>(n));
                    if (pipe.pending.size() > kMaxPending)
                        pipe.pending.erase(0, pipe.pending.size() - kMaxPending);
                }
            }
        }
    }

    std::vector<std::shared_ptr<SerialLine>> lines_;
    std::mutex gone_mu_;
    std::vector<bool> gone_; // by line
    std::vector<Pipe> pipes_;
    int wake_[2] = {-1, -1};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

struct Lines {
    Folder folder;
    std::map<std::string, std::shared_ptr<SerialLine>> by_path;
    std::shared_ptr<McuModel> mcu;
    std::unique_ptr<Bridge> bridge;
    std::string record; // what ROOT/.board/lines says of them

    ~Lines()
    {
        bridge.reset();
        // The links lead nowhere once the ptys close: take them away, unless
        // they lead to another host's pty by now.
        for (auto &[path, line] : by_path) {
            if (folder.read_link(path) == line->pty_path())
                folder.remove(path);
        }
        if (folder.read("/.board/lines") == record)
            folder.remove("/.board/lines");
    }
};

// The most a far-end write carries at once.
constexpr size_t kMaxSend = 4096;

std::mutex g_mu;
// By board root: the lines of each board attached in this process.
std::map<std::string, std::weak_ptr<Lines>> g_lines;

std::shared_ptr<Lines> lines_of(const Board &board)
{
    std::lock_guard<std::mutex> lock(g_mu);
    auto it = g_lines.find(board.root());
    return it == g_lines.end() ? nullptr : it->second.lock();
}

struct DictDeleter {
    void operator()(dictionary *d) const { iniparser_freedict(d); }
};

const char *const kSerialKeys[] = {
    "serial:serial_lora_1", "serial:serial_hdmi_1", "serial:serial_232_1", "serial:serial_232_2",
    "serial:serial_485_1",  "serial:serial_485_2",  "serial:serial_ttl_1", "serial:serial_ttl_2",
};

bool usable(const char *path)
{
    return path && path[0] == '/' && std::string(path).find("UNDEF") == std::string::npos;
}

// Settings of the MCU model kept with the board, so that every process sees
// the same MCU: "/.board/mcu-model", lines "version=TEXT", "links=MASK",
// "type=N"; followed while the host runs.
void apply_model_settings(const std::string &text, McuModel &mcu)
{
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string key = line.substr(0, eq);
        const std::string value = line.substr(eq + 1);
        char *end = nullptr;
        const unsigned long long number = std::strtoull(value.c_str(), &end, 0);
        const bool numeric = end && *end == '\0' && !value.empty();
        if (key == "version")
            mcu.set_version(value);
        else if (key == "links" && numeric)
            mcu.set_link_mask(number);
        else if (key == "type" && numeric && number >= 1 && number <= 4)
            mcu.set_type(static_cast<int>(number));
    }
}

// The board paths whose links an earlier host made (ROOT/.board/lines).
std::set<std::string> linked_before(const Board &board)
{
    std::set<std::string> paths;
    if (!board.exists("/.board/lines"))
        return paths;
    std::istringstream in(board.read_file("/.board/lines"));
    std::string path;
    std::string rest;
    while (in >> path && std::getline(in, rest))
        paths.insert(path);
    return paths;
}

// A symbolic link that no host made: a node of the host machine (a
// USB-serial adapter, another program's pty), used as it is.
bool host_node(const Folder &folder, const std::set<std::string> &ours, const std::string &path)
{
    struct stat st;
    return folder.stat(path, &st, false) == 0 && S_ISLNK(st.st_mode) && !ours.count(path);
}

// Leads the board path to the line's board side.
void link_line(const Folder &folder, const std::string &path, const SerialLine &line)
{
    const std::string at = Folder::normal(path);
    folder.make_dirs(at.substr(0, at.rfind('/')));
    folder.remove(path);
    folder.symlink(line.pty_path(), path);
}

} // namespace

std::shared_ptr<SerialLine> serial_line(const Board &board, const std::string &board_path)
{
    auto lines = lines_of(board);
    if (!lines)
        return nullptr;
    auto it = lines->by_path.find(board_path);
    return it == lines->by_path.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<SerialLine>> serial_lines(const Board &board)
{
    std::vector<std::shared_ptr<SerialLine>> out;
    if (auto lines = lines_of(board))
        for (auto &[path, line] : lines->by_path)
            out.push_back(line);
    return out;
}

std::shared_ptr<McuModel> mcu_model(const Board &board)
{
    auto lines = lines_of(board);
    return lines ? lines->mcu : nullptr;
}

} // namespace vexa::sim

using namespace vexa::sim;

std::optional<McuWatchdogView> vexa::sim::mcu_watchdog(const Board &board, uint64_t now_ns)
{
    McuWatchdogView view;
    if (auto mcu = mcu_model(board)) {
        const auto seen = mcu->watchdog(now_ns);
        view.edges = seen.edges;
        view.fed = seen.fed;
        view.closed = seen.closed;
        return view;
    }
    auto reply = board.call("mcu.watchdog", std::to_string(now_ns));
    if (!reply)
        return std::nullopt;
    std::istringstream in(*reply);
    int fed = 0, closed = 0;
    if (!(in >> view.edges >> fed >> closed))
        return std::nullopt;
    view.fed = fed != 0;
    view.closed = closed != 0;
    return view;
}

std::vector<SerialLineInfo> vexa::sim::serial_line_list(const Board &board)
{
    std::vector<SerialLineInfo> out;
    const auto record = board.call("serial.lines", "");
    std::istringstream in(record.value_or(""));
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        SerialLineInfo info;
        std::string far_end;
        if (words >> info.board_path >> info.board_pty >> info.outside_pty >> far_end) {
            info.mcu = far_end == "mcu-model";
            out.push_back(std::move(info));
        }
    }
    return out;
}

std::string vexa::sim::serial_output_path(const std::string &board_path)
{
    std::string name = board_path.substr(board_path.find_first_not_of('/') == std::string::npos
                                             ? board_path.size()
                                             : board_path.find_first_not_of('/'));
    for (char &c : name)
        if (c == '/')
            c = '_';
    return "/.board/serial/" + name;
}

bool vexa::sim::serial_send(const Board &board, const std::string &board_path, const std::string &bytes,
                            bool from_board)
{
    if (bytes.size() > kMaxSend || board_path.find('\n') != std::string::npos)
        return false;
    const auto reply = board.call("serial.send", (from_board ? "board " : "far ") + board_path + '\n' + bytes);
    return reply && *reply == "ok";
}

std::optional<McuStateView> vexa::sim::mcu_state(const Board &board)
{
    const auto reply = board.call("mcu.state", "");
    if (!reply || reply->empty())
        return std::nullopt;
    McuStateView view;
    std::istringstream in(*reply);
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
        if (key == "mode")
            view.mode = value;
        else if (key == "version")
            view.version = value;
        else if (key == "written")
            view.written = std::strtoull(value.c_str(), nullptr, 10);
        else if (key == "erased_pages")
            view.erased_pages = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
        else if (key == "mass_erased")
            view.mass_erased = value == "1";
    }
    return view;
}

VEXA_SIM_ATTACHER(serial_lines)
{
    if (!board.exists("/vendor/etc/product.ini"))
        return;
    const Folder folder = board.folder();
    const Descriptor ini(folder.open("/vendor/etc/product.ini", O_RDONLY));
    std::unique_ptr<dictionary, DictDeleter> dict(ini ? iniparser_load(descriptor_path(ini.get()).c_str())
                                                      : nullptr);
    if (!dict)
        return;
    auto lines = std::make_shared<Lines>();
    lines->folder = folder;
    const std::set<std::string> ours = linked_before(board);
    const char *mcu_path = iniparser_getstring(dict.get(), "mcu:mcu_uart_path", nullptr);
    if (usable(mcu_path) && !host_node(folder, ours, mcu_path)) {
        lines->mcu = std::make_shared<McuModel>(mcu_path, folder, "/.board/mcu-flash.bin");
        lines->by_path[mcu_path] = lines->mcu;
        lines->mcu->set_watchdog_line(iniparser_getint(dict.get(), "mcu_wdt:mcu_wdt_switch", -1));
        if (const char *version = iniparser_getstring(dict.get(), "mcu:mcu_fw_version", nullptr))
            lines->mcu->set_version(version);
        const int type = iniparser_getint(dict.get(), "mcu:mcu_type", 1);
        lines->mcu->set_type(type >= 1 && type <= 4 ? type : 1);
        if (board.exists("/.board/mcu-model"))
            apply_model_settings(board.read_file("/.board/mcu-model"), *lines->mcu);
    }
    std::vector<std::shared_ptr<SerialLine>> plain;
    for (const char *key : kSerialKeys) {
        const char *path = iniparser_getstring(dict.get(), key, nullptr);
        if (!usable(path) || lines->by_path.count(path) || host_node(folder, ours, path))
            continue;
        auto line = std::make_shared<SerialLine>(path, true);
        lines->by_path[path] = line;
        plain.push_back(line);
    }
    for (auto &[path, line] : lines->by_path) {
        link_line(folder, path, *line);
        lines->record += path + ' ' + line->pty_path() + ' ' + line->outside_path() + ' ' +
                         (line == lines->mcu ? "mcu-model" : "far-end") + '\n';
    }
    board.write_file("/.board/lines", lines->record);
    lines->bridge = std::make_unique<Bridge>(std::move(plain), board.root());
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_lines[board.root()] = lines;
    }
    // The services and watchers below keep the lines alive while the board
    // holds them.
    board.serve("serial.lines", [lines](const std::string &) { return lines->record; });
    std::set<std::string> plain_paths;
    for (const auto &[path, line] : lines->by_path)
        if (line != lines->mcu)
            plain_paths.insert(path);
    auto gone_of = [](const std::string &value) {
        std::set<std::string> paths;
        std::istringstream items(value);
        std::string item;
        while (std::getline(items, item, ','))
            paths.insert(item);
        return paths;
    };
    std::weak_ptr<Lines> weak_lines = lines;
    board.add_knob({"serial.far_end_gone", "PATH,...",
                    "the far end of these plain lines is unplugged: what the board writes goes nowhere, "
                    "nothing comes back",
                    "", Knob::list_of([plain_paths](const std::string &path) { return plain_paths.count(path) != 0; }),
                    [weak_lines, gone_of](const std::string &value) {
                        if (auto l = weak_lines.lock(); l && l->bridge)
                            l->bridge->set_gone(gone_of(value));
                    }});
    if (lines->bridge)
        lines->bridge->set_gone(gone_of(board.knob("serial.far_end_gone")));
    // "far|board BOARD_PATH\nBYTES": bytes sent from a plain line's far end
    // (as from the peer device), or written on its board side.
    board.serve("serial.send", [lines](const std::string &request) -> std::string {
        const auto space = request.find(' ');
        const auto split = request.find('\n');
        if (space == std::string::npos || split == std::string::npos || split < space ||
            request.size() - split - 1 > kMaxSend)
            return "";
        const std::string side = request.substr(0, space);
        auto it = lines->by_path.find(request.substr(space + 1, split - space - 1));
        if ((side != "far" && side != "board") || it == lines->by_path.end() || it->second == lines->mcu)
            return "";
        if (side == "far")
            it->second->inject(request.substr(split + 1));
        else
            it->second->emit(request.substr(split + 1));
        return "ok";
    });
    board.serve("mcu.state", [weak_lines = std::weak_ptr<Lines>(lines)](const std::string &) -> std::string {
        auto held = weak_lines.lock();
        if (!held || !held->mcu)
            return "";
        const auto activity = held->mcu->flash_activity();
        const auto mode = held->mcu->mode();
        return std::string("mode=") +
               (mode == McuModel::Mode::application ? "application"
                : mode == McuModel::Mode::bootloader ? "bootloader"
                                                     : "reset") +
               "\nversion=" + held->mcu->version() + "\nwritten=" + std::to_string(activity.written) +
               "\nerased_pages=" + std::to_string(activity.erased_pages) +
               "\nmass_erased=" + (activity.mass_erased ? "1" : "0") + "\n";
    });
    if (!lines->mcu)
        return;
    std::weak_ptr<McuModel> weak = lines->mcu;
    board.watch_lines([weak](int id, int level, uint64_t now_ns) {
        if (auto mcu = weak.lock())
            mcu->observe_line(id, level, now_ns);
    });
    board.serve("mcu.watchdog", [weak](const std::string &request) {
        auto mcu = weak.lock();
        if (!mcu)
            return std::string();
        const auto seen = mcu->watchdog(std::strtoull(request.c_str(), nullptr, 10));
        return std::to_string(seen.edges) + ' ' + (seen.fed ? "1" : "0") + ' ' + (seen.closed ? "1" : "0");
    });
    // The MCU's reset lines are files that any writer drives (the library's
    // shell echo, a person's shell, another process).
    auto follow = [lines](bool boot0) {
        return [lines, boot0](const std::string &, const std::string &contents) {
            if (contents != "0\n" && contents != "1\n" && contents != "0" && contents != "1")
                return;
            const int level = contents[0] == '1';
            if (boot0)
                lines->mcu->set_boot0(level);
            else
                lines->mcu->set_nrst(level);
        };
    };
    board.watch_file("/sys/class/vexagpios/MCU_BOOT0/value", follow(true));
    board.watch_file("/sys/class/vexagpios/MCU_NRST/value", follow(false));
    board.watch_file("/.board/mcu-model", [lines](const std::string &, const std::string &contents) {
        apply_model_settings(contents, *lines->mcu);
    });
    auto reply_of = [](const std::string &value) {
        return value == "silent" ? McuModel::Reply::silent
               : value == "nack" ? McuModel::Reply::nack
                                 : McuModel::Reply::ok;
    };
    board.add_knob({"mcu.reply", "ok|silent|nack",
                    "silent: the MCU answers nothing; nack: it refuses every frame and bootloader command",
                    "ok", {}, [weak, reply_of](const std::string &value) {
                        if (auto mcu = weak.lock())
                            mcu->set_reply(reply_of(value));
                    }});
    lines->mcu->set_reply(reply_of(board.knob("mcu.reply")));
}
