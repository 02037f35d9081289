// vexaboard-host: hosts a virtual board's device models for every process
// that attaches the board folder. The board's library starts it, detached,
// when a process attaches a folder that no host serves; it leaves when no
// process has used the board for a while (60 s, or $VEXA_BOARD_HOST_IDLE
// seconds) and when the folder goes away.
//
//   vexaboard-host [--detach] [--ready-fd N] [--idle SECONDS] DIR
//
// --ready-fd N: writes "ready" (or "busy" when another host has the folder,
// or what went wrong) to descriptor N once it listens, then closes it.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sim/board.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;

void on_signal(int) { g_stop = 1; }

void tell(int fd, const std::string &text)
{
    if (fd < 0)
        return;
    (void)!::write(fd, text.data(), text.size());
    ::close(fd);
}

int usage()
{
    std::fprintf(stderr, "usage: vexaboard-host [--detach] [--ready-fd N] [--idle SECONDS] DIR\n");
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    bool detach = false;
    int ready_fd = -1;
    long idle_s = 60;
    if (const char *idle = std::getenv("VEXA_BOARD_HOST_IDLE"); idle && *idle)
        idle_s = std::strtol(idle, nullptr, 10);
    std::string dir;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--detach")
            detach = true;
        else if (arg == "--ready-fd" && i + 1 < argc)
            ready_fd = std::atoi(argv[++i]);
        else if (arg == "--idle" && i + 1 < argc)
            idle_s = std::strtol(argv[++i], nullptr, 10);
        else if (arg == "--help")
            return usage() == 2 ? 0 : 0;
        else if (dir.empty() && arg[0] != '-')
            dir = arg;
        else
            return usage();
    }
    if (dir.empty())
        return usage();
    (void)detach; // the starter has detached this process already
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGHUP, SIG_IGN);
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    try {
        vexa::sim::Board board = vexa::sim::Board::host(dir);
        tell(ready_fd, "ready\n");
        const uint64_t idle_ns = static_cast<uint64_t>(idle_s < 1 ? 1 : idle_s) * 1000000000u;
        while (!g_stop && !board.should_leave() && board.idle_ns() < idle_ns) {
            struct timespec pause = {0, 100000000};
            ::nanosleep(&pause, nullptr);
        }
    } catch (const std::exception &e) {
        const bool busy = std::strstr(e.what(), "hosted by another process") != nullptr;
        tell(ready_fd, busy ? "busy\n" : std::string(e.what()) + "\n");
        return busy ? 0 : 1;
    }
    return 0;
}
