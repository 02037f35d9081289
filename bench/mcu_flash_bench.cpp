// Flashing the MCU through its ROM bootloader over a line paced like the
// real UART (115200 baud, 8 data bits, odd parity, 1 stop bit: 11 bits a
// byte), by the library and, for comparison, by stm32flash.
//
//   mcu_flash_bench [KIB [RUNS]]   (default 256 KiB, 1 run)
//
// Prints the library's whole task, then for each run the library's write
// phase and stm32flash writing the same image through the same paced model,
// one after the other so that both see the same load on the host, each with
// the wire-time floor of the bytes it exchanged. With several runs the best
// ratio of each is printed last: on a busy host a late wake-up of any thread
// on the line's path counts as time, and the best run shows the flasher's
// own cost. The library's middle time between two blocks, against a block's
// wire time, shows the cost of a usual block apart from the rare late
// wake-ups.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "sim/serial/mcu_model.h"
#include "vexasdk/mcu.h"
#include "vexasdk/selftest.h"

namespace {

constexpr unsigned kBaud = 115200;
constexpr unsigned kBitsPerByte = 11;
constexpr const char *kUart = "/dev/ttyS9";
constexpr const char *kTool = "/usr/bin/stm32flash";

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double wire_seconds(uint64_t bytes)
{
    return static_cast<double>(bytes) * kBitsPerByte / kBaud;
}

struct Timed {
    double seconds = 0;
    double floor = 0;
    uint64_t bytes = 0;
    bool matches = false;
    int result = 0;
    double median_block = 0; // seconds between two blocks, the middle one
    double ratio() const { return seconds / floor; }
};

// A block on the wire: the write command and its acknowledge, the address
// and its acknowledge, the count, 256 bytes and the checksum, and their
// acknowledge.
constexpr uint64_t kBlockBytes = 2 + 1 + 5 + 1 + 1 + 256 + 1 + 1;

// When each block's progress came.
void note_block(uint32_t, uint32_t, void *user)
{
    static_cast<std::vector<std::chrono::steady_clock::time_point> *>(user)->push_back(
        std::chrono::steady_clock::now());
}

double median_gap(const std::vector<std::chrono::steady_clock::time_point> &times)
{
    std::vector<double> gaps;
    for (size_t i = 1; i < times.size(); ++i)
        gaps.push_back(std::chrono::duration<double>(times[i] - times[i - 1]).count());
    if (gaps.empty())
        return 0;
    std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
    return gaps[gaps.size() / 2];
}

class Bench {
public:
    Bench(vexa::sim::Board &board, const std::string &image) : board_(board), image_(image)
    {
        mcu_ = vexa::sim::mcu_model(board_);
    }
    bool ready() const { return mcu_ != nullptr; }
    vexa::sim::McuModel &mcu() { return *mcu_; }

    bool flash_matches() const
    {
        return mcu_->flash(static_cast<uint32_t>(image_.size())) ==
               std::vector<uint8_t>(image_.begin(), image_.end());
    }
    uint64_t exchanged() const { return mcu_->bytes_in() + mcu_->bytes_out(); }

    // The library's write phase: into the bootloader, erase, then the timed
    // writememory_2mcu.
    Timed library_write()
    {
        mcu_->fill_flash(0xFF);
        mcu_serial_init(kUart, 115200, 8, 1, 'O');
        mcu_isp_init();
        Timed t;
        if (ack_startisp() != 0) {
            t.result = -1;
            return t;
        }
        mcu_type_detect();
        ack_sendcmd(0x44);
        erasememory_extend(MCU_ISP_FLASH_BASE, static_cast<uint32_t>(image_.size()));
        std::vector<std::chrono::steady_clock::time_point> blocks;
        blocks.reserve(image_.size() / 256 + 1);
        mcu_isp_set_progress(note_block, &blocks);
        const uint64_t before = exchanged();
        const auto start = std::chrono::steady_clock::now();
        t.result = writememory_2mcu(MCU_ISP_FLASH_BASE, reinterpret_cast<const uint8_t *>(image_.data()),
                                    static_cast<uint32_t>(image_.size()));
        t.seconds = seconds_since(start);
        mcu_isp_set_progress(nullptr, nullptr);
        t.median_block = median_gap(blocks);
        t.bytes = exchanged() - before;
        t.floor = wire_seconds(t.bytes);
        mcu_serial_close();
        mcu_isp_close();
        t.matches = flash_matches();
        return t;
    }

    // stm32flash writing the same image on a blank flash (no erase: both
    // write the same), 8N1 on the pty (it carries no parity); the model
    // paces 11 bits a byte all the same.
    Timed tool_write()
    {
        mcu_->fill_flash(0xFF);
        mcu_isp_init();
        auto line = vexa::sim::serial_line(board_, kUart);
        line->reset_line();
        const std::string command = std::string(kTool) + " -b 115200 -m 8n1 -e 0 -w " +
                                    board_.host_path("/data/bench/image.bin") + " " + line->pty_path() +
                                    " > /dev/null 2>&1";
        const uint64_t before = exchanged();
        const auto start = std::chrono::steady_clock::now();
        const int status = std::system(command.c_str());
        Timed t;
        t.seconds = seconds_since(start);
        t.result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        t.bytes = exchanged() - before;
        t.floor = wire_seconds(t.bytes);
        t.matches = flash_matches();
        mcu_isp_close();
        return t;
    }

private:
    vexa::sim::Board &board_;
    std::string image_;
    std::shared_ptr<vexa::sim::McuModel> mcu_;
};

} // namespace

int main(int argc, char **argv)
{
    const size_t kib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 256;
    const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1;
    if (kib == 0 || kib > 503) {
        std::fprintf(stderr, "mcu_flash_bench: KIB is 1 to 503 (the erase of a larger image is cut short)\n");
        return 2;
    }
    std::string image(kib * 1024, '\0');
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<char>((i * 2654435761u) >> 24);

    // Real time: the board's clock runs as the wall clock does.
    vexa::sim::Board board = vexa::sim::Board::Builder().fast_clock(false).build();
    board.write_file("/data/bench/image.bin", image);
    Bench bench(board, image);
    if (!bench.ready() || parseConfigInfo() != 0) {
        std::fprintf(stderr, "mcu_flash_bench: the board has no MCU line\n");
        return 1;
    }
    // A GD32F470: its erase command for up to 504 KiB fits the flasher's
    // 8-bit count.
    bench.mcu().set_type(3);
    bench.mcu().pace(kBaud, kBitsPerByte);
    double load = 0;
    getloadavg(&load, 1);
    std::printf("image: %zu KiB, line: %u baud, %u bits a byte; host: %ld CPUs, load %.2f\n", kib, kBaud,
                kBitsPerByte, sysconf(_SC_NPROCESSORS_ONLN), load);

    // The whole task, as the update flow runs it.
    auto start = std::chrono::steady_clock::now();
    const int rc = mcu_tool_isp_task("/data/bench/image.bin", kUart);
    const double total = seconds_since(start);
    std::printf("library, whole task:    %8.3f s  (result %d, flash %s)\n", total, rc,
                bench.flash_matches() ? "matches" : "DIFFERS");

    const bool tool = access(kTool, X_OK) == 0;
    double best_library = 1e9, best_tool = 1e9, best_block = 1e9;
    for (int run = 1; run <= runs; ++run) {
        const Timed lib = bench.library_write();
        std::printf("library, write phase:   %8.3f s  (result %d, flash %s)\n", lib.seconds, lib.result,
                    lib.matches ? "matches" : "DIFFERS");
        std::printf("wire-time floor:        %8.3f s  (%llu bytes exchanged in the write phase)\n", lib.floor,
                    static_cast<unsigned long long>(lib.bytes));
        std::printf("write phase / floor:    %8.3f  (median block %.3f ms, %.3f of its wire time)\n",
                    lib.ratio(), lib.median_block * 1e3, lib.median_block / wire_seconds(kBlockBytes));
        best_library = std::min(best_library, lib.ratio());
        best_block = std::min(best_block, lib.median_block / wire_seconds(kBlockBytes));
        if (!tool) {
            std::printf("stm32flash:             not installed\n");
            continue;
        }
        const Timed t = bench.tool_write();
        std::printf("stm32flash, write:      %8.3f s  (exit %d, flash %s, floor %.3f s for %llu bytes)\n",
                    t.seconds, t.result, t.matches ? "matches" : "DIFFERS", t.floor,
                    static_cast<unsigned long long>(t.bytes));
        std::printf("stm32flash / floor:     %8.3f\n", t.ratio());
        best_tool = std::min(best_tool, t.ratio());
    }
    if (runs > 1) {
        std::printf("best of %d runs:        library %.3f", runs, best_library);
        if (tool)
            std::printf(", stm32flash %.3f", best_tool);
        std::printf(" (time / wire-time floor); library's median block %.3f of its wire time\n", best_block);
    }
    return 0;
}
