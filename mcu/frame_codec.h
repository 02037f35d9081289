// Byte-level helpers shared by the MCU link's encoders and parsers.
#ifndef VEXA_MCU_FRAME_CODEC_H
#define VEXA_MCU_FRAME_CODEC_H

#include <cstddef>
#include <cstdint>

namespace vexa::mcu {

inline void put_le16(uint8_t *p, uint16_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

inline void put_le32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

inline uint16_t get_le16(const uint8_t *p)
{
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

inline uint32_t get_le32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// Control byte of a request: word8's low 4 bits, word5's bit 0 as bit 5, and
// 0x40 when word6 is zero.
uint8_t control_byte(uint32_t word5, uint32_t word6, uint32_t word8);
// 16-bit sum of the bytes, no inversion.
uint16_t byte_sum(const uint8_t *bytes, size_t count);

} // namespace vexa::mcu

#endif
