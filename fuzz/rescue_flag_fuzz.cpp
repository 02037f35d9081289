// The rescue flag file "/Reserve0/flag.hex" holding arbitrary bytes, of any
// length, read by every rescue call that reads it: each answers a byte or
// -1, and the backup time stays inside the caller's 33 bytes, terminated.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sim/board.h"
#include "vexasdk/product_config.h"
#include "vexasdk/storage.h"

namespace {

void expect_byte_or_failure(int32_t v)
{
    if (v < -1 || v > 255)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = [] {
        auto b = vexa::sim::Board::Builder().build();
        bi_base_mount_sub("/dev/block/mmcblk2p22", "/Reserve0");
        return b;
    }();
    board.write_file("/Reserve0/flag.hex", std::string(reinterpret_cast<const char *>(data), size));

    expect_byte_or_failure(bi_rescue_get_data_status());
    expect_byte_or_failure(bi_rescue_get_recover_num());
    expect_byte_or_failure(bi_rescue_get_restore_screen_tab());
    const int32_t tab = bi_rescue_get_recover_tab();
    expect_byte_or_failure(tab);
    if ((tab == 1 || tab == 2) && bi_rescue_get_recover_tab() != 0)
        std::abort(); // a restore request is answered once

    // Exactly the caller's buffer and a guard after it.
    std::vector<char> buf(33 + 8, '\x5a');
    if (bi_rescue_get_backup_time(buf.data(), 33) == 0 && std::memchr(buf.data(), '\0', 33) == nullptr)
        std::abort();
    for (size_t i = 33; i < buf.size(); ++i)
        if (buf[i] != '\x5a')
            std::abort();
    board.clear_log();
    return 0;
}
