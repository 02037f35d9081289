// FPGA program files as the update and the FPGA read their header: the
// "tags" entry, the size and the checksum. Nothing is read past the file.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/fpga_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::vector<uint8_t> file(data, data + size);
    uint8_t tag[vexa::fpga_wire::kTagSize];
    std::string text;
    if (vexa::fpga_wire::parse_tags(file.data(), file.size(), tag, &text) == vexa::fpga_wire::TagsResult::ok) {
        for (uint8_t b : tag)
            if ((b >> 4) > 9 || (b & 0xF) > 9)
                std::abort();
    }
    vexa::fpga_wire::header_number(file.data(), file.size(), "size");
    if (auto program = vexa::fpga_wire::valid_program(file.data(), file.size()))
        if (program->size() > file.size())
            std::abort();
    return 0;
}
