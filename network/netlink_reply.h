// The MCU's netlink request and reply frames.
#ifndef VEXA_NETWORK_NETLINK_REPLY_H
#define VEXA_NETWORK_NETLINK_REPLY_H

#include <cstddef>
#include <cstdint>

namespace vexa::net {

constexpr size_t kLinkRequestSize = 33;
constexpr size_t kLinkReplySize = 37;
constexpr uint32_t kLinkReplyTag = 0x01020000u;
constexpr int kLinkPorts = 40;

// The MCU register that reports a port's link.
uint16_t link_register(int port);

enum class ReplyCheck {
    ok,
    header,   // not 0xBB 0x55, or not 37 bytes
    tag,      // bytes 22-25 are not 0x01020000
    sequence, // bytes 6-7 differ from the request's
    status,   // byte 32 is neither 0 nor 1
};

struct LinkReply {
    ReplyCheck check = ReplyCheck::header;
    uint32_t tag = 0;
    uint16_t sequence = 0;
    int port = 0;   // byte 30
    int status = 0; // byte 32
};

// Judges a reply of len bytes to a request carrying expected_sequence. Reads
// nothing beyond len.
LinkReply check_link_reply(const uint8_t *reply, size_t len, uint16_t expected_sequence);

} // namespace vexa::net

#endif
