// The U-Boot environment store on arbitrary partition contents. The first
// byte picks the form: even, the bytes are the partition as they stand; odd,
// they are a data area wrapped in a valid CRC, so that the parser and the
// formatter see them too.
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <string>

#include "sim/board.h"
#include "sim/partitions/page_cache.h"
#include "vexasdk/Ubootenv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = vexa::sim::Board::Builder().build();
    // Saves flush into a modelled page cache, not the host's disk.
    static const auto cache = vexa::sim::add_page_cache(board, "/dev/block/by-name/env");
    static const int sink = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (size == 0)
        return 0;
    std::string bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
    std::string partition;
    if (data[0] & 1) {
        bytes.resize(65532, '\0');
        const uLong crc = crc32(0L, reinterpret_cast<const Bytef *>(bytes.data()), 65532);
        std::string image(4, '\0');
        for (int i = 0; i < 4; ++i)
            image[i] = static_cast<char>((crc >> (8 * i)) & 0xff);
        image += bytes;
        partition = image + image;
    } else {
        partition = bytes;
    }
    board.write_file("/dev/block/by-name/env", partition);

    Ubootenv env;
    env.getValue("ubootenv.var.bootcmd");
    env.dump(sink);
    env.updateValue("ubootenv.var.fuzz", "1");
    board.clear_log();
    return 0;
}
