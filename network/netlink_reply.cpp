// Building netlink requests and judging the MCU's replies.
#include "network/netlink_reply.h"

namespace vexa::net {

uint16_t link_register(int port)
{
    static const uint16_t kFirstFour[4] = {0x026A, 0x026C, 0x026E, 0x0270};
    if (port < 4)
        return kFirstFour[port];
    return static_cast<uint16_t>(0x0173 + 2 * (port - 4));
}

LinkReply check_link_reply(const uint8_t *reply, size_t len, uint16_t expected_sequence)
{
    LinkReply r;
    if (!reply || len != kLinkReplySize || reply[0] != 0xBB || reply[1] != 0x55) {
        r.check = ReplyCheck::header;
        return r;
    }
    r.tag = static_cast<uint32_t>(reply[22]) | (static_cast<uint32_t>(reply[23]) << 8) |
            (static_cast<uint32_t>(reply[24]) << 16) | (static_cast<uint32_t>(reply[25]) << 24);
    r.sequence = static_cast<uint16_t>(reply[6] | (reply[7] << 8));
    r.port = reply[30];
    r.status = reply[32];
    if (r.tag != kLinkReplyTag)
        r.check = ReplyCheck::tag;
    else if (r.sequence != expected_sequence)
        r.check = ReplyCheck::sequence;
    else if (r.status != 0 && r.status != 1)
        r.check = ReplyCheck::status;
    else
        r.check = ReplyCheck::ok;
    return r;
}

} // namespace vexa::net
