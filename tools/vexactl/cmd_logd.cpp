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

// The archive goes to standard output when it is "-", and to host_archive,
// a file of the host outside the board, when that is given.
int compress(Context &ctx, const std::string &dir, const std::string &archive, const std::string &host_archive)
{
    const bool to_stdout = archive == "-";
    const std::string target = to_stdout ? "/data/local/tmp/vexactl-logd-" + std::to_string(::getpid()) + ".tgz"
                                          : archive;
    if (to_stdout) {
        std::error_code ec;
        std::filesystem::create_directories(ctx.board().host_path("/data/local/tmp"), ec);
    }
    if (dir == "/syslog/logs" && isatty(STDERR_FILENO))
        std::fprintf(stderr, "telling the video and display tools to stop (2 s)...\n");
    const int32_t rc = bi_vexa_logd_compress(dir.c_str(), target.c_str());
    if (rc != 0)
        return fail("compress refused (%d); see 'vexactl log'", rc);
    // The library reports 0 whether or not tar made the archive.
    if (!ctx.board().exists(target))
        return fail("no archive was written to %s; see 'vexactl log'", target.c_str());
    const std::string bytes = ctx.board().read_file(target);
    if (to_stdout) {
        ctx.board().remove_file(target);
        if (!write_output(ctx, host_archive.empty() ? "-" : host_archive, bytes))
            return 1;
        if (host_archive.empty())
            return 0;
    }
    const std::string &named = host_archive.empty() ? archive : host_archive;
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "archive", named.c_str());
        cJSON_AddNumberToObject(item, "bytes", static_cast<double>(bytes.size()));
        print_json(ctx, item);
    } else {
        std::fprintf(ctx.out, "wrote %s (%zu bytes)\n", named.c_str(), bytes.size());
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

// An absolute path the host lacks, which the board may have.
bool is_board_path(const std::string &path)
{
    std::error_code ec;
    return !path.empty() && path[0] == '/' && !std::filesystem::exists(path, ec);
}

// The board directory that a DIR argument names: a host path inside the
// board's directory, or an absolute path the host lacks (the log daemon's
// /syslog/logs). A directory of the host outside the board is refused.
std::string board_directory(Context &ctx, const std::string &arg)
{
    if (arg == "-")
        throw UsageError("DIR is a directory, not standard input");
    const FileArg dir = input_file(ctx, arg);
    if (!dir.board_path.empty())
        return dir.board_path;
    if (is_board_path(arg))
        return arg;
    throw UsageError(arg + " is a directory of this machine outside the board; the log daemon works on the "
                           "board's (" + ctx.board_root() + "/syslog/logs, or /syslog/logs)");
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
    case 2: {
        const std::string dir = board_directory(ctx, args[1]);
        const FileArg archive = output_file(ctx, args[2]);
        if (archive.where == FileArg::Where::standard)
            return compress(ctx, dir, "-", "");
        if (!archive.board_path.empty())
            return compress(ctx, dir, archive.board_path, "");
        if (is_board_path(archive.path))
            return compress(ctx, dir, archive.path, ""); // the board lacks its directory: tar says so
        return compress(ctx, dir, "-", archive.path);     // a file of the host outside the board
    }
    case 3:
        return clear(ctx, board_directory(ctx, args[1]));
    default:
        return print_config(ctx);
    }
}

VEXACTL_COMMAND(logd, {"logd", "[get] | set KEY=VALUE... | compress DIR ARCHIVE | clear DIR",
                       "Configure the log daemon; compress or clear its logs",
                       "get prints the daemon's configuration (level, base, mode, total_size,\n"
                       "once_size) and the file it writes now (path); set changes the named keys.\n"
                       "compress packs DIR, a directory of the board (/syslog/logs), into a gzip\n"
                       "tar ARCHIVE ('-': standard output; a file outside the board is packed on\n"
                       "the board, then copied out). For /syslog/logs the video and display tools\n"
                       "are first told to stop.\n"
                       "clear removes everything in DIR but the daemon's current file.",
                       run_logd});

} // namespace
} // namespace vexactl
