// The datagrams of the virtual board's FPGA UDP link: the board's stand-in
// for the maker's wire format, between the FPGA_UDP_* calls and the model.
//
// Request: 'V' 'F', op ('W' write, 'R' read), link, sequence (u16), address
// (u32), length (u16), then the data of a write. All big-endian.
// Reply: 'V' 'F', op | 0x20, status (0, or an errno value), sequence,
// length, then the data of a read.
#ifndef VEXA_SIM_FPGA_UDP_WIRE_H
#define VEXA_SIM_FPGA_UDP_WIRE_H

#include <cstddef>
#include <cstdint>

namespace vexa::sim::fpga_udp {

constexpr size_t kHead = 12;
constexpr size_t kMaxData = 1400;
constexpr uint8_t kWrite = 'W';
constexpr uint8_t kRead = 'R';
constexpr uint8_t kReplyBit = 0x20;

inline void put16(uint8_t *p, uint16_t v)
{
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
inline uint16_t get16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }
inline void put32(uint8_t *p, uint32_t v)
{
    put16(p, uint16_t(v >> 16));
    put16(p + 2, uint16_t(v));
}
inline uint32_t get32(const uint8_t *p) { return uint32_t(get16(p)) << 16 | get16(p + 2); }

} // namespace vexa::sim::fpga_udp

#endif
