// FPGA benchmark on the virtual board, in real time: the pz50pro boot-time
// load process (normal boot, screen parameters from the "screen" partition
// with topology and gamma blocks, the SGMII/PHY bring-up) and the UDP
// parameter transfer. Each total is printed against the sum of the waits the
// protocol fixes (10 ms before every "/dev/fpga_spi" packet, 100 ms after
// each gamma packet, 500 + 200 ms around the PHY reset, 1 ms before the
// driver, 5 ms between the SGMII reset edges, the poll periods of rounds that
// found nothing, 100 ms between the UDP source readings): the ratio is what
// the library and the board add.
//
// Usage: fpga_bench [--any-cpu]
//
// Each transfer is a hand-over between the library and the board's FPGA in
// the board's host process. By default the benchmark keeps itself, and with
// it the host it starts, on one CPU, where a hand-over is a context switch:
// on a virtual machine a wake-up on another, halted virtual CPU costs what
// the hypervisor takes (up to a millisecond an exchange), which is the
// machine's figure, not the library's. --any-cpu leaves the CPUs as they are
// and shows that cost.
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <string>
#include <vector>

#include "sim/board.h"
#include "sim/fpga/fpga_model.h"
#include "vexasdk/fpga.h"
#include "vexasdk/selftest.h"

namespace {

using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string pattern(size_t n, uint8_t seed)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i)
        s[i] = char(seed + i * 7);
    return s;
}

// A screen partition with every kind of block: two topology blocks of 16
// lines, the gamma tables, colour, network gaps and the start block.
std::string screen_partition()
{
    std::string topology(5120, '\0');
    topology[3] = 16;
    topology[259] = 16;
    return vexa::sim::make_fpga_block_file({
        {0x10000100, pattern(32, 1)},
        {0x10018000, topology},
        {0x10B00000, pattern(256, 2)},
        {0x10B01000, pattern(256, 3)},
        {0x10300000, pattern(4096, 4)},
        {0x10310000, pattern(4096, 5)},
        {0x10200000, pattern(4096, 6)},
        {0x10A43000, pattern(512, 7)},
        {0x10400000, pattern(0x20800, 8)},
        {0x10810000, pattern(4096, 9)},
        {0x10820000, pattern(4096, 10)},
    });
}

// The output of a library call that prints, kept off the figures.
class Quiet {
public:
    Quiet() : saved_(::dup(STDOUT_FILENO))
    {
        std::fflush(stdout);
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(null, STDOUT_FILENO);
        ::close(null);
    }
    ~Quiet()
    {
        std::fflush(stdout);
        ::dup2(saved_, STDOUT_FILENO);
        ::close(saved_);
    }

private:
    int saved_;
};

// Prints a run and returns its ratio.
double report(const char *what, double total, double fixed, const std::string &parts)
{
    std::printf("%-28s total %8.1f ms   fixed waits %8.1f ms (%s)   ratio %.3f\n", what, total, fixed,
                parts.c_str(), total / fixed);
    return total / fixed;
}

double pz50pro_boot(int run)
{
    auto board = vexa::sim::Board::Builder().module_id("8470").fast_clock(false).build();
    board.write_file("/dev/block/by-name/screen", screen_partition());
    parseConfigInfo();
    auto fpga = vexa::sim::fpga_model(board);
    fpga->clear_record();
    const auto start = Clock::now();
    int32_t result;
    {
        Quiet quiet;
        result = fpgaLoadProcessPz50Pro();
    }
    const double total = ms_since(start);
    size_t packets = 0;
    for (auto &t : fpga->transfers())
        packets += t.node == "/dev/fpga_spi" && t.kind == 'w';
    // The SGMII polls wait 2 ms after each round that found nothing (the
    // negotiation takes 3.2 ms: two such rounds).
    size_t empty_polls = 0;
    for (auto &record : board.log())
        empty_polls += record.text.find("State state = 0x00") != std::string::npos;
    const double phy = 500 + 200 + 1 + 5 + 2.0 * double(empty_polls);
    const double fixed = packets * 10.0 + 3 * 100.0 + phy;
    char parts[128];
    std::snprintf(parts, sizeof parts, "%zu packets x 10 + 3 gamma x 100 + PHY %.0f", packets, phy);
    return report(("pz50pro boot, run " + std::to_string(run) + (result == 0 ? "" : " FAILED")).c_str(), total,
                  fixed, parts);
}

double udp_transfer(int run)
{
    auto board = vexa::sim::Board::Builder().fast_clock(false).build();
    std::vector<std::pair<uint32_t, std::string>> blocks;
    // Eight register blocks of 2 KiB, then the input-source block.
    for (uint32_t i = 0; i < 8; ++i)
        blocks.emplace_back(0x200000 + i * 0x10000, pattern(2048, uint8_t(i)));
    blocks.emplace_back(0x100060, std::string(1, '\1'));
    board.write_file("/data/screen.bin", vexa::sim::make_fpga_block_file(blocks));
    auto fpga = vexa::sim::fpga_model(board);
    const auto start = Clock::now();
    const int32_t result = bi_fpga_load_screen_params_by_udp("/data/screen.bin", "/data/screen.bin");
    const double total = ms_since(start);
    const double fixed = 6 * 100.0;
    char parts[128];
    std::snprintf(parts, sizeof parts, "%zu UDP writes, 14 reads; 7 readings, 6 x 100",
                  fpga->udp_writes().size());
    return report(("UDP parameters, run " + std::to_string(run) + (result == 0 ? "" : " FAILED")).c_str(), total,
                  fixed, parts);
}

// Keeps the process on the CPU it runs on; the CPU, or -1.
int pin_to_one_cpu()
{
    const int cpu = sched_getcpu();
    if (cpu < 0)
        return -1;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    return sched_setaffinity(0, sizeof one, &one) == 0 ? cpu : -1;
}

} // namespace

int main(int argc, char **argv)
{
    bool any_cpu = false;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--any-cpu") {
            any_cpu = true;
        } else {
            std::fprintf(stderr, "usage: %s [--any-cpu]\n", argv[0]);
            return 2;
        }
    }
    // Real-time scheduling where the machine allows it, so that other load
    // does not stretch the sleeps, and one CPU unless asked otherwise. Each
    // run's board host is started from here and inherits both.
    sched_param param{};
    param.sched_priority = 10;
    const bool realtime = sched_setscheduler(0, SCHED_FIFO, &param) == 0;
    const int cpu = any_cpu ? -1 : pin_to_one_cpu();
    double load[1] = {0};
    getloadavg(load, 1);
    char cpus[32] = "any CPU";
    if (cpu >= 0)
        std::snprintf(cpus, sizeof cpus, "CPU %d", cpu);
    std::printf("scheduling: %s, %s; load average %.2f\n",
                realtime ? "SCHED_FIFO 10" : "normal (no real-time priority: other load stretches the sleeps)",
                cpus, load[0]);
    // On a busy host a late wake-up of any thread on the path counts as
    // time: the best run shows the library's and the board's own cost.
    double best_boot = 1e9, best_udp = 1e9;
    for (int run = 1; run <= 3; ++run)
        best_boot = std::min(best_boot, pz50pro_boot(run));
    for (int run = 1; run <= 3; ++run)
        best_udp = std::min(best_udp, udp_transfer(run));
    std::printf("best of 3 runs: pz50pro boot %.3f, UDP parameters %.3f\n", best_boot, best_udp);
    return 0;
}
