// A service that starts the MCU watchdog feeder and keeps running, on the
// board in argv[1] (a client of the test's host, on a fast clock), feeding
// line argv[2]. The feeder never stops, so the test ends this process. It
// says "feeding" on standard output once the feeder has started, and exits 1
// when it could not be started.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "sim/board.h"
#include "vexasdk/mcu.h"

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    auto board = vexa::sim::Board::open(argv[1], true);
    if (bi_mcu_watchdog_start_feed(std::atoi(argv[2])) != 0)
        return 1;
    std::puts("feeding");
    std::fflush(stdout);
    for (;;)
        pause();
}
