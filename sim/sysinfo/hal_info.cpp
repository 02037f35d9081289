// The board's information and process calls: hal_info_*, show_clock, df and
// the process table.
#include <fcntl.h>
#include <sys/statvfs.h>

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

// "list NAME" -> the matching lines; "kill PID" -> "ok" | "none".
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

extern "C" struct hal_filesystem_info *df(const char *mount_point)
{
    VEXA_SIM_ATTACHED_OR(nullptr);
    VEXA_SIM_FAULT("df", mount_point ? mount_point : "", hal_filesystem_info *);
    // The board's own mounts, then those the library made.
    std::vector<std::vector<std::string>> table;
    for (const auto &line : state_lines(read_state(s, "fstab"))) {
        std::istringstream words(line);
        std::vector<std::string> f(6);
        for (auto &w : f)
            words >> w;
        table.push_back(f);
    }
    for (const auto &m : mount_records(read_state(s, "mounts")))
        table.push_back({m.source, m.target, m.fstype, (m.flags & 1) ? "ro" : "rw", "0", "0"});
    hal_filesystem_info *head = nullptr;
    int32_t index = 0;
    for (const auto &f : table) {
        if (mount_point && f[1] != mount_point)
            continue;
        struct statvfs st {};
        const Folder folder = s.folder();
        folder.make_dirs(f[1]);
        const Descriptor at(folder.open(f[1], O_PATH | O_DIRECTORY));
        if (!at || ::fstatvfs(at.get(), &st) != 0)
            continue;
        auto *node = static_cast<hal_filesystem_info *>(std::calloc(1, sizeof(hal_filesystem_info)));
        if (!node)
            break;
        node->index = mount_point ? 0 : index++;
        node->device = dup(f[0]);
        node->mount_point = dup(f[1]);
        node->type = dup(f[2]);
        node->options = dup(f[3]);
        node->freq = static_cast<int8_t>(std::atoi(f[4].c_str()));
        node->passno = static_cast<int8_t>(std::atoi(f[5].c_str()));
        node->bsize = static_cast<uint32_t>(st.f_bsize);
        node->frsize = static_cast<uint32_t>(st.f_frsize);
        node->blocks = static_cast<uint32_t>(st.f_blocks);
        node->bfree = static_cast<uint32_t>(st.f_bfree);
        node->bavail = static_cast<uint32_t>(st.f_bavail);
        node->files = static_cast<uint32_t>(st.f_files);
        node->ffree = static_cast<uint32_t>(st.f_ffree);
        node->favail = static_cast<uint32_t>(st.f_favail);
        node->fsid = static_cast<uint32_t>(st.f_fsid);
        node->flag = static_cast<uint32_t>(st.f_flag);
        node->namemax = static_cast<uint32_t>(st.f_namemax);
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
    const auto reply = call_service(s, "processes", "kill " + std::to_string(pid));
    if (!reply || *reply != "ok") {
        errno = ESRCH;
        return -1;
    }
    return 0;
}
