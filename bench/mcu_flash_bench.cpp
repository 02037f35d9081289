// Flashing the MCU through its ROM bootloader over a line paced like the
// real UART (115200 baud, 8 data bits, odd parity, 1 stop bit: 11 bits a
// byte), by the library and, for comparison, by stm32flash.
//
//   mcu_flash_bench [KIB]   (default 256)
//
// Prints the library's total time, the time of its write phase and the
// wire-time floor of the bytes exchanged in that phase.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/serial/mcu_model.h"
#include "vexasdk/mcu.h"
#include "vexasdk/selftest.h"

namespace {

constexpr unsigned kBaud = 115200;
constexpr unsigned kBitsPerByte = 11;
constexpr const char *kUart = "/dev/ttyS9";

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double wire_seconds(uint64_t bytes)
{
    return static_cast<double>(bytes) * kBitsPerByte / kBaud;
}

} // namespace

int main(int argc, char **argv)
{
    const size_t kib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 256;
    std::string image(kib * 1024, '\0');
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<char>((i * 2654435761u) >> 24);

    // Real time: the board's clock runs as the wall clock does.
    vexa::sim::Board board = vexa::sim::Board::Builder().fast_clock(false).build();
    board.write_file("/data/bench/image.bin", image);
    auto mcu = vexa::sim::mcu_model(board);
    if (!mcu || parseConfigInfo() != 0) {
        std::fprintf(stderr, "mcu_flash_bench: the board has no MCU line\n");
        return 1;
    }
    // A GD32F470: its erase command for 256 KiB fits the flasher's 8-bit count.
    mcu->set_type(3);
    mcu->pace(kBaud, kBitsPerByte);
    std::printf("image: %zu KiB, line: %u baud, %u bits a byte\n", kib, kBaud, kBitsPerByte);

    // 1. The whole task, as the update flow runs it.
    auto start = std::chrono::steady_clock::now();
    int rc = mcu_tool_isp_task("/data/bench/image.bin", kUart);
    const double total = seconds_since(start);
    const bool same = mcu->flash(static_cast<uint32_t>(image.size())) ==
                      std::vector<uint8_t>(image.begin(), image.end());
    std::printf("library, whole task:  %8.3f s  (result %d, flash %s)\n", total, rc,
                same ? "matches" : "DIFFERS");

    // 2. The write phase alone, with the bytes it exchanged.
    mcu->fill_flash(0xFF);
    mcu_serial_init(kUart, 115200, 8, 1, 'O');
    mcu_isp_init();
    if (ack_startisp() != 0) {
        std::fprintf(stderr, "mcu_flash_bench: the bootloader did not answer\n");
        return 1;
    }
    mcu_type_detect();
    ack_sendcmd(0x44);
    erasememory_extend(MCU_ISP_FLASH_BASE, static_cast<uint32_t>(image.size()));
    const uint64_t in0 = mcu->bytes_in();
    const uint64_t out0 = mcu->bytes_out();
    start = std::chrono::steady_clock::now();
    rc = writememory_2mcu(MCU_ISP_FLASH_BASE, reinterpret_cast<const uint8_t *>(image.data()),
                          static_cast<uint32_t>(image.size()));
    const double write_phase = seconds_since(start);
    const uint64_t exchanged = (mcu->bytes_in() - in0) + (mcu->bytes_out() - out0);
    mcu_serial_close();
    mcu_isp_close();
    const double floor = wire_seconds(exchanged);
    std::printf("library, write phase: %8.3f s  (result %d)\n", write_phase, rc);
    std::printf("wire-time floor:      %8.3f s  (%llu bytes exchanged in the write phase)\n", floor,
                static_cast<unsigned long long>(exchanged));
    std::printf("write phase / floor:  %8.3f\n", write_phase / floor);

    // 3. stm32flash writing the same image through the same paced model.
    const char *tool = "/usr/bin/stm32flash";
    if (access(tool, X_OK) != 0) {
        std::printf("stm32flash:           not installed\n");
        return 0;
    }
    const std::string host_image = board.host_path("/data/bench/image.bin");
    mcu->fill_flash(0xFF);
    mcu_isp_init();
    const std::string pty = vexa::sim::serial_line(board, kUart)->pty_path();
    vexa::sim::serial_line(board, kUart)->reset_line();
    // 8N1 on the pty (it carries no parity); the model paces 11 bits a byte
    // all the same. No erase: the flash is blank, so both write the same.
    const std::string command = std::string(tool) + " -b 115200 -m 8n1 -e 0 -w " + host_image + " " +
                                pty + " > /dev/null 2>&1";
    const uint64_t sin0 = mcu->bytes_in();
    const uint64_t sout0 = mcu->bytes_out();
    start = std::chrono::steady_clock::now();
    const int status = std::system(command.c_str());
    const double tool_time = seconds_since(start);
    const uint64_t tool_bytes = (mcu->bytes_in() - sin0) + (mcu->bytes_out() - sout0);
    const bool tool_same = mcu->flash(static_cast<uint32_t>(image.size())) ==
                           std::vector<uint8_t>(image.begin(), image.end());
    mcu_isp_close();
    std::printf("stm32flash, write:    %8.3f s  (exit %d, flash %s, floor %.3f s for %llu bytes)\n",
                tool_time, WEXITSTATUS(status), tool_same ? "matches" : "DIFFERS",
                wire_seconds(tool_bytes), static_cast<unsigned long long>(tool_bytes));
    return 0;
}
