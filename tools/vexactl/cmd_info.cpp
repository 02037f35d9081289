// System information and processes: info, ps, kill.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tools/vexactl/command.h"
#include "vexasdk/peripherals.h"

namespace vexactl {
namespace {

int run_info(Context &ctx, const Args &args)
{
    if (!args.empty())
        return usage_error(command_named("info"), "takes no arguments");
    ctx.load_config();
    char product[BI_PRODUCT_INFO_SIZE + 1] = {};
    const bool have_product = bi_info_get_product_info(product) >= 0;
    bi_sys_info_t si{};
    const bool have_sys = bi_info_get_sys_info(&si) == 0;
    double disk = 0;
    const bool have_disk = bi_info_read_total_disk_size(&disk) == 0;
    int32_t count = 0;
    std::vector<bi_mnt_info_t> mounts;
    if (bi_info_get_all_mnt_num(&count) == 0 && count > 0 && count <= BI_MNT_INFO_MAX) {
        mounts.resize(static_cast<size_t>(count));
        if (bi_info_get_all_mnt_info(mounts.data()) != 0)
            mounts.clear();
    }
    const std::string name(product, strnlen(product, 64));
    const std::string modid(product + 64, strnlen(product + 64, 32));
    long long module_id = 0;
    const bool have_module_id = have_product && parse_number(modid, 0, INT32_MAX, &module_id);
    const uint64_t unit = si.mem_unit ? si.mem_unit : 1;
    Table t({"mount", "device", "type", "size_mb", "free_mb"});
    for (const auto &m : mounts)
        t.row({m.mount_point, m.device, m.type, m.blocks * m.frsize >> 20, m.bavail * m.frsize >> 20});
    if (ctx.json) {
        // What could not be read is null.
        cJSON *item = cJSON_CreateObject();
        auto number = [&](const char *key, bool have, double value) {
            cJSON_AddItemToObject(item, key, have ? cJSON_CreateNumber(value) : cJSON_CreateNull());
        };
        cJSON_AddItemToObject(item, "product", have_product ? cJSON_CreateString(name.c_str()) : cJSON_CreateNull());
        number("module_id", have_module_id, static_cast<double>(module_id));
        number("uptime_s", have_sys, static_cast<double>(si.uptime));
        number("ram_total_mb", have_sys, static_cast<double>(si.totalram * unit >> 20));
        number("ram_free_mb", have_sys, static_cast<double>(si.freeram * unit >> 20));
        number("processes", have_sys, si.procs);
        number("disk_gb", have_disk, rounded(disk, 1));
        cJSON_AddItemToObject(item, "mounts", t.json());
        print_json(ctx, item);
        return 0;
    }
    std::fprintf(ctx.out, "product:   %s\nmodule id: %s\n", have_product ? name.c_str() : "-",
                 have_product ? modid.c_str() : "-");
    if (have_sys)
        std::fprintf(ctx.out, "uptime:    %ld s\nram:       %lu MB, %lu MB free\nprocesses: %u\n",
                     static_cast<long>(si.uptime), static_cast<unsigned long>(si.totalram * unit >> 20),
                     static_cast<unsigned long>(si.freeram * unit >> 20), static_cast<unsigned>(si.procs));
    if (have_disk)
        std::fprintf(ctx.out, "disk:      %.0f GB\n", disk);
    std::fprintf(ctx.out, "\n");
    t.print(ctx);
    return 0;
}

VEXACTL_COMMAND(info, {"info", "", "Show the product, system figures, disk size and mounts", "", run_info});

int run_ps(Context &ctx, const Args &args)
{
    if (args.size() != 1)
        return usage_error(command_named("ps"), "expected a process name");
    ctx.load_config();
    bi_process_info_t ps[64] = {};
    const int32_t n = bi_get_process_info_by_name(args[0].c_str(), ps, 64);
    if (n < 0)
        return fail("cannot list processes (%d); see 'vexactl log'", n);
    Table t({"pid", "ppid", "uid", "state", "rss_kb", "name"});
    for (int32_t i = 0; i < n && i < 64; ++i)
        t.row({ps[i].pid, ps[i].ppid, ps[i].uid, std::string(1, ps[i].state), ps[i].rss_kb, ps[i].name});
    t.print(ctx);
    return n > 0 ? 0 : 1;
}

VEXACTL_COMMAND(ps, {"ps", "NAME", "List the processes called NAME", "Exit status 1 when there is none.",
                     run_ps});

int run_kill(Context &ctx, const Args &args)
{
    if (args.size() != 1)
        return usage_error(command_named("kill"), "expected a process id");
    const long long pid = number_operand(args[0], "the process id", 1, INT32_MAX);
    ctx.load_config();
    const int32_t rc = bi_kill_process_num(static_cast<int32_t>(pid));
    return rc != 0 ? fail("no process %lld", pid) : 0;
}

VEXACTL_COMMAND(kill, {"kill", "PID", "End a process of the board", "", run_kill});

} // namespace
} // namespace vexactl
