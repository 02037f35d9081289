// The cost of one U-Boot environment update, with each copy flushed before
// the other is touched, next to fw_setenv (libubootenv-tool) on the same
// image. The board's partition is a plain file on the host's disk, so the
// flushes are real.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "sim/board.h"
#include "sim/partitions/page_cache.h"
#include "vexasdk/Ubootenv.h"

extern char **environ;

namespace {

const char kDevice[] = "/dev/block/by-name/env";

// Milliseconds per run of call.
double measure(int runs, const std::function<bool(int)> &call)
{
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < runs; ++i) {
        if (!call(i))
            return -1;
    }
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count() /
           runs;
}

bool run(std::vector<std::string> argv)
{
    std::vector<char *> args;
    for (auto &a : argv)
        args.push_back(a.data());
    args.push_back(nullptr);
    pid_t pid;
    if (posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), environ) != 0)
        return false;
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void report(const char *what, double ms)
{
    if (ms < 0)
        std::printf("%-52s  failed\n", what);
    else
        std::printf("%-52s %8.3f ms\n", what, ms);
}

} // namespace

int main(int argc, char **argv)
{
    const int runs = argc > 1 ? std::atoi(argv[1]) : 200;
    vexa::sim::Board board = vexa::sim::Board::Builder().fast_clock(false).build();
    board.set_property("persist.vendor.sc.log.level", "7");
    const std::string image = board.host_path(kDevice);
    std::printf("environment image %s, %d runs each\n", image.c_str(), runs);

    auto update = [](Ubootenv &env, int i) {
        return env.updateValue("ubootenv.var.bootdelay", std::to_string(i % 2 + 1).c_str()) == 0;
    };
    {
        Ubootenv env;
        report("Ubootenv::updateValue (both copies, two flushes)",
               measure(runs, [&](int i) { return update(env, i); }));
    }
    {
        // The same with the flushes kept in a modelled page cache: what the
        // update costs besides the disk's time for them.
        vexa::sim::add_page_cache(board, kDevice);
        Ubootenv env;
        report("Ubootenv::updateValue, flushes not reaching the disk",
               measure(runs, [&](int i) { return update(env, i); }));
    }

    if (::access("/usr/bin/fw_setenv", X_OK) != 0) {
        std::printf("fw_setenv is not installed (Debian package libubootenv-tool)\n");
        return 0;
    }
    // fw_setenv sees one copy per configuration: our layout has no flag byte,
    // which its redundant-environment mode would expect.
    std::vector<std::string> configs;
    for (const char *offset : {"0x0", "0x10000"}) {
        configs.push_back(board.root() + "/fw_env_" + offset + ".config");
        std::ofstream(configs.back()) << image << " " << offset << " 0x10000\n";
    }
    const double spawn = measure(runs, [](int) { return run({"true"}); });
    report("spawning a process (true)", spawn);
    const double first = measure(runs, [&](int i) {
        return run({"fw_setenv", "-c", configs[0], "bootdelay", std::to_string(i % 2 + 3)});
    });
    report("fw_setenv, one copy (one process)", first);
    report("fw_setenv, both copies (two processes)", measure(runs, [&](int i) {
               const std::string value = std::to_string(i % 2 + 5);
               return run({"fw_setenv", "-c", configs[0], "bootdelay", value}) &&
                      run({"fw_setenv", "-c", configs[1], "bootdelay", value});
           }));
    if (first >= 0 && spawn >= 0)
        report("fw_setenv, one copy, less the process start", first - spawn);
    return 0;
}
