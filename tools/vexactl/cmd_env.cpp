// The U-Boot environment: env list|get|set|dump.
#include <sys/mman.h>
#include <unistd.h>

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

int run_env(Context &ctx, const Args &args)
{
    if (args.empty())
        return usage_error(*ctx.command, "needs list, get, set or dump");
    const size_t verb = one_of(args[0], "the action", {"list", "get", "set", "dump"});
    if ((verb == 0 || verb == 3) && args.size() != 1)
        return usage_error(*ctx.command, args[0] + " takes no arguments");
    if (verb == 1 && args.size() != 2)
        return usage_error(*ctx.command, "get takes one NAME");
    if (verb == 2 && args.size() < 2)
        return usage_error(*ctx.command, "set takes a NAME and its VALUE (none deletes it)");
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
    case 1: {
        const std::string name = prefixed(args[1]);
        const char *value = env.getValue(name.c_str());
        if (!is_set(value))
            return fail("%s is not set", name.c_str());
        if (ctx.json) {
            cJSON *item = cJSON_CreateObject();
            cJSON_AddStringToObject(item, "name", name.c_str());
            cJSON_AddStringToObject(item, "value", value);
            print_json(ctx, item);
        } else {
            std::fprintf(ctx.out, "%s\n", value);
        }
        return 0;
    }
    case 2:
        return set_variable(ctx, env, args);
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

VEXACTL_COMMAND(env, {"env", "list | get NAME | set NAME [VALUE...] | dump", "Read or change the U-Boot environment",
                      "NAME may be given with or without the prefix \"ubootenv.var.\"; it cannot\n"
                      "hold '='. 'set' works as fw_setenv: the words after NAME, joined by blanks,\n"
                      "become its value, and with no value NAME is deleted: the store keeps it\n"
                      "as NAME= with nothing after it, which U-Boot drops when it loads the\n"
                      "environment, so list and get show it as not set. 'set' writes both copies\n"
                      "of the environment partition; setting a variable to its current value\n"
                      "writes nothing. 'dump' prints the store's own dump, every entry as the\n"
                      "store holds it. A value that begins with '-' follows \"--\".",
                      run_env});

} // namespace
} // namespace vexactl
