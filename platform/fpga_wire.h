// The display FPGA's wire formats, as the library speaks them and the
// board's FPGA model answers them: the SPI commands and registers, the
// receiving-card frame, the program file's header and the packets of the
// qr3plus/qr5plus SPI update. Pure functions over byte buffers.
#ifndef VEXA_PLATFORM_FPGA_WIRE_H
#define VEXA_PLATFORM_FPGA_WIRE_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace vexa::fpga_wire {

// ---- SPI commands: the first byte of a transfer ----
// 02 ADDR(4, big-endian) DATA.. 00: a register write ("/dev/fpga_spi").
constexpr uint8_t kWrite = 0x02;
// 0B ADDR(4, big-endian) 00 DATA..: one read() of the whole buffer; the
// driver fills DATA.
constexpr uint8_t kRead = 0x0B;
constexpr size_t kReadHead = 6;
// 45 HI LO DATA.. 00: a write into the register window at kWindowBase
// + (HI << 8 | LO) (the spi_fpga device).
constexpr uint8_t kWindowWrite = 0x45;
// 43 HI LO 00 ..: a full-duplex read of the window; the data arrive from
// received byte 4 on.
constexpr uint8_t kWindowRead = 0x43;
constexpr size_t kWindowReadHead = 4;
constexpr uint32_t kWindowBase = 0x2000000;

// ---- Registers ----
constexpr uint32_t kSgmiiClock = 0x00001100;       // 1: the SGMII clock runs
constexpr uint32_t kSgmiiTxReset = 0x00001101;     // 0 asserted, 1 released
constexpr uint32_t kSgmiiRxReset = 0x00001102;
constexpr uint32_t kSgmiiNegotiation = 0x00001103; // 1: auto-negotiation done
constexpr uint32_t kDdrState = 0x00001016;         // 1: DDR calibrated
constexpr uint32_t kDdrReset = 0x00001017;         // 0 then 1: recalibrate
constexpr uint32_t kStatusRecord = 0x00001200;     // the link status record
constexpr size_t kStatusRecordSize = 64;
constexpr uint32_t kParamStart = 0x10000100;       // 1: parameters complete
constexpr uint32_t kNetGapEnable = 0x10800000;     // bit 0: 0x10810000, bit 1: 0x10820000
constexpr uint32_t kNetGapTable1 = 0x10810000;
constexpr uint32_t kNetGapTable2 = 0x10820000;
// Over the UDP link.
constexpr uint32_t kUdpBlack = 0x100050;       // 0x02 black screen, 0x00 picture
constexpr uint32_t kUdpHdmiStable = 0x100017;  // 1: HDMI source stable
constexpr uint32_t kUdpDviStable = 0x100037;   // 1: DVI source stable
constexpr uint32_t kUdpNetEnable = 0x1DE;      // 0x5A: network outputs on
// Window offsets.
constexpr uint16_t kSourceMode = 0x0023; // 'X' (0x58): no picture source
constexpr uint16_t kNetOutputs = 0x0024; // 1: Ethernet outputs on
constexpr uint16_t kProgramTag = 0x00F0; // 7 bytes
constexpr uint16_t kCardControl = 0x0100; // write 1 send, 0 stop; read: card status
constexpr uint16_t kCardFrame = 0x0400;  // the frame for the cards
constexpr uint16_t kCardReply = 0x0802;  // the cards' reply
constexpr uint16_t kUpdateInfo = 0x1000;
constexpr uint16_t kUpdateFlash = 0x1010;
constexpr uint16_t kUpdateReset = 0x1020;
constexpr uint16_t kUpdatePiece = 0x1100;

constexpr uint8_t kCardReady = 0x84;
constexpr size_t kTagSize = 7;

inline void put_be32(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
inline uint32_t be32(const uint8_t *p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
inline void put_le16(uint8_t *p, uint16_t v)
{
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}
inline uint16_t le16(const uint8_t *p) { return uint16_t(p[0] | p[1] << 8); }
inline void put_le32(uint8_t *p, uint32_t v)
{
    put_le16(p, uint16_t(v));
    put_le16(p + 2, uint16_t(v >> 16));
}
inline uint32_t le32(const uint8_t *p) { return le16(p) | uint32_t(le16(p + 2)) << 16; }

// The 16-bit additive sum of n bytes.
inline uint16_t sum16(const uint8_t *p, size_t n, uint16_t start = 0)
{
    uint32_t sum = start;
    for (size_t i = 0; i < n; ++i)
        sum += p[i];
    return uint16_t(sum);
}

// A register write packet: 02, the address, `room` data bytes (n of them
// from data, zeros after), 00.
inline std::vector<uint8_t> write_packet(uint32_t address, const uint8_t *data, size_t n,
                                         size_t room)
{
    std::vector<uint8_t> packet(room + 6, 0);
    packet[0] = kWrite;
    put_be32(&packet[1], address);
    if (data && n)
        std::memcpy(&packet[5], data, n < room ? n : room);
    return packet;
}

// ---- Receiving-card frames ----
constexpr size_t kCardMaxData = 1024;
constexpr size_t kCardDataOffset = 15;
constexpr size_t kCardFrameOverhead = 18;
constexpr uint8_t kCardEnable[5] = {0x45, 0x01, 0x00, 0x01, 0x00};
constexpr uint8_t kCardDisable[5] = {0x45, 0x01, 0x00, 0x00, 0x00};
constexpr uint8_t kCardPoll[5] = {0x43, 0x01, 0x00, 0x00, 0x00};
constexpr uint8_t kCardReplyHead[4] = {0x43, 0x08, 0x02, 0x00};

// Sum from 0x5555 over bytes 3 .. 14 + n (n data bytes).
inline uint16_t card_checksum(const uint8_t *frame, size_t n)
{
    return sum16(frame + 3, 12 + n, 0x5555);
}

// A write frame (n data bytes, n + 18 long) or a read request (18 bytes,
// asking for n bytes).
inline std::vector<uint8_t> card_frame(uint8_t port, bool write, uint32_t address,
                                       const uint8_t *data, uint16_t n)
{
    const size_t carried = write ? n : 0;
    std::vector<uint8_t> f(carried + kCardFrameOverhead, 0);
    f[0] = 0x45;
    f[1] = 0x04;
    f[3] = port;
    f[7] = write ? 1 : 0;
    put_le32(&f[9], address);
    put_le16(&f[13], n);
    if (carried)
        std::memcpy(&f[kCardDataOffset], data, carried);
    put_le16(&f[kCardDataOffset + carried], card_checksum(f.data(), carried));
    return f;
}

struct CardFrame {
    uint8_t port;
    bool write;
    uint32_t address;
    uint16_t length;
    std::vector<uint8_t> data; // a write's data
};

// A frame as the FPGA takes it from its frame buffer: the layout and the
// checksum must hold; nothing is read past n bytes.
inline std::optional<CardFrame> decode_card_frame(const uint8_t *f, size_t n)
{
    if (n < kCardFrameOverhead || f[0] != 0x45 || f[1] != 0x04 || f[7] > 1)
        return std::nullopt;
    CardFrame c{f[3], f[7] == 1, le32(&f[9]), le16(&f[13]), {}};
    const size_t carried = c.write ? c.length : 0;
    if (c.length > kCardMaxData || n < carried + kCardFrameOverhead)
        return std::nullopt;
    if (le16(&f[kCardDataOffset + carried]) != card_checksum(f, carried))
        return std::nullopt;
    c.data.assign(f + kCardDataOffset, f + kCardDataOffset + carried);
    return c;
}

// ---- Program files ----
// A program file starts with a 1024-byte header of "key=value" lines (NUL
// padded): "tags=YYYYMMDD-hhmmss" (the build time, which the FPGA reports as
// its 7-byte tag, two BCD digits a byte), "size=N" (the payload's length)
// and "checksum=0xNNNN" (the payload's 16-bit additive sum). The payload
// follows; zeros after it change neither the sum nor the program.
constexpr size_t kProgramHeaderSize = 1024;

// The value of `key` in the header, or nothing.
inline std::optional<std::string> header_value(const uint8_t *header, size_t n,
                                               const std::string &key)
{
    if (header == nullptr || n == 0)
        return std::nullopt;
    const size_t len = n < kProgramHeaderSize ? n : kProgramHeaderSize;
    const std::string text(reinterpret_cast<const char *>(header),
                           strnlen(reinterpret_cast<const char *>(header), len));
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = text.substr(at, end - at);
        if (line.size() > key.size() && line.compare(0, key.size(), key) == 0 &&
            line[key.size()] == '=')
            return line.substr(key.size() + 1);
        at = end + 1;
    }
    return std::nullopt;
}

inline std::optional<uint32_t> header_number(const uint8_t *header, size_t n, const std::string &key)
{
    const auto text = header_value(header, n, key);
    if (!text || text->empty() || text->size() > 10)
        return std::nullopt;
    char *end = nullptr;
    const unsigned long long v = std::strtoull(text->c_str(), &end, 0);
    if (*end != '\0' || v > 0xFFFFFFFFull)
        return std::nullopt;
    return uint32_t(v);
}

enum class TagsResult { ok, missing, empty, time_not_int, time2_not_int };

// Reads the "tags" entry into its 7-byte tag: the date (up to 8 digits) and
// the time (up to 6 digits), each right-aligned in BCD.
inline TagsResult parse_tags(const uint8_t *header, size_t n, uint8_t tag[kTagSize],
                             std::string *text = nullptr)
{
    const auto value = header_value(header, n, "tags");
    if (!value)
        return TagsResult::missing;
    if (text)
        *text = *value;
    if (value->empty())
        return TagsResult::empty;
    const size_t dash = value->find('-');
    const std::string time = value->substr(0, dash);
    const std::string time2 = dash == std::string::npos ? "" : value->substr(dash + 1);
    auto digits = [](const std::string &s, size_t most) {
        if (s.empty() || s.size() > most)
            return false;
        for (char c : s)
            if (c < '0' || c > '9')
                return false;
        return true;
    };
    if (!digits(time, 8))
        return TagsResult::time_not_int;
    if (!digits(time2, 6))
        return TagsResult::time2_not_int;
    const std::string all = std::string(8 - time.size(), '0') + time +
                            std::string(6 - time2.size(), '0') + time2;
    for (size_t i = 0; i < kTagSize; ++i)
        tag[i] = uint8_t((all[2 * i] - '0') << 4 | (all[2 * i + 1] - '0'));
    return TagsResult::ok;
}

// The program a valid file holds (header and payload), or nothing: the
// header's tags, size and checksum must hold.
inline std::optional<std::vector<uint8_t>> valid_program(const uint8_t *file, size_t n)
{
    if (n < kProgramHeaderSize)
        return std::nullopt;
    uint8_t tag[kTagSize];
    if (parse_tags(file, n, tag) != TagsResult::ok)
        return std::nullopt;
    const auto size = header_number(file, n, "size");
    const auto checksum = header_number(file, n, "checksum");
    if (!size || !checksum || *size > n - kProgramHeaderSize)
        return std::nullopt;
    if (sum16(file + kProgramHeaderSize, *size) != *checksum)
        return std::nullopt;
    return std::vector<uint8_t>(file, file + kProgramHeaderSize + *size);
}

// A program file for tags and payload, as the FPGA tools write them.
inline std::string make_program(const std::string &tags, const std::string &payload)
{
    std::string header = "vexa-fpga-program\ntags=" + tags + "\nsize=" +
                         std::to_string(payload.size()) + "\nchecksum=0x";
    static const char hex[] = "0123456789abcdef";
    const uint16_t sum = sum16(reinterpret_cast<const uint8_t *>(payload.data()), payload.size());
    for (int shift = 12; shift >= 0; shift -= 4)
        header += hex[(sum >> shift) & 0xF];
    header += "\n";
    header.resize(kProgramHeaderSize, '\0');
    return header + payload;
}

// ---- The qr3plus/qr5plus SPI update ----
// Information packet: 45 10 00, the payload length in 256-byte units (u32
// LE) and its remainder (u16 LE), the payload's sum (u16 LE), the program's
// tag (7 bytes), 00.
constexpr size_t kUpdateInfoSize = 19;
// Payload piece: 45 11 00, the piece's index (u16 LE) and length (u16 LE),
// 512 data bytes (0xFF after a short piece), the sum of its data (u16 LE), 00.
constexpr size_t kUpdatePieceData = 512;
constexpr size_t kUpdatePieceSize = kUpdatePieceData + 10;
// Commands: 45 10 10 01 00 writes the received program to the flash; 45 10
// 20 01 00 holds the FPGA in reset, 45 10 20 00 00 lets it reconfigure.
constexpr uint8_t kUpdateFlashCommand[5] = {0x45, 0x10, 0x10, 0x01, 0x00};
constexpr uint8_t kUpdateResetHold[5] = {0x45, 0x10, 0x20, 0x01, 0x00};
constexpr uint8_t kUpdateResetRelease[5] = {0x45, 0x10, 0x20, 0x00, 0x00};

inline std::vector<uint8_t> update_info_packet(uint32_t size, uint16_t checksum,
                                               const uint8_t tag[kTagSize])
{
    std::vector<uint8_t> p(kUpdateInfoSize, 0);
    p[0] = kWindowWrite;
    p[1] = uint8_t(kUpdateInfo >> 8);
    p[2] = uint8_t(kUpdateInfo);
    put_le32(&p[3], size / 256);
    put_le16(&p[7], uint16_t(size % 256));
    put_le16(&p[9], checksum);
    std::memcpy(&p[11], tag, kTagSize);
    return p;
}

inline std::vector<uint8_t> update_piece_packet(uint16_t index, const uint8_t *data, uint16_t n)
{
    std::vector<uint8_t> p(kUpdatePieceSize, 0xFF);
    p[0] = kWindowWrite;
    p[1] = uint8_t(kUpdatePiece >> 8);
    p[2] = uint8_t(kUpdatePiece);
    put_le16(&p[3], index);
    put_le16(&p[5], n);
    std::memcpy(&p[7], data, n);
    put_le16(&p[7 + kUpdatePieceData], sum16(data, n));
    p[kUpdatePieceSize - 1] = 0;
    return p;
}

} // namespace vexa::fpga_wire

#endif
