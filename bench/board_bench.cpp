// The virtual board's own costs: one log line, one property_get, one
// property_set, one GPIO set followed by a get. Prints the median of many
// rounds of each, in microseconds, on a board hosted by this process and on
// one reached as a client of another process's host.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "platform/android.h"
#include "platform/hal.h"
#include "sim/board.h"

namespace {

double median_us(const std::function<void(int)> &step, int rounds = 20000)
{
    std::vector<double> times;
    times.reserve(static_cast<size_t>(rounds));
    for (int i = 0; i < rounds; ++i) {
        const auto start = std::chrono::steady_clock::now();
        step(i);
        const auto end = std::chrono::steady_clock::now();
        times.push_back(std::chrono::duration<double, std::micro>(end - start).count());
    }
    std::nth_element(times.begin(), times.begin() + rounds / 2, times.end());
    return times[static_cast<size_t>(rounds / 2)];
}

void measure(const char *where)
{
    char value[PROPERTY_VALUE_MAX];
    property_set("persist.bench.key", "1");
    const double log = median_us([](int i) { __android_log_print(4, "bench", "line %d", i); });
    const double get = median_us([&](int) { property_get("persist.bench.key", value, ""); });
    const double set = median_us([](int i) { property_set("persist.bench.set", i % 2 ? "1" : "0"); });
    const double gpio = median_us([](int i) {
        hal_gpio_set_value(40, i & 1);
        hal_gpio_get_value(40);
    });
    std::printf("%-8s log line %6.2f us  property_get %6.2f us  property_set %6.2f us  "
                "gpio set+get %6.2f us\n",
                where, log, get, set, gpio);
}

} // namespace

int main()
{
    std::printf("median cost of one call on the virtual board\n");
    vexa::sim::Board board = vexa::sim::Board::Builder().fast_clock(false).build();
    measure("host");
    std::fflush(stdout);
    // A second process attaches the same folder as a client of this host.
    const pid_t child = ::fork();
    if (child == 0) {
        vexa::sim::Board client = vexa::sim::Board::open(board.root());
        measure("client");
        std::fflush(stdout);
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
