// logd: the log daemon's configuration, and compressing and clearing its
// log directory.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/vexactl/command.h"
#include "tools/vexactl/progress.h"
#include "vexasdk/system.h"

namespace vexactl {
namespace {

namespace fs = std::filesystem;

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
        // An unset property is null.
        auto add = [&](const char *key, const char *value) {
            if (*value)
                cJSON_AddStringToObject(item, key, value);
            else
                cJSON_AddNullToObject(item, key);
        };
        for (const Field &f : kFields)
            add(f.key, f.of(config));
        add("path", path.c_str());
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
    vexa_logd_config_t now{};
    bi_vexa_logd_get_configure(&now);
    for (const Field &f : kFields)
        if (*f.of(config) && std::strcmp(f.of(config), f.of(now)) != 0)
            return fail("%s reads '%s' after setting it to '%s'; see 'vexactl log'", f.key, f.of(now), f.of(config));
    return print_config(ctx);
}

// The entries of a board folder, sorted; nothing when it cannot be read.
std::vector<std::string> entries(Context &ctx, const std::string &dir)
{
    return ctx.board().folder().list(dir).value_or(std::vector<std::string>());
}

std::string quoted_list(const std::vector<std::string> &names)
{
    std::string text;
    for (size_t i = 0; i < names.size() && i < 5; ++i)
        text += (i ? ", '" : "'") + names[i] + "'";
    if (names.size() > 5)
        text += " and " + std::to_string(names.size() - 5) + " more";
    return text;
}

// The library reports 0 whether or not tar made the archive, and logs a
// failed tar. So tar writes to a name of this run beside ARCHIVE, which
// takes ARCHIVE's name only when tar logged no failure: a run that fails
// leaves no archive, and an archive of an earlier run is never taken for
// this run's. The archive goes to standard output when it is "-", and to
// host_archive, a file of the host outside the board, when that is given
// (ARCHIVE is then "-": it is packed on the board, then copied out).
int compress(Context &ctx, const std::string &dir, const std::string &archive, const std::string &host_archive)
{
    vexa::sim::Board &board = ctx.board();
    const vexa::sim::Folder folder = board.folder();
    const bool to_stdout = archive == "-";
    if (!dir.empty() && dir[0] == '/' && !folder.is_directory(dir))
        return fail("the board has no folder %s: nothing was compressed", dir.c_str());
    const std::string tag = "vexactl-" + std::to_string(::getpid());
    std::string target;
    if (to_stdout) {
        folder.make_dirs("/data/local/tmp");
        target = "/data/local/tmp/" + tag + ".tgz";
    } else {
        const size_t slash = archive.rfind('/');
        target = archive.substr(0, slash + 1) + "." + archive.substr(slash + 1) + "." + tag;
    }
    auto discard = [&] { folder.remove(target); };
    if (dir == "/syslog/logs")
        say(ctx, "telling the video and display tools to stop (2 s)...");
    ErrorWatch watch(board, "vexa_system_bi_vexa_logd");
    int32_t rc;
    {
        Progress bar(ctx, "compress", 0, "bytes");
        bar.follow([&] {
            struct stat st;
            return folder.stat(target, &st) == 0 ? static_cast<uint64_t>(st.st_size) : uint64_t{0};
        });
        rc = bi_vexa_logd_compress(dir.c_str(), target.c_str());
    }
    if (rc != 0) {
        discard();
        return fail("compress refused (%d); see 'vexactl log'", rc);
    }
    const auto errors_seen = watch.seen();
    if (!errors_seen.empty()) {
        discard();
        return fail("compressing %s into %s failed: no archive was written; see 'vexactl log'", dir.c_str(),
                    archive == "-" ? "standard output" : archive.c_str());
    }
    if (!board.exists(target))
        return fail("no archive was written for %s; see 'vexactl log'", dir.c_str());
    const std::string bytes = board.read_file(target);
    if (to_stdout) {
        discard();
        if (!write_output(ctx, host_archive.empty() ? "-" : host_archive, bytes))
            return 1;
        if (host_archive.empty())
            return 0;
    } else if (folder.rename(target, archive) != 0) {
        const int error = errno;
        discard();
        return fail("cannot name the archive %s: %s", archive.c_str(), std::strerror(error));
    }
    const std::string &named = host_archive.empty() ? archive : host_archive;
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "directory", dir.c_str());
        cJSON_AddStringToObject(item, "archive", named.c_str());
        cJSON_AddNumberToObject(item, "size_bytes", static_cast<double>(bytes.size()));
        print_json(ctx, item);
    } else {
        std::fprintf(ctx.out, "wrote %s (%zu bytes)\n", named.c_str(), bytes.size());
    }
    return 0;
}

// The library spares the daemon's current file and refuses names it would
// not pass to the shell; clear says "cleared" only when nothing else stays.
int clear(Context &ctx, const std::string &dir)
{
    const std::vector<std::string> before = entries(ctx, dir);
    const int32_t rc = bi_vexa_logd_clear(dir.c_str());
    const char *why[] = {"", "no current log file is set, or the directory is refused",
                         "the directory name is too long", "no memory", "the directory cannot be opened",
                         "an entry could not be removed"};
    const std::vector<std::string> after = entries(ctx, dir);
    const std::string path = ctx.board().property("persist.vendor.vexa_logd.path");
    const std::string current = path.size() > 13 ? path.substr(path.size() - 13) : path;
    std::vector<std::string> stayed;
    bool kept = false;
    for (const std::string &name : after) {
        if (name == current)
            kept = true;
        else
            stayed.push_back(name);
    }
    if (rc != 0 && rc != -5)
        return fail("clearing %s failed (%d: %s); see 'vexactl log'", dir.c_str(), rc,
                    rc <= -1 && rc >= -4 ? why[-rc] : "unknown");
    if (!stayed.empty())
        return fail("%s is not cleared: %zu %s (%s); see 'vexactl log'", dir.c_str(), stayed.size(),
                    stayed.size() == 1 ? "entry stays" : "entries stay", quoted_list(stayed).c_str());
    if (rc != 0)
        return fail("clearing %s failed (%d: %s); see 'vexactl log'", dir.c_str(), rc, why[5]);
    const size_t removed = before.size() - after.size();
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "directory", dir.c_str());
        cJSON_AddNumberToObject(item, "removed", static_cast<double>(removed));
        if (kept)
            cJSON_AddStringToObject(item, "kept", current.c_str());
        else
            cJSON_AddNullToObject(item, "kept");
        print_json(ctx, item);
    } else {
        std::fprintf(ctx.out, "cleared %s: %zu %s removed%s%s\n", dir.c_str(), removed,
                     removed == 1 ? "entry" : "entries", kept ? ", kept the current file " : "",
                     kept ? current.c_str() : "");
    }
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
                       "are first told to stop. A compress that fails (a missing DIR, a failed\n"
                       "tar) exits 1 and leaves no archive; an ARCHIVE of an earlier run stays as\n"
                       "it was until a compress succeeds.\n"
                       "clear removes everything in DIR but the daemon's current file; it exits 1\n"
                       "when any other entry stays (the library does not pass a name with shell\n"
                       "metacharacters to rm).",
                       run_logd});

} // namespace
} // namespace vexactl
