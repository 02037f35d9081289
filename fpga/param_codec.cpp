// The screen parameter formats as pure walks over byte buffers.
#include "fpga/param_codec.h"

#include "platform/fpga_wire.h"
#include "vexasdk/fpga.h"

namespace vexa::fpga {

using fpga_wire::be32;

StreamResult walk_records(const uint8_t *buf, size_t size,
                          const std::function<bool(const Record &)> &fn)
{
    static const uint8_t zero[8] = {};
    size_t offset = 0;
    while (offset + 8 <= size) {
        const uint8_t *head = buf + offset;
        if (std::memcmp(head, zero, sizeof zero) == 0)
            return {StreamEnd::zero_header, offset, 0};
        const uint32_t length = be32(head + 4);
        if (length < 1 || length > BI_FPGA_RECORD_MAX)
            return {StreamEnd::bad_length, offset, length};
        if (length > size - offset - 8)
            return {StreamEnd::overrun, offset, length};
        const Record record{offset, {head[2], head[3]}, length, head + 8};
        if (!fn(record))
            return {StreamEnd::stopped, offset, length};
        offset += 8 + size_t(length);
    }
    return {StreamEnd::end_of_data, offset, 0};
}

BlockEnd walk_blocks(const uint8_t *image, size_t size, uint32_t count,
                     const std::function<bool(const Block &)> &fn)
{
    size_t offset = 4;
    for (uint32_t i = 0; i < count; ++i) {
        if (size < 8 || offset > size - 8)
            return BlockEnd::overrun;
        const Block block{i, be32(image + offset), be32(image + offset + 4), offset + 8};
        if (block.length == 0)
            return BlockEnd::zero_length;
        if (block.length > size - block.data_offset)
            return BlockEnd::overrun;
        if (!fn(block))
            return BlockEnd::stopped;
        offset = block.data_offset + block.length;
    }
    return BlockEnd::done;
}

std::vector<Chunk> udp_chunks(uint32_t length)
{
    constexpr uint32_t kChunk = 1024;
    if (length <= kChunk)
        return {{0, 0, length}};
    std::vector<Chunk> chunks;
    const uint32_t whole = (length - (kChunk + 1)) / kChunk + 1;
    for (uint32_t k = 0; k < whole; ++k)
        chunks.push_back({k * kChunk, k * kChunk, kChunk});
    const uint32_t sent = whole * kChunk;
    chunks.push_back({2 * sent, 2 * uint64_t(sent), length - sent});
    return chunks;
}

} // namespace vexa::fpga
