// The U-Boot environment: env list|get|set|dump.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tools/vexactl/command.h"
#include "vexasdk/Ubootenv.h"

namespace vexactl {
namespace {

const char kPrefix[] = "ubootenv.var.";

std::string prefixed(const std::string &name)
{
    return name.rfind(kPrefix, 0) == 0 ? name : kPrefix + name;
}

// What the store's dump() writes, read back.
std::string dump_text(Ubootenv &env)
{
    const int fd = ::memfd_create("vexactl-env", 0);
    if (fd < 0)
        return {};
    env.dump(fd);
    std::string text;
    char buf[4096];
    ssize_t n;
    ::lseek(fd, 0, SEEK_SET);
    while ((n = ::read(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<size_t>(n));
    ::close(fd);
    return text;
}

// The entries of a dump: "[ubootenv] key: [K], value: [V]" per line; those
// without a key only when asked.
std::vector<std::pair<std::string, std::string>> entries(Ubootenv &env, bool keyless = false)
{
    static const std::string head = "[ubootenv] key: [", middle = "], value: [";
    std::vector<std::pair<std::string, std::string>> out;
    const std::string text = dump_text(env);
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find("]\n" + head, at);
        end = end == std::string::npos ? text.size() - 2 : end;
        const std::string line = text.substr(at, end - at);
        const size_t split = line.find(middle);
        if (line.rfind(head, 0) == 0 && split != std::string::npos) {
            std::string key = line.substr(head.size(), split - head.size());
            if (!key.empty() || keyless)
                out.emplace_back(std::move(key), line.substr(split + middle.size()));
        }
        at = end + 2;
    }
    return out;
}

// The board keeps a variable with an empty value as "NAME=", which U-Boot
// drops when it loads the environment: such a variable is not set.
bool is_set(const char *value) { return value != nullptr && *value != '\0'; }

int set_variable(Context &ctx, Ubootenv &env, const Args &args)
{
    const std::string &given = args[1];
    const std::string bare = given.rfind(kPrefix, 0) == 0 ? given.substr(sizeof kPrefix - 1) : given;
    if (bare.empty())
        throw UsageError("the name is empty");
    if (bare.find('=') != std::string::npos)
        throw UsageError("a name cannot hold '=': '" + given + "'");
    // As fw_setenv: the words after the name, joined by blanks; none deletes.
    std::string value;
    for (size_t i = 2; i < args.size(); ++i)
        value += (i > 2 ? " " : "") + args[i];
    const std::string name = prefixed(given);
    if (value.empty() && !is_set(env.getValue(name.c_str())))
        return 0;
    const int rc = env.updateValue(name.c_str(), value.c_str());
    switch (rc) {
    case 0:
        return 0;
    case -2:
        return fail("%s is not a U-Boot variable", name.c_str());
    default:
        return fail("saving the environment failed (%d); see 'vexactl log'", rc);
    }
}

std::string bare(const std::string &name)
{
    return name.rfind(kPrefix, 0) == 0 ? name.substr(sizeof kPrefix - 1) : name;
}

// The variables named, as fw_printenv prints them: NAME=VALUE lines, or the
// value alone for one name when value_only; all that are set without names.
// A name that is not set is said on standard error and fails the command,
// after the others are printed. --json: one object, null for a name not set.
int print_variables(Context &ctx, Ubootenv &env, const Args &names, bool value_only)
{
    std::vector<std::pair<std::string, const char *>> found;
    if (names.empty()) {
        for (auto &[key, value] : entries(env))
            if (!value.empty())
                found.emplace_back(key, nullptr);
        std::sort(found.begin(), found.end()); // by name, as fw_printenv lists them
    } else {
        for (const std::string &name : names)
            found.emplace_back(bare(name), nullptr);
    }
    int status = 0;
    cJSON *object = ctx.json ? cJSON_CreateObject() : nullptr;
    for (auto &[name, value] : found) {
        value = env.getValue(prefixed(name).c_str());
        if (!is_set(value)) {
            status = fail("%s is not set", prefixed(name).c_str());
            if (object)
                cJSON_AddNullToObject(object, name.c_str());
            continue;
        }
        if (object)
            cJSON_AddStringToObject(object, name.c_str(), value);
        else if (value_only)
            std::fprintf(ctx.out, "%s\n", value);
        else
            std::fprintf(ctx.out, "%s=%s\n", name.c_str(), value);
    }
    if (object)
        print_json(ctx, object);
    return status;
}

int run_env(Context &ctx, const Args &args)
{
    if (args.empty())
        return usage_error(*ctx.command, "needs list, print, get, set or dump");
    const size_t verb = one_of(args[0], "the action", {"list", "get", "set", "dump", "print"});
    if ((verb == 0 || verb == 3) && args.size() != 1)
        return usage_error(*ctx.command, args[0] + " takes no arguments");
    if (verb == 1 && args.size() < 2)
        return usage_error(*ctx.command, "get takes one NAME or more");
    if (verb == 2 && args.size() < 2)
        return usage_error(*ctx.command, "set takes a NAME and its VALUE (none deletes it)");
    if (ctx.flag("value-only") && (verb != 4 || args.size() != 2))
        return usage_error(*ctx.command, "-n takes print and one NAME");
    ctx.board();
    Ubootenv env;
    const int ready = env.init();
    if (ready != 0)
        return fail("cannot read the U-Boot environment (%d); see 'vexactl log'", ready);

    switch (verb) {
    case 0: {
        Table table({"name", "value"});
        for (auto &[key, value] : entries(env))
            if (!value.empty())
                table.row({key, value});
        table.print(ctx);
        return 0;
    }
    case 1:
        // One name: its value alone (fw_printenv -n); several: NAME=VALUE.
        return print_variables(ctx, env, Args(args.begin() + 1, args.end()), args.size() == 2);
    case 2:
        return set_variable(ctx, env, args);
    case 4:
        return print_variables(ctx, env, Args(args.begin() + 1, args.end()), ctx.flag("value-only"));
    default:
        if (ctx.json) {
            Table table({"key", "value"});
            for (auto &[key, value] : entries(env, true))
                table.row({key, value});
            table.print(ctx);
        } else {
            std::fputs(dump_text(env).c_str(), ctx.out);
        }
        return 0;
    }
}

VEXACTL_COMMAND(env, {"env", "list | print [-n] [NAME...] | get NAME... | set NAME [VALUE...] | dump",
                      "Read or change the U-Boot environment",
                      "NAME may be given with or without the prefix \"ubootenv.var.\"; it cannot hold\n"
                      "'='. 'print' works as fw_printenv: NAME=VALUE for each NAME, or for every\n"
                      "variable that is set, by name; -n with one NAME prints its value alone.\n"
                      "'get' prints the value of one NAME, or NAME=VALUE lines for several. A NAME\n"
                      "that is not set is said on standard error and the command exits 1, after the\n"
                      "others are printed (--json: one object, null for a NAME not set). 'list' is\n"
                      "the same as a table. 'set' works as fw_setenv: the words after NAME, joined\n"
                      "by blanks, become its value, and with no value NAME is deleted: the store\n"
                      "keeps it as NAME= with nothing after it, which U-Boot drops when it loads\n"
                      "the environment, so list, print and get show it as not set. 'set' writes\n"
                      "both copies of the environment partition; setting a variable to its current\n"
                      "value writes nothing. 'dump' prints the store's own dump, every entry as the\n"
                      "store holds it. A value that begins with '-' follows \"--\".",
                      run_env, {flag("value-only", "print: the value alone, of one NAME").letter('n')}});

} // namespace
} // namespace vexactl
