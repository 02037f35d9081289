// What a vexactl command costs as a whole process, next to fw_printenv
// (libubootenv-tool) reading an environment from a file image: runs of the
// commands interleaved, each process's CPU time (user and system, from
// wait4) and wall time, medians, and the ratio to fw_printenv's.
//
//   cli_bench [--runs N] [--vexactl PATH]
//
// The board is a fresh one in a temporary folder; its host is up before the
// runs start (a first command starts it) and is stopped at the end.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "sim/board.h"

extern char **environ;

namespace fs = std::filesystem;

namespace {

struct Cost {
    double cpu_ms = 0;
    double wall_ms = 0;
};

// Runs argv with its output thrown away; false when it could not run or
// failed.
bool run(const std::vector<std::string> &argv, Cost *cost)
{
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid;
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        return false;
    int status = 0;
    struct rusage usage {};
    if (::wait4(pid, &status, 0, &usage) != pid)
        return false;
    cost->wall_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    const auto ms = [](const timeval &t) { return t.tv_sec * 1e3 + t.tv_usec / 1e3; };
    cost->cpu_ms = ms(usage.ru_utime) + ms(usage.ru_stime);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? 0 : n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// A 64 KiB U-Boot environment image (CRC-32, then NAME=VALUE strings) and
// fw_printenv's configuration for it.
std::string lay_out_environment(const std::string &dir)
{
    std::vector<unsigned char> image(0x10000, 0);
    const char vars[] = "baudrate=1500000\0bootcmd=run distro_bootcmd\0bootdelay=3\0";
    std::memcpy(image.data() + 4, vars, sizeof vars);
    const uint32_t crc = static_cast<uint32_t>(::crc32(0, image.data() + 4, static_cast<uInt>(image.size() - 4)));
    for (int i = 0; i < 4; ++i)
        image[i] = static_cast<unsigned char>(crc >> (8 * i));
    std::ofstream(dir + "/env.img", std::ios::binary).write(reinterpret_cast<const char *>(image.data()),
                                                             static_cast<std::streamsize>(image.size()));
    std::ofstream(dir + "/fw_env.config") << dir << "/env.img 0x0 0x10000\n";
    return dir + "/fw_env.config";
}

} // namespace

int main(int argc, char **argv)
{
    int runs = 25;
    std::string vexactl = VEXACTL_PATH;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--runs" && i + 1 < argc)
            runs = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--vexactl" && i + 1 < argc)
            vexactl = argv[++i];
        else {
            std::fprintf(stderr, "usage: cli_bench [--runs N] [--vexactl PATH]\n");
            return 2;
        }
    }
    char templ[] = "/tmp/cli_bench-XXXXXX";
    if (::mkdtemp(templ) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string dir = templ;
    const std::string board = dir + "/board";
    const std::string config = lay_out_environment(dir);

    struct Command {
        const char *name;
        std::vector<std::string> argv;
        std::vector<double> cpu, wall;
    };
    std::vector<Command> commands = {
        {"fw_printenv -c CONFIG (file image)", {"fw_printenv", "-c", config}, {}, {}},
        {"vexactl gpio get 34", {vexactl, "--board", board, "gpio", "get", "34"}, {}, {}},
        {"vexactl --help", {vexactl, "--help"}, {}, {}},
    };
    int status = 0;
    Cost cost;
    // The first command lays the board out and starts its host; each
    // program runs once before it is measured.
    for (auto &c : commands) {
        if (!run(c.argv, &cost)) {
            std::fprintf(stderr, "cli_bench: '%s' failed (fw_printenv is in Debian's libubootenv-tool)\n", c.name);
            status = 1;
        }
    }
    for (int i = 0; i < runs && status == 0; ++i) {
        for (auto &c : commands) {
            if (!run(c.argv, &cost)) {
                std::fprintf(stderr, "cli_bench: '%s' failed\n", c.name);
                status = 1;
                break;
            }
            c.cpu.push_back(cost.cpu_ms);
            c.wall.push_back(cost.wall_ms);
        }
    }
    if (status == 0) {
        std::printf("whole processes, %d interleaved runs of each, medians; vexactl built as '%s'\n", runs,
                    VEXA_BUILD_TYPE);
        std::printf("%-36s %8s %8s %10s %11s\n", "COMMAND", "CPU_MS", "WALL_MS", "CPU_RATIO", "WALL_RATIO");
        const double cpu0 = median(commands[0].cpu), wall0 = median(commands[0].wall);
        for (const auto &c : commands) {
            const double cpu = median(c.cpu), wall = median(c.wall);
            std::printf("%-36s %8.2f %8.2f %10.2f %11.2f\n", c.name, cpu, wall, cpu / cpu0, wall / wall0);
        }
    }
    vexa::sim::Board::stop_host(board);
    std::error_code ec;
    fs::remove_all(dir, ec);
    return status;
}
