// The netlink link monitor: asks the MCU, port by port, whether each output
// network port has a link.
#include <cstring>

#include "mcu/serial_wait.h"
#include "network/netlink_reply.h"
#include "platform/log.h"
#include "platform/os.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/mcu.h"
#include "vexasdk/network.h"

namespace {

constexpr const char *kTag = "vexa_system_fw_update";
constexpr int kMaxFailures = 10;
constexpr int kReplyWaitMs = 50;
constexpr size_t kReadMax = 64;

} // namespace

extern "C" {

VEXA_API int32_t generate_net_request_exact(int32_t port, uint8_t *request)
{
    if (!request || port < 0 || port > 39)
        return -1;
    std::memset(request, 0, vexa::net::kLinkRequestSize);
    request[0] = 0x55;
    request[1] = 0xBB;
    request[5] = 0x01;
    const uint16_t sequence = static_cast<uint16_t>(252 + port);
    request[6] = static_cast<uint8_t>(sequence);
    request[7] = static_cast<uint8_t>(sequence >> 8);
    request[8] = 0x17;
    request[9] = 0x00;
    request[10] = 0x41;
    request[11] = 0x01;
    request[24] = 0x02;
    request[25] = 0x01;
    request[28] = 0x01;
    request[30] = static_cast<uint8_t>(port);
    const uint16_t reg = vexa::net::link_register(port);
    request[31] = static_cast<uint8_t>(reg);
    request[32] = static_cast<uint8_t>(reg >> 8);
    return 0;
}

VEXA_API int32_t sendNetlinkRequest(int32_t fd, uint64_t *link_status, const uint8_t *request)
{
    VEXA_LOGD(kTag, "%s: is called", __func__);
    if (!link_status || !request) {
        VEXA_LOGE(kTag, "%s: link_status is NULL", __func__);
        return -1;
    }
    VEXA_LOGD(kTag, "%s: mcu_fd = %d, port_index = %d", __func__, fd, request[30]);
    const uint16_t expected = static_cast<uint16_t>(request[6] | (request[7] << 8));
    for (int failures = 0; failures < kMaxFailures; ++failures) {
        const ssize_t sent = vexa::os::write(fd, request, vexa::net::kLinkRequestSize);
        if (sent < 0) {
            VEXA_LOGE(kTag, "%s: write request error, ret = %d", __func__, static_cast<int>(sent));
            VEXA_LOGE(kTag, "%s: %d sendAndValidateHeader failed!", __func__, failures);
            continue;
        }
        uint8_t reply[kReadMax] = {};
        long got = vexa::mcu::read_for(fd, reply, vexa::net::kLinkReplySize, kReadMax, kReplyWaitMs);
        if (got <= 0) {
            VEXA_LOGE(kTag, "%s: read returned 0 bytes", __func__);
            VEXA_LOGE(kTag, "%s: %d sendAndValidateHeader failed!", __func__, failures);
            continue;
        }
        VEXA_LOGD(kTag, "%s: mcu_fd = %d, data received(%u):", __func__, fd,
                  static_cast<unsigned>(got));
        for (long i = 0; i < got; ++i)
            VEXA_LOGD(kTag, "%s: read response[%d] = 0x%x", __func__, static_cast<int>(i), reply[i]);
        const vexa::net::LinkReply r =
            vexa::net::check_link_reply(reply, static_cast<size_t>(got), expected);
        switch (r.check) {
        case vexa::net::ReplyCheck::header:
            VEXA_LOGE(kTag, "%s: frame header [0x%02x 0x%02x] not 0xBB 0x55 or length != %d",
                      __func__, reply[0], reply[1], static_cast<int>(vexa::net::kLinkReplySize));
            clearSerialBuffer(fd);
            VEXA_LOGE(kTag, "%s: %d sendAndValidateHeader check failed!", __func__, failures);
            continue;
        case vexa::net::ReplyCheck::tag:
            VEXA_LOGE(kTag, "%s: invalid tag = 0x%08x, expected 0x01020000", __func__, r.tag);
            VEXA_LOGE(kTag, "%s: %d validateResponseData failed!", __func__, failures);
            continue;
        case vexa::net::ReplyCheck::sequence:
            VEXA_LOGE(kTag, "%s: sequence number mismatch. Expected: 0x%02x%02x, Got: 0x%02x%02x",
                      __func__, request[7], request[6], reply[7], reply[6]);
            if (r.sequence > expected)
                VEXA_LOGE(kTag, "%s: received sequence is ahead, may need to resend missing packet",
                          __func__);
            VEXA_LOGE(kTag, "%s: %d validateResponseData failed!", __func__, failures);
            continue;
        case vexa::net::ReplyCheck::status:
            VEXA_LOGE(kTag, "%s: Invalid status value = 0x%x at index 32 for port %d", __func__,
                      r.status, r.port);
            VEXA_LOGE(kTag, "%s: %d processLinkStatus failed!", __func__, failures);
            continue;
        case vexa::net::ReplyCheck::ok:
            break;
        }
        if (r.status == 0) {
            bi_clear_bit(link_status, static_cast<uint32_t>(r.port));
            VEXA_LOGD(kTag, "%s: clear bit %d, link_status = 0x%llx", __func__, r.port,
                      static_cast<unsigned long long>(*link_status));
        } else {
            bi_set_bit(link_status, static_cast<uint32_t>(r.port));
            VEXA_LOGD(kTag, "%s: set bit %d, link_status = 0x%llx", __func__, r.port,
                      static_cast<unsigned long long>(*link_status));
        }
        return 0;
    }
    VEXA_LOGE(kTag, "%s: maximum retries (%d) exceeded", __func__, kMaxFailures);
    return -1;
}

VEXA_API int32_t getNetlinkStatusLoop(int32_t fd, uint64_t *link_status)
{
    if (!link_status) {
        VEXA_LOGE(kTag, "%s: link_status is NULL", __func__);
        return -1;
    }
    uint8_t request[vexa::net::kLinkRequestSize];
    for (int port = 0; port < vexa::net::kLinkPorts; ++port) {
        generate_net_request_exact(port, request);
        if (sendNetlinkRequest(fd, link_status, request) != 0) {
            VEXA_LOGE(kTag, "%s: sendNetlinkRequest error for port %d", __func__, port);
            return -1;
        }
    }
    return 0;
}

} // extern "C"
