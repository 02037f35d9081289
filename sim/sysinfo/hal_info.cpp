// The board's information and process calls: hal_info_*, show_clock, df and
// the process table.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <functional>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/hal.h"
#include "sim/state.h"
#include "sim/sysinfo/sysinfo.h"

namespace vexa::sim {
namespace {

std::string setting(const Board::State &s, const char *file, const std::string &key)
{
    for (const auto &line : state_lines(read_state(s, file))) {
        const auto eq = line.find('=');
        if (eq != std::string::npos && line.substr(0, eq) == key)
            return line.substr(eq + 1);
    }
    return "";
}

struct Process {
    bi_process_info_t info{};
};

bool parse_process(const std::string &line, bi_process_info_t *p)
{
    std::istringstream words(line);
    std::string state, name;
    unsigned long long rss = 0;
    if (!(words >> p->pid >> p->ppid >> p->uid >> state >> rss >> name))
        return false;
    p->state = state.empty() ? '?' : state[0];
    std::snprintf(p->name, sizeof p->name, "%s", name.c_str());
    p->rss_kb = rss;
    return true;
}

// "list NAME" -> the matching lines; "kill PID" -> "ok" | "none" | "init".
std::string serve_processes(Board::State &s, const std::string &request)
{
    std::istringstream words(request);
    std::string op, arg;
    words >> op >> arg;
    return with_board_lock(s, [&]() -> std::string {
        std::string out, kept;
        bool killed = false;
        for (const auto &line : state_lines(read_state(s, "processes"))) {
            bi_process_info_t p{};
            if (!parse_process(line, &p))
                continue;
            if (op == "list" && arg == p.name)
                out += line + "\n";
            if (op == "kill" && std::to_string(p.pid) == arg && !killed) {
                killed = true;
                continue;
            }
            kept += line + "\n";
        }
        if (op == "kill") {
            if (!killed)
                return "none";
            if (arg == "1")
                return "init"; // init is not killed: SIGKILL from its own namespace is ignored
            write_state(s, "processes", kept);
            return "ok";
        }
        return out;
    });
}

std::vector<bi_process_info_t> processes_named(Board::State &s, const char *name)
{
    std::vector<bi_process_info_t> found;
    const auto reply = call_service(s, "processes", std::string("list ") + name);
    if (!reply)
        return found;
    for (const auto &line : state_lines(*reply)) {
        bi_process_info_t p{};
        if (parse_process(line, &p))
            found.push_back(p);
    }
    return found;
}

char *dup(const std::string &text)
{
    char *copy = static_cast<char *>(std::malloc(text.size() + 1));
    if (copy)
        std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

} // namespace
} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_ATTACHER(processes)
{
    std::weak_ptr<Board::State> weak = attached();
    board.serve("processes", [weak](const std::string &req) -> std::string {
        auto s = weak.lock();
        return s ? serve_processes(*s, req) : "";
    });
}

extern "C" int hal_info_set_product_info(const char *buffer)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_info_set_product_info", "", int);
    if (!buffer) {
        errno = EINVAL;
        return -1;
    }
    write_state(s, "product_info", std::string(buffer, HAL_PRODUCT_INFO_SIZE));
    return 0;
}

extern "C" int hal_info_get_usb_list(char *buf, int32_t size)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_info_get_usb_list", "", int);
    if (!buf || size <= 0) {
        errno = EINVAL;
        return -1;
    }
    const auto devices = state_lines(read_state(s, "usb_list"));
    std::string text;
    for (const auto &d : devices)
        text += d + "\n";
    std::snprintf(buf, static_cast<size_t>(size), "%s", text.c_str());
    return static_cast<int>(devices.size());
}

extern "C" int hal_info_get_cpu_state(bi_cpu_state_t *state)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_info_get_cpu_state", "", int);
    if (!state) {
        errno = EINVAL;
        return -1;
    }
    std::memset(state, 0, sizeof *state);
    std::istringstream temp(s.folder().read("/sys/class/thermal/thermal_zone0/temp").value_or(""));
    if (!(temp >> state->temperature)) {
        errno = ENOENT;
        return -1;
    }
    state->usage = std::strtof(setting(s, "sysinfo.conf", "cpu_usage").c_str(), nullptr);
    state->cores = 4;
    state->freq_khz = 1800000;
    return 0;
}

extern "C" int hal_info_test(int32_t value)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_info_test", "", int);
    return value;
}

extern "C" int hal_info_test1(int32_t value)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_info_test1", "", int);
    return value;
}

extern "C" time_t show_clock(time_t *out)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("show_clock", "", time_t);
    const time_t now = ::time(nullptr) + static_cast<time_t>(s.clock_offset_ns.load() / 1000000000);
    if (out)
        *out = now;
    return now;
}

// A mount's figures as statvfs(3) gives them, from the board's own sizes:
// 4 KiB blocks, an inode for every 16 KiB, the flags its options name.
static void fill_figures(hal_filesystem_info *node, const std::string &device, const std::string &options,
                  unsigned long long size_kb, unsigned long long used_kb)
{
    used_kb = std::min(used_kb, size_kb);
    node->bsize = 4096;
    node->frsize = 4096;
    node->blocks = static_cast<uint32_t>(size_kb / 4);
    node->bfree = static_cast<uint32_t>((size_kb - used_kb) / 4);
    node->bavail = node->bfree;
    node->files = static_cast<uint32_t>(size_kb / 16);
    node->ffree = static_cast<uint32_t>((size_kb - used_kb) / 16);
    node->favail = node->ffree;
    node->fsid = static_cast<uint32_t>(std::hash<std::string>()(device));
    static const std::pair<const char *, uint32_t> kFlags[] = {
        {"ro", ST_RDONLY}, {"nosuid", ST_NOSUID}, {"nodev", ST_NODEV}, {"noexec", ST_NOEXEC},
        {"noatime", ST_NOATIME}, {"relatime", ST_RELATIME},
    };
    std::istringstream words(options);
    std::string word;
    while (std::getline(words, word, ','))
        for (const auto &[name, flag] : kFlags)
            if (word == name)
                node->flag |= flag;
    node->namemax = 255;
}

extern "C" struct hal_filesystem_info *df(const char *mount_point)
{
    VEXA_SIM_ATTACHED_OR(nullptr);
    VEXA_SIM_FAULT("df", mount_point ? mount_point : "", hal_filesystem_info *);
    // The board's own mounts ("DEVICE TARGET TYPE OPTIONS FREQ PASSNO SIZE_KB
    // USED_KB"), then those the library made, which take the size of their
    // partition.
    struct Mount {
        std::string device, target, type, options, freq, passno;
        unsigned long long size_kb = 0, used_kb = 0;
    };
    std::vector<Mount> table;
    for (const auto &line : state_lines(read_state(s, "fstab"))) {
        std::istringstream words(line);
        Mount m;
        words >> m.device >> m.target >> m.type >> m.options >> m.freq >> m.passno >> m.size_kb >> m.used_kb;
        table.push_back(m);
    }
    for (const auto &r : mount_records(read_state(s, "mounts"))) {
        Mount m{r.source, r.target, r.fstype, (r.flags & 1) ? "ro" : "rw", "0", "0"};
        struct stat st {};
        if (s.folder().stat(r.source, &st) == 0)
            m.size_kb = static_cast<unsigned long long>(st.st_size) / 1024;
        table.push_back(m);
    }
    hal_filesystem_info *head = nullptr;
    int32_t index = 0;
    for (const auto &m : table) {
        if (mount_point && m.target != mount_point)
            continue;
        auto *node = static_cast<hal_filesystem_info *>(std::calloc(1, sizeof(hal_filesystem_info)));
        if (!node)
            break;
        node->index = mount_point ? 0 : index++;
        node->device = dup(m.device);
        node->mount_point = dup(m.target);
        node->type = dup(m.type);
        node->options = dup(m.options);
        node->freq = static_cast<int8_t>(std::atoi(m.freq.c_str()));
        node->passno = static_cast<int8_t>(std::atoi(m.passno.c_str()));
        fill_figures(node, m.device, m.options, m.size_kb, m.used_kb);
        node->next = head; // newest first
        head = node;
        if (mount_point)
            break;
    }
    if (!head)
        errno = ENOENT;
    return head;
}

extern "C" int hal_system_get_pid(const char *name, int32_t *pids, int32_t max)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_system_get_pid", name ? name : "", int);
    if (!name) {
        errno = EINVAL;
        return -1;
    }
    const auto found = processes_named(s, name);
    for (int32_t i = 0; pids && i < max && i < static_cast<int32_t>(found.size()); ++i)
        pids[i] = found[static_cast<size_t>(i)].pid;
    return static_cast<int>(found.size());
}

extern "C" int hal_get_process_info_by_name(const char *name, bi_process_info_t *ps, int32_t max)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_get_process_info_by_name", name ? name : "", int);
    if (!name || !ps) {
        errno = EINVAL;
        return -1;
    }
    const auto found = processes_named(s, name);
    for (int32_t i = 0; i < max && i < static_cast<int32_t>(found.size()); ++i)
        ps[i] = found[static_cast<size_t>(i)];
    return static_cast<int>(found.size());
}

extern "C" int hal_system_kill_pid(int32_t pid)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_system_kill_pid", std::to_string(pid), int);
    // One process: 0 and negative ids (a process group, every process) are
    // not taken.
    if (pid <= 0) {
        errno = EINVAL;
        return -1;
    }
    const auto reply = call_service(s, "processes", "kill " + std::to_string(pid));
    if (!reply || *reply != "ok") {
        errno = reply && *reply == "init" ? EPERM : ESRCH;
        return -1;
    }
    return 0;
}
