// The SPI record stream of the fpga_parameter file: the walk never reads a
// record past the buffer it was read into, and every record it yields has
// a valid length.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fpga/param_codec.h"
#include "vexasdk/fpga.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // An exact-size copy, so a sanitizer sees any overread.
    const std::vector<uint8_t> stream(data, data + size);
    size_t end = 0;
    const auto result = vexa::fpga::walk_records(stream.data(), stream.size(), [&](const vexa::fpga::Record &r) {
        if (r.length < 1 || r.length > BI_FPGA_RECORD_MAX || r.offset + 8 + r.length > stream.size())
            std::abort();
        // The frame the record becomes: E, the tag, the data, 0.
        std::vector<uint8_t> frame = {0x45, r.tag[0], r.tag[1]};
        frame.insert(frame.end(), r.data, r.data + r.length);
        frame.push_back(0);
        end = r.offset + 8 + r.length;
        return true;
    });
    if (result.offset < end)
        std::abort();
    return 0;
}
