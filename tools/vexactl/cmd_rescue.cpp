// Rescue backup and restore on the reserve partition.
#include <cstdlib>
#include <ctime>
#include <string>

#include <unistd.h>

#include "platform/os.h"
#include "tools/vexactl/command.h"
#include "tools/vexactl/progress.h"
#include "vexasdk/product_config.h"
#include "vexasdk/storage.h"

namespace vexactl {
namespace {

const char kPartition[] = "/dev/block/mmcblk2p22";
const char kMountPoint[] = "/Reserve0";
const char kFlagFile[] = "/Reserve0/flag.hex";

const char *state_meaning(int32_t state)
{
    switch (state) {
    case 0xAA:
        return "the last backup completed";
    case 0x55:
        return "a backup was interrupted";
    case 0:
        return "no backup yet";
    default:
        return "unknown";
    }
}

// Whether the reserve partition holds the flag file, which its first backup
// writes (a new board has none).
bool has_flag_file()
{
    if (bi_base_mount_sub(kPartition, kMountPoint) != 0)
        return true; // an unreadable partition is not a board without a backup
    const bool found = vexa::os::access(kFlagFile, F_OK) == 0;
    bi_base_umount_sub(kMountPoint);
    return found;
}

int print_value(Context &ctx, const char *name, int32_t value, const std::string &text)
{
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddNumberToObject(item, name, value);
        if (!text.empty())
            cJSON_AddStringToObject(item, "meaning", text.c_str());
        print_json(ctx, item);
    } else if (text.empty()) {
        std::fprintf(ctx.out, "%d\n", value);
    } else {
        std::fprintf(ctx.out, "0x%02x (%s)\n", static_cast<unsigned>(value), text.c_str());
    }
    return 0;
}

int run_rescue(Context &ctx, const Args &args)
{
    const Command &command = command_named("rescue");
    if (args.empty())
        return usage_error(command, "needs backup, restore, status, time or recover-tab");
    ctx.board();
    const std::string &verb = args[0];
    if (verb == "backup" && args.size() == 1) {
        int32_t rc;
        {
            Progress bar(ctx, "backup", 0, ""); // the partition is mounted with waits of a second
            rc = bi_rescue_backup_data();
        }
        if (rc != 0)
            return fail("backup failed (%d); see 'vexactl log'", rc);
        if (ctx.json) {
            cJSON *item = cJSON_CreateObject();
            cJSON_AddStringToObject(item, "backed_up_to", "/Reserve0/RescueParty");
            print_json(ctx, item);
        } else {
            std::fprintf(ctx.out, "settings backed up to /Reserve0/RescueParty\n");
        }
        return 0;
    }
    if (verb == "restore" && args.size() == 1) {
        // The library restores what it can and restarts: a part it could
        // not restore (the screen parameters' file, a settings file that
        // does not parse) is only in its log, so it is told here.
        ErrorWatch watch(ctx.board(), "vexa_system_bi_rescue");
        int32_t rc;
        {
            Progress bar(ctx, "restore", 0, "");
            rc = bi_rescue_restore_data();
        }
        if (rc != 0)
            return fail("restore failed (%d); see 'vexactl log'", rc);
        for (const auto &record : watch.seen())
            say(ctx, "vexactl: warning: %s", record.line().c_str());
        if (ctx.json) {
            cJSON *item = cJSON_CreateObject();
            cJSON_AddBoolToObject(item, "restored", true);
            cJSON_AddBoolToObject(item, "restart_requested", true);
            print_json(ctx, item);
        } else {
            std::fprintf(ctx.out, "settings restored; restart recorded (the virtual board does not restart)\n");
        }
        return 0;
    }
    if (verb == "status" && args.size() == 1) {
        const int32_t state = bi_rescue_get_data_status();
        if (state >= 0)
            return print_value(ctx, "state", state, state_meaning(state));
        if (!has_flag_file()) {
            const char *meaning = "no backup yet: the reserve partition has no flag file";
            if (ctx.json) {
                cJSON *item = cJSON_CreateObject();
                cJSON_AddNullToObject(item, "state");
                cJSON_AddStringToObject(item, "meaning", meaning);
                print_json(ctx, item);
            } else {
                std::fprintf(ctx.out, "%s\n", meaning);
            }
            return 0;
        }
        return fail("cannot read the rescue flags (%d); see 'vexactl log'", state);
    }
    if (verb == "time" && args.size() == 1) {
        char stamp[33] = {0};
        const int32_t rc = bi_rescue_get_backup_time(stamp, sizeof stamp);
        if (rc != 0 && !has_flag_file())
            return fail("no backup yet: the reserve partition has no flag file");
        if (rc != 0)
            return fail("cannot read the backup time (%d); see 'vexactl log'", rc);
        const time_t when = static_cast<time_t>(std::atoll(stamp));
        char utc[32] = "";
        if (when > 0) {
            struct tm tm;
            gmtime_r(&when, &tm);
            std::strftime(utc, sizeof utc, "%Y-%m-%d %H:%M:%S UTC", &tm);
        }
        if (ctx.json) {
            cJSON *item = cJSON_CreateObject();
            cJSON_AddNumberToObject(item, "seconds", static_cast<double>(when));
            cJSON_AddItemToObject(item, "utc", *utc ? cJSON_CreateString(utc) : cJSON_CreateNull());
            print_json(ctx, item);
        } else {
            std::fprintf(ctx.out, "%s%s%s\n", stamp, *utc ? "  " : "", utc);
        }
        return 0;
    }
    if (verb == "recover-tab" && args.size() <= 2) {
        if (args.size() == 2) {
            const auto value = static_cast<uint32_t>(number_operand(args[1], "the recover tab", 0, 255));
            const int32_t rc = bi_rescue_set_recover_tab(value);
            if (rc != 0)
                return fail("cannot write the recover tab (%d); see 'vexactl log'", rc);
            return 0;
        }
        const int32_t tab = bi_rescue_get_recover_tab();
        if (tab < 0)
            return fail("cannot read the recover tab (%d); see 'vexactl log'", tab);
        return print_value(ctx, "recover_tab", tab, "");
    }
    return usage_error(command, "expected backup, restore, status, time or recover-tab [N]");
}

VEXACTL_COMMAND(rescue, {"rescue", "backup | restore | status | time | recover-tab [N]",
                         "Back up or restore the rescue copy on the reserve partition",
                         "status prints flag byte 0 (0xaa: last backup completed, 0x55: interrupted).\n"
                         "time prints the backup time in seconds since 1970 and as UTC.\n"
                         "recover-tab reads the restore request (reading answers a request of 1 or 2\n"
                         "and clears it); recover-tab N sets it. restore applies the settings backup\n"
                         "and restarts the board (recorded on the virtual board).",
                         run_rescue});

} // namespace
} // namespace vexactl
