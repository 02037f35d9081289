#include "mcu/mcu_reply.h"

#include <cstring>

#include "vexasdk/mcu.h"

namespace vexa::mcu {

uint32_t gd_pid_from(const uint8_t *reply, size_t size, size_t length, uint8_t *end)
{
    if (length > kGdPidMax)
        length = kGdPidMax;
    *end = length < size ? reply[length] : 0;
    if (*end != MCU_ISP_ACK)
        return 0;
    uint32_t pid = 0;
    for (size_t i = 0; i < 4 && i < size; ++i)
        pid |= static_cast<uint32_t>(reply[i]) << (8 * i);
    return pid;
}

uint32_t st_pid_from(const uint8_t *reply, size_t size)
{
    return size >= 3 && reply[0] == 1 && reply[1] == 0x04 && reply[2] == 0x50 ? 0x450u : 0u;
}

void version_from_answer(const uint8_t *answer, size_t size, char *out)
{
    std::memset(out, 0, kVersionLength);
    if (size > kVersionOffset)
        std::memcpy(out, answer + kVersionOffset,
                    size - kVersionOffset < kVersionLength ? size - kVersionOffset : kVersionLength);
}

} // namespace vexa::mcu
