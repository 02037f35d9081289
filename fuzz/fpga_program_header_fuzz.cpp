// FPGA program files as the update and the FPGA read their header: the
// "tags" entry, the size and the checksum, and what vexactl tells of a file
// that is none. Nothing is read past the file.
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
    const auto program = vexa::fpga_wire::valid_program(file.data(), file.size());
    if (program && program->size() > file.size())
        std::abort();
    // A file is a program exactly when nothing keeps it from being one.
    if (program.has_value() == vexa::fpga_wire::program_problem(file.data(), file.size()).has_value())
        std::abort();
    return 0;
}
