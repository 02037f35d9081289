// Screen parameter block files as the FPGA paths read them: the
// screen-partition parse into the block table and the packed buffer, the
// file walk of the UDP path, and the UDP path's walk of a file image with
// its 1024-byte writes. Nothing is read or written outside the buffers.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fpga/param_codec.h"
#include "sim/board.h"
#include "vexasdk/fpga.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = vexa::sim::Board::Builder().build();
    static std::vector<uint8_t> image(BI_FPGA_SCREEN_BUFFER_SIZE), packed(BI_FPGA_SCREEN_BUFFER_SIZE);
    static size_t used = 0;

    // The partition image: the input, zeros after it.
    std::memset(image.data(), 0, used);
    used = std::min(size, image.size());
    std::memcpy(image.data(), data, used);
    const int32_t count = parse_emmc_block(packed.data(), image.data());
    for (uint32_t i = 0; i < uint32_t(std::min(std::max(count, 0), BI_FPGA_MAX_BLOCKS)); ++i) {
        const st_func_offset_map_t &e = st_func_offset_map_tab[i];
        if (e.fpga_addr != 0 && uint64_t(e.offset) + e.data_len > packed.size())
            std::abort();
    }

    // The UDP path's walk, on an exact-size copy.
    const std::vector<uint8_t> file(data, data + size);
    const uint32_t blocks = size >= 4 ? uint32_t(data[0]) << 24 | data[1] << 16 | data[2] << 8 | data[3] : 0;
    vexa::fpga::walk_blocks(file.data(), file.size(), std::min<uint32_t>(blocks, 4096),
                            [&](const vexa::fpga::Block &b) {
                                if (b.data_offset + b.length > file.size())
                                    std::abort();
                                uint64_t sent = 0;
                                for (const auto &c : vexa::fpga::udp_chunks(b.length)) {
                                    if (c.n == 0 || c.n > 1024)
                                        std::abort();
                                    sent += c.n;
                                }
                                if (sent != b.length)
                                    std::abort();
                                return true;
                            });

    // The file walk of the UDP path.
    board.write_file("/data/params.bin", std::string(reinterpret_cast<const char *>(data), size));
    uint32_t blocknum = 0, length = 0;
    read_para_blcoknum_offest("/data/params.bin", &blocknum, &length);
    board.clear_log();
    return 0;
}
