// The screen parameter formats as pure walks over byte buffers: the SPI
// record stream and the block file as the UDP path sends it. Nothing is read
// outside the buffer given.
#ifndef VEXA_FPGA_PARAM_CODEC_H
#define VEXA_FPGA_PARAM_CODEC_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace vexa::fpga {

// ---- SPI record stream ----
struct Record {
    size_t offset;      // of the 8-byte header
    uint8_t tag[2];     // as stored
    uint32_t length;    // 1..51200
    const uint8_t *data;
};
enum class StreamEnd {
    end_of_data, // the next header would not fit
    zero_header, // an all-zero header
    bad_length,  // a length outside 1..51200 (at `offset`)
    overrun,     // a record whose data runs past the buffer (at `offset`)
    stopped,     // fn returned false
};
struct StreamResult {
    StreamEnd end;
    size_t offset;    // where the walk stopped
    uint32_t length;  // the record length read there
};
// Calls fn for each record from offset 0 on.
StreamResult walk_records(const uint8_t *buf, size_t size,
                          const std::function<bool(const Record &)> &fn);

// ---- Block file, as the UDP path sends it ----
struct Block {
    uint32_t index;
    uint32_t address;
    uint32_t length;
    size_t data_offset; // in the image
};
enum class BlockEnd { done, zero_length, overrun, stopped };
// Walks count blocks after the 4-byte count; a block whose header or data
// runs past the image ends the walk (overrun).
BlockEnd walk_blocks(const uint8_t *image, size_t size, uint32_t count,
                     const std::function<bool(const Block &)> &fn);

// One UDP write of a block: at base + address_offset, n bytes from the
// block's data + data_offset (which may lie past the block: the tail write).
struct Chunk {
    uint32_t address_offset;
    uint64_t data_offset;
    uint32_t n;
};
// 1024-byte writes; the tail of a longer block at twice the bytes sent.
std::vector<Chunk> udp_chunks(uint32_t length);

} // namespace vexa::fpga

#endif
