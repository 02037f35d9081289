// MCU request frames built from arbitrary data and header fields: the frame
// keeps its layout and checksum, and nothing is written outside it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "vexasdk/mcu.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // 13 bytes of header fields; a frame may carry no data at all.
    if (size < 13)
        return 0;
    uint16_t label;
    uint16_t half10;
    uint32_t ext_lo;
    uint32_t ext_hi;
    std::memcpy(&label, data, 2);
    std::memcpy(&half10, data + 2, 2);
    std::memcpy(&ext_lo, data + 4, 4);
    std::memcpy(&ext_hi, data + 8, 4);
    const uint8_t control = data[12];
    const uint8_t *payload = data + 13;
    uint32_t len = static_cast<uint32_t>(size - 13);
    if (len > VEXA_PACKET_MAX_DATA)
        len = VEXA_PACKET_MAX_DATA;

    // Exactly the frame's size, so a sanitizer sees any write past it.
    std::vector<uint8_t> frame(len + VEXA_PACKET_HEADER_LENGTH + VEXA_PACKET_CHECKSUM_LENGTH);
    if (vexa_packet_data(frame.data(), payload, len, VEXA_PACKET_HEAD, label, control, half10,
                         ext_lo, ext_hi, 0x01020304u) != 0)
        std::abort();
    if (frame[0] != 0x55 || frame[1] != 0xBB || frame[10] != control)
        std::abort();
    if (static_cast<uint16_t>(frame[8] | (frame[9] << 8)) != static_cast<uint16_t>(len + 22))
        std::abort();
    if (std::memcmp(frame.data() + VEXA_PACKET_HEADER_LENGTH, payload, len) != 0)
        std::abort();
    const int32_t sum = vexa_transfer_checksum(frame.data(), VEXA_PACKET_HEADER_LENGTH + len);
    const uint8_t *tail = frame.data() + VEXA_PACKET_HEADER_LENGTH + len;
    if (sum != (tail[0] | (tail[1] << 8)))
        std::abort();
    if (transUcharArrayToU64(data) > 0xFFFFFFFFu)
        std::abort();
    return 0;
}
