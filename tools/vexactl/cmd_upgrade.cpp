// Upgrade flags and the factory reset request.
#include <string>

#include "tools/vexactl/command.h"
#include "vexasdk/storage.h"

namespace vexactl {
namespace {

int run_upgrade(Context &ctx, const Args &args)
{
    const Command &command = command_named("upgrade");
    if (args.empty() || args[0] != "downgrade-flag" || args.size() > 2)
        return usage_error(command, "expected downgrade-flag [on|off]");
    ctx.board();
    if (args.size() == 2) {
        if (args[1] != "on" && args[1] != "off")
            return usage_error(command, "the flag is on or off");
        const int32_t rc = bi_set_system_downgrade_flag(args[1] == "on" ? 1 : 0);
        if (rc != 0)
            return fail("setting the downgrade flag failed (%d); see 'vexactl log'", rc);
    }
    const int32_t flag = bi_get_system_downgrade_flag();
    if (flag < 0)
        return fail("cannot read the downgrade flag (%d); see 'vexactl log'", flag);
    if (args.size() == 2 && (flag == 1) != (args[1] == "on"))
        return fail("the downgrade flag reads %s after setting it %s; see 'vexactl log'", flag == 1 ? "on" : "off",
                    args[1].c_str());
    const std::string version = ctx.board().property("persist.upgrade.version");
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddBoolToObject(item, "downgrade", flag == 1);
        cJSON_AddItemToObject(item, "version",
                              version.empty() ? cJSON_CreateNull() : cJSON_CreateString(version.c_str()));
        print_json(ctx, item);
    } else {
        std::fprintf(ctx.out, "downgrade flag: %s\n", flag == 1 ? "on" : "off");
        if (flag == 1)
            std::fprintf(ctx.out, "version:        %s\n", version.c_str());
    }
    return 0;
}

VEXACTL_COMMAND(upgrade, {"upgrade", "downgrade-flag [on|off]", "Read or set the system downgrade flag",
                          "on sets \"persist.upgrade.flag\" to demote and stores the build version\n"
                          "(without its leading v) in \"persist.upgrade.version\"; off sets the flag\n"
                          "to false and keeps the version.",
                          run_upgrade});

int run_factory_reset(Context &ctx, const Args &args)
{
    if (!args.empty())
        return usage_error(command_named("factory-reset"), "takes no arguments");
    ctx.board();
    const int32_t rc = bi_restore_factory_setting(0);
    if (rc != 0)
        return fail("writing the recovery command failed (%d); see 'vexactl log'", rc);
    const std::string written = ctx.board().read_file("/cache/recovery/command");
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "command_file", "/cache/recovery/command");
        cJSON_AddStringToObject(item, "contents", written.c_str());
        cJSON_AddStringToObject(item, "reboot", "recovery");
        print_json(ctx, item);
        return 0;
    }
    std::fprintf(ctx.out, "wrote /cache/recovery/command:\n%s", written.c_str());
    std::fprintf(ctx.out, "reboot to recovery recorded (the virtual board does not restart)\n");
    return 0;
}

VEXACTL_COMMAND(factory_reset, {"factory-reset", "", "Ask recovery to wipe the data and cache partitions",
                                "Writes the recovery command file and requests a reboot into recovery.",
                                run_factory_reset});

} // namespace
} // namespace vexactl
