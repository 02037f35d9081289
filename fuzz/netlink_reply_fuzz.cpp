// Netlink link replies from the MCU: arbitrary bytes are judged without
// reading past them, and only a well-formed reply is accepted.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "network/netlink_reply.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const uint16_t expected = static_cast<uint16_t>(data[0] | (data[1] << 8));
    // A copy of exactly the reply's size, so a sanitizer sees any overread.
    const std::vector<uint8_t> reply(data + 2, data + size);
    const auto r = vexa::net::check_link_reply(reply.data(), reply.size(), expected);
    if (r.check == vexa::net::ReplyCheck::ok) {
        if (reply.size() != vexa::net::kLinkReplySize || reply[0] != 0xBB || reply[1] != 0x55 ||
            r.tag != vexa::net::kLinkReplyTag || r.sequence != expected || r.status > 1 ||
            r.port != reply[30])
            std::abort();
    }
    return 0;
}
