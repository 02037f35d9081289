// logd: the log daemon's configuration, and compressing and clearing its
// log directory.
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "tools/vexactl/command.h"
#include "vexasdk/system.h"

namespace vexactl {
namespace {

struct Field {
    const char *key;
    char *(*of)(vexa_logd_config_t &);
    size_t capacity;
};

#define LOGD_FIELD(name)                                                                           \
    Field { #name, [](vexa_logd_config_t &c) { return c.name; }, sizeof(vexa_logd_config_t::name) }
const Field kFields[] = {LOGD_FIELD(level), LOGD_FIELD(base), LOGD_FIELD(mode), LOGD_FIELD(total_size),
                         LOGD_FIELD(once_size)};
#undef LOGD_FIELD

int print_config(Context &ctx)
{
    vexa_logd_config_t config;
    bi_vexa_logd_get_configure(&config);
    const std::string path = ctx.board().property("persist.vendor.vexa_logd.path");
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        for (const Field &f : kFields)
            cJSON_AddStringToObject(item, f.key, f.of(config));
        cJSON_AddStringToObject(item, "path", path.c_str());
        print_json(ctx, item);
        return 0;
    }
    for (const Field &f : kFields)
        std::fprintf(ctx.out, "%-11s %s\n", (std::string(f.key) + ":").c_str(), f.of(config));
    std::fprintf(ctx.out, "%-11s %s\n", "path:", path.c_str());
    return 0;
}

int set_config(Context &ctx, const std::vector<std::string> &assignments)
{
    vexa_logd_config_t config{};
    for (const auto &assignment : assignments) {
        const auto eq = assignment.find('=');
        const std::string key = assignment.substr(0, eq);
        const Field *field = nullptr;
        for (const Field &f : kFields)
            if (key == f.key)
                field = &f;
        if (eq == std::string::npos || field == nullptr)
            throw UsageError("'" + assignment + "' is not KEY=VALUE with KEY one of level, base, mode, "
                                                "total_size or once_size");
        const std::string value = assignment.substr(eq + 1);
        if (value.empty() || value.size() >= field->capacity)
            throw UsageError(key + " takes 1 to " + std::to_string(field->capacity - 1) + " characters");
        std::memcpy(field->of(config), value.c_str(), value.size() + 1);
    }
    const int32_t rc = bi_vexa_logd_set_configure(config);
    if (rc != 0)
        return fail("setting the log daemon's configuration failed (%d); see 'vexactl log'", rc);
    return print_config(ctx);
}

// The archive goes to standard output when it is "-".
int compress(Context &ctx, const std::string &dir, const std::string &archive)
{
    const bool to_stdout = archive == "-";
    const std::string target = to_stdout ? "/data/local/tmp/vexactl-logd-" + std::to_string(::getpid()) + ".tgz"
                                          : archive;
    if (to_stdout) {
        std::error_code ec;
        std::filesystem::create_directories(ctx.board().host_path("/data/local/tmp"), ec);
    }
    if (dir == "/syslog/logs")
        say(ctx, "telling the video and display tools to stop (2 s)...");
    const int32_t rc = bi_vexa_logd_compress(dir.c_str(), target.c_str());
    if (rc != 0)
        return fail("compress refused (%d); see 'vexactl log'", rc);
    // The library reports 0 whether or not tar made the archive.
    if (!ctx.board().exists(target))
        return fail("no archive was written to %s; see 'vexactl log'", target.c_str());
    const std::string bytes = ctx.board().read_file(target);
    if (to_stdout) {
        ctx.board().remove_file(target);
        return write_output(ctx, "-", bytes) ? 0 : 1;
    }
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "archive", archive.c_str());
        cJSON_AddNumberToObject(item, "bytes", static_cast<double>(bytes.size()));
        print_json(ctx, item);
    } else {
        std::fprintf(ctx.out, "wrote %s (%zu bytes)\n", archive.c_str(), bytes.size());
    }
    return 0;
}

int clear(Context &ctx, const std::string &dir)
{
    const int32_t rc = bi_vexa_logd_clear(dir.c_str());
    const char *why[] = {"", "no current log file is set, or the directory is refused",
                         "the directory name is too long", "no memory", "the directory cannot be opened",
                         "the last entry could not be removed"};
    if (rc != 0)
        return fail("clearing %s failed (%d: %s); see 'vexactl log'", dir.c_str(), rc,
                    rc <= -1 && rc >= -5 ? why[-rc] : "unknown");
    std::fprintf(ctx.out, "cleared %s\n", dir.c_str());
    return 0;
}

int run_logd(Context &ctx, const Args &args)
{
    const size_t action = args.empty() ? 0 : one_of(args[0], "the action", {"get", "set", "compress", "clear"});
    const size_t operands = args.empty() ? 0 : args.size() - 1;
    const bool fits = (action == 0 && operands == 0) || (action == 1 && operands >= 1) ||
                      (action == 2 && operands == 2) || (action == 3 && operands == 1);
    if (!fits)
        throw UsageError("expected get, set KEY=VALUE..., compress DIR ARCHIVE or clear DIR");
    ctx.board();
    switch (action) {
    case 1:
        return set_config(ctx, Args(args.begin() + 1, args.end()));
    case 2:
        return compress(ctx, args[1], args[2]);
    case 3:
        return clear(ctx, args[1]);
    default:
        return print_config(ctx);
    }
}

VEXACTL_COMMAND(logd, {"logd", "[get] | set KEY=VALUE... | compress DIR ARCHIVE | clear DIR",
                       "Configure the log daemon; compress or clear its logs",
                       "get prints the daemon's configuration (level, base, mode, total_size,\n"
                       "once_size) and the file it writes now (path); set changes the named keys.\n"
                       "compress packs DIR into a gzip tar ARCHIVE ('-': standard output); for\n"
                       "/syslog/logs the video and display tools are first told to stop.\n"
                       "clear removes everything in DIR but the daemon's current file.",
                       run_logd});

} // namespace
} // namespace vexactl
