// Request frames to the MCU: layout, label counter, checksum and sending.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "mcu/frame_codec.h"
#include "platform/log.h"
#include "platform/os.h"
#include "vexasdk/mcu.h"

namespace {

constexpr const char *kTag = "vexa_system_hidl_service";
constexpr int kErrorNoMemory = -4001;
constexpr int kErrorNullBuffer = -4004;
// The hex dump of a sent frame shows at most this many bytes.
constexpr uint32_t kDumpBytes = 1024;

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};

// Advances the label counter and returns the label of the frame being built:
// 1..65535, then 1 again.
uint16_t next_label()
{
    const uint16_t label = static_cast<uint16_t>(g_n_lable + 1);
    g_n_lable = label;
    if (label == 65535) {
        // Names the header builder, where the counter logic lives; clients
        // match the text.
        VEXA_LOGI(kTag, "%s: g_n_lable > 65534\n", "vexa_packet_add_frame_header");
        g_n_lable = 0;
    }
    return label;
}

} // namespace

static_assert(sizeof(vexa_request_record_t) == 50, "the request record keeps its 50-byte layout");

uint16_t g_n_lable = 0;

namespace vexa::mcu {

uint8_t control_byte(uint32_t word5, uint32_t word6, uint32_t word8)
{
    uint8_t control = static_cast<uint8_t>((word8 & 15u) | ((word5 & 1u) << 5));
    if (word6 == 0)
        control |= 0x40;
    return control;
}

uint16_t byte_sum(const uint8_t *bytes, size_t count)
{
    uint16_t sum = 0;
    for (size_t i = 0; i < count; ++i)
        sum = static_cast<uint16_t>(sum + bytes[i]);
    return sum;
}

} // namespace vexa::mcu

extern "C" {

VEXA_API int32_t vexa_transfer_checksum(const uint8_t *bytes, uint32_t count)
{
    if (!bytes) {
        VEXA_LOGE(kTag, "error code %d", kErrorNullBuffer);
        return -1;
    }
    return vexa::mcu::byte_sum(bytes, count);
}

VEXA_API int32_t vexa_packet_add_frame_header(uint8_t *frame)
{
    if (!frame)
        return -1;
    vexa::mcu::put_le16(frame, VEXA_PACKET_HEAD);
    frame[2] = 0x00;
    frame[3] = 0x00;
    frame[4] = 0x00;
    frame[5] = 0x01;
    vexa::mcu::put_le16(frame + 6, next_label());
    return 0;
}

VEXA_API int32_t vexa_packet_add_request_header(uint8_t *frame, uint32_t len, uint32_t word5,
                                                uint32_t word6, uint32_t word8, uint16_t half10)
{
    if (!frame)
        return -1;
    vexa::mcu::put_le16(frame + 8, static_cast<uint16_t>(len + 22));
    frame[10] = vexa::mcu::control_byte(word5, word6, word8);
    vexa::mcu::put_le16(frame + 11, half10);
    return 0;
}

VEXA_API int32_t vexa_packet_add_request_body(uint8_t *frame, uint32_t ext_lo, uint32_t ext_hi,
                                              uint32_t word9)
{
    if (!frame)
        return -1;
    frame[13] = 0x00;
    std::memcpy(frame + 14, &ext_lo, 4);
    std::memcpy(frame + 18, &ext_hi, 4);
    vexa::mcu::put_le32(frame + 22, word9);
    vexa::mcu::put_le32(frame + 26, 0);
    return 0;
}

VEXA_API int32_t vexa_packet_data(uint8_t *frame, const uint8_t *data, uint32_t len,
                                  uint16_t head, uint16_t label, uint8_t control, uint16_t half10,
                                  uint32_t ext_lo, uint32_t ext_hi, uint32_t word9)
{
    if (!frame) {
        VEXA_LOGE(kTag, "error code %d", kErrorNullBuffer);
        return -1;
    }
    vexa::mcu::put_le16(frame, head);
    frame[2] = 0x00;
    frame[3] = 0x00;
    frame[4] = 0x00;
    frame[5] = 0x01;
    vexa::mcu::put_le16(frame + 6, label);
    vexa::mcu::put_le16(frame + 8, static_cast<uint16_t>(len + 22));
    frame[10] = control;
    vexa::mcu::put_le16(frame + 11, half10);
    vexa_packet_add_request_body(frame, ext_lo, ext_hi, word9);
    if (data && len)
        std::memcpy(frame + VEXA_PACKET_HEADER_LENGTH, data, len);
    const uint16_t sum = vexa::mcu::byte_sum(frame, VEXA_PACKET_HEADER_LENGTH + len);
    vexa::mcu::put_le16(frame + VEXA_PACKET_HEADER_LENGTH + len, sum);
    return 0;
}

VEXA_API int32_t vexa_physical_send(const uint8_t *frame, uint32_t len, int32_t fd)
{
    if (!frame)
        VEXA_LOGE(kTag, "data is NULL!\n");
    const uint32_t shown = frame ? (len < kDumpBytes ? len : kDumpBytes) : 0;
    char text[2 * kDumpBytes + 1] = {};
    static const char kHex[] = "0123456789ABCDEF";
    for (uint32_t i = 0; i < shown; ++i) {
        text[2 * i] = kHex[frame[i] >> 4];
        text[2 * i + 1] = kHex[frame[i] & 15];
    }
    VEXA_LOGD(kTag, "func:%s line:%d len=[%d], data=[%s]\n", __func__, 188,
              static_cast<int>(shown), text);
    ssize_t written = -1;
    if (frame) {
        written = vexa::os::write(fd, frame, len);
    } else {
        errno = EFAULT;
    }
    if (written < 0)
        VEXA_LOGE(kTag, "%s: write fd(%d) err(%s)\n", __func__, fd, std::strerror(errno));
    return static_cast<int32_t>(written);
}

VEXA_API int32_t vexa_request(const uint8_t *data, uint32_t len,
                              const vexa_request_record_t *request, int32_t fd)
{
    if (!request) {
        VEXA_LOGE(kTag, "error code %d", kErrorNullBuffer);
        return -1;
    }
    if (len > VEXA_PACKET_MAX_DATA) {
        VEXA_LOGE(kTag, "%s: data length %u exceeds the frame buffer (at most %u)\n", __func__,
                  len, VEXA_PACKET_MAX_DATA);
        return -1;
    }
    const uint16_t label = next_label();
    const uint8_t control = vexa::mcu::control_byte(request->word5, request->word6, request->word8);
    std::unique_ptr<uint8_t, FreeDeleter> frame(
        static_cast<uint8_t *>(std::malloc(VEXA_PACKET_BUFFER_SIZE)));
    if (!frame) {
        // Logged and not handled: vexa_packet_data refuses the null buffer
        // and the send below reports it.
        VEXA_LOGD(kTag, "error code %d", kErrorNoMemory);
    }
    const uint32_t frame_len = len + VEXA_PACKET_HEADER_LENGTH + VEXA_PACKET_CHECKSUM_LENGTH;
    if (frame)
        std::memset(frame.get(), 0, frame_len);
    uint32_t ext_lo;
    uint32_t ext_hi;
    std::memcpy(&ext_lo, request->ext, 4);
    std::memcpy(&ext_hi, request->ext + 4, 4);
    vexa_packet_data(frame.get(), data, len, VEXA_PACKET_HEAD, label, control, request->half10,
                     ext_lo, ext_hi, request->word9);
    const int32_t written = vexa_physical_send(frame.get(), frame_len, fd);
    if (written < 0)
        VEXA_LOGE(kTag, "%s: vexa_physical_send failed, n_recv_len = %d\n", __func__, 0);
    return written;
}

VEXA_API int32_t send_mcu_message(uint32_t word9, uint32_t word5, const uint8_t *data,
                                  uint32_t len, int32_t fd)
{
    std::unique_ptr<vexa_request_record_t, FreeDeleter> request(
        static_cast<vexa_request_record_t *>(std::calloc(1, sizeof(vexa_request_record_t))));
    if (!request) {
        VEXA_LOGE(kTag, "error code %d", kErrorNoMemory);
        return -1;
    }
    request->word0 = 1;
    request->word1 = 1;
    request->word2 = 100;
    request->word3 = 2000;
    request->word4 = 0;
    request->word5 = word5;
    request->word6 = 0;
    request->word7 = 0;
    request->word8 = 1;
    request->word9 = word9;
    request->half10 = 1;
    return vexa_request(data, len, request.get(), fd);
}

VEXA_API int32_t vexa_get_packet_length(void)
{
    return VEXA_PACKET_HEADER_LENGTH;
}

VEXA_API uint64_t transUcharArrayToU64(const uint8_t *p)
{
    if (!p)
        return 0;
    return (static_cast<uint64_t>(p[0]) << 24) | (static_cast<uint64_t>(p[1]) << 16) |
           (static_cast<uint64_t>(p[2]) << 8) | p[3];
}

VEXA_API void putDataToSendCach(const void *src, void *dst, uint32_t count)
{
    if (src && dst && count)
        std::memmove(dst, src, count);
}

} // extern "C"
