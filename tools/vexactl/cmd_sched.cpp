// sched: pinning a process to the main cores and the cpufreq governor.
#include <unistd.h>

#include <string>

#include "sim/cpu/cpu.h"
#include "tools/vexactl/command.h"
#include "vexasdk/system.h"

namespace vexactl {
namespace {

const char kCpufreq[] = "/sys/devices/system/cpu/cpufreq/";
const char *const kPolicies[] = {"policy0", "policy4"};

std::string first_line(const std::string &text)
{
    std::string line = text.substr(0, text.find('\n'));
    while (!line.empty() && line.back() == ' ')
        line.pop_back();
    return line;
}

// "0-3", "0,2,4-7": the cores of an affinity mask.
std::string cores_of(uint64_t mask)
{
    std::string text;
    for (int core = 0; core < 64; ++core) {
        if (!(mask & (uint64_t{1} << core)))
            continue;
        int last = core;
        while (last + 1 < 64 && (mask & (uint64_t{1} << (last + 1))))
            ++last;
        text += (text.empty() ? "" : ",") + std::to_string(core) + (last > core ? "-" + std::to_string(last) : "");
        core = last;
    }
    return text;
}

std::string policy_file(const char *policy, const char *file)
{
    return std::string(kCpufreq) + policy + "/" + file;
}

int show_governors(Context &ctx)
{
    vexa::sim::Board &board = ctx.board();
    Table table({"policy", "governor", "available"});
    for (const char *policy : kPolicies) {
        const std::string governor = policy_file(policy, "scaling_governor");
        const std::string available = policy_file(policy, "scaling_available_governors");
        table.row({policy, board.exists(governor) ? Cell(first_line(board.read_file(governor))) : Cell::none(),
                   board.exists(available) ? Cell(first_line(board.read_file(available))) : Cell::none()});
    }
    table.print(ctx);
    return 0;
}

int set_governor(Context &ctx, const std::string &name)
{
    if (bi_sched_adjust_cpu_freq(name.c_str()) != 0)
        return fail("setting the governor to %s failed; see 'vexactl log'", name.c_str());
    // The library's check takes part of a name; the kernel takes whole names.
    for (const char *policy : kPolicies) {
        const std::string now = first_line(ctx.board().read_file(policy_file(policy, "scaling_governor")));
        if (now != name)
            return fail("%s refused '%s' and keeps %s; see 'vexactl log'", policy, name.c_str(), now.c_str());
    }
    return show_governors(ctx);
}

// PID 0 is the caller, as for the library (and sched_setaffinity): this
// vexactl process, which leaves when the command ends.
int pin(Context &ctx, bool bind, int pid)
{
    const int32_t rc = bind ? bi_sched_bind_pid_to_main_core(pid) : bi_sched_unbind_pid_from_main_core(pid);
    if (rc != 0)
        return fail("%s %d failed; see 'vexactl log'", bind ? "bind" : "unbind", pid);
    const int actual = pid == 0 ? static_cast<int>(::getpid()) : pid;
    const auto mask = vexa::sim::cpu_affinity(ctx.board(), actual);
    if (!mask || *mask == 0)
        return fail("%s %d: the board has no affinity recorded for process %d", bind ? "bind" : "unbind", pid,
                    actual);
    char hex[24];
    std::snprintf(hex, sizeof hex, "0x%02llx", static_cast<unsigned long long>(*mask));
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddNumberToObject(item, "pid", actual);
        cJSON_AddItemToObject(item, "mask", exact_number(*mask));
        cJSON_AddStringToObject(item, "cores", cores_of(*mask).c_str());
        print_json(ctx, item);
    } else if (pid == 0) {
        std::fprintf(ctx.out, "pid 0 (this vexactl, pid %d): cores %s (mask %s)\n", actual,
                     cores_of(*mask).c_str(), hex);
    } else {
        std::fprintf(ctx.out, "pid %d: cores %s (mask %s)\n", pid, cores_of(*mask).c_str(), hex);
    }
    return 0;
}

int run_sched(Context &ctx, const Args &args)
{
    if (args.empty())
        throw UsageError("expected bind PID, unbind PID or governor [NAME]");
    const size_t action = one_of(args[0], "the action", {"bind", "unbind", "governor"});
    if (action == 2) {
        if (args.size() > 2)
            throw UsageError("governor takes at most one name");
        ctx.board();
        return args.size() == 2 ? set_governor(ctx, args[1]) : show_governors(ctx);
    }
    if (args.size() != 2)
        throw UsageError(args[0] + " takes one process id");
    const auto pid = static_cast<int>(number_operand(args[1], "the process id", 0, 0x7fffffff));
    ctx.board();
    return pin(ctx, action == 0, pid);
}

VEXACTL_COMMAND(sched, {"sched", "bind PID | unbind PID | governor [NAME]",
                        "Pin a process to the main cores, or set the CPU governor",
                        "bind pins PID to cores 0-3 (and tunes the block queues for playback);\n"
                        "unbind lets it run on every core. PID 0 is the caller, as for the\n"
                        "library: this vexactl process itself. On the virtual board the affinity\n"
                        "is recorded in the board's state, never applied to the host.\n"
                        "governor shows the governor of both CPU clusters (policy0, policy4);\n"
                        "governor NAME sets it on both.",
                        run_sched});

} // namespace
} // namespace vexactl
