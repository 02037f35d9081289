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

// The entries of a dump: "[ubootenv] key: [K], value: [V]" per line.
std::vector<std::pair<std::string, std::string>> entries(Ubootenv &env)
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
            if (!key.empty())
                out.emplace_back(std::move(key), line.substr(split + middle.size()));
        }
        at = end + 2;
    }
    return out;
}

int run_env(Context &ctx, const Args &args)
{
    const Command &command = command_named("env");
    if (args.empty())
        return usage_error(command, "needs list, get, set or dump");
    ctx.board();
    Ubootenv env;
    const int ready = env.init();
    if (ready != 0)
        return fail("cannot read the U-Boot environment (%d); see 'vexactl log'", ready);

    const std::string &verb = args[0];
    if (verb == "list" && args.size() == 1) {
        Table table({"name", "value"});
        for (auto &[key, value] : entries(env))
            table.row({key, value});
        table.print(ctx);
        return 0;
    }
    if (verb == "dump" && args.size() == 1) {
        std::fputs(dump_text(env).c_str(), ctx.out);
        return 0;
    }
    if (verb == "get" && args.size() == 2) {
        const std::string name = prefixed(args[1]);
        const char *value = env.getValue(name.c_str());
        if (value == nullptr)
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
    if (verb == "set" && args.size() == 3) {
        const std::string name = prefixed(args[1]);
        const int rc = env.updateValue(name.c_str(), args[2].c_str());
        switch (rc) {
        case 0:
            return 0;
        case -2:
            return fail("%s is not a U-Boot variable", name.c_str());
        default:
            return fail("saving the environment failed (%d); see 'vexactl log'", rc);
        }
    }
    return usage_error(command, "expected list, get NAME, set NAME VALUE or dump");
}

VEXACTL_COMMAND(env, {"env", "list | get NAME | set NAME VALUE | dump", "Read or change the U-Boot environment",
                      "NAME may be given with or without the prefix \"ubootenv.var.\".\n"
                      "'set' writes both copies of the environment partition; setting a\n"
                      "variable to its current value writes nothing. 'dump' prints the\n"
                      "store's own dump; 'list' supports --json.",
                      run_env});

} // namespace
} // namespace vexactl
