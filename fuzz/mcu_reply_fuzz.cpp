// What the MCU sends back, as the flasher and the version check judge it:
// arbitrary bytes never make them read past what they were given.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "mcu/mcu_reply.h"
#include "vexasdk/mcu.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    // Exact-size copies, so a sanitizer sees any overread.
    const std::vector<uint8_t> bytes(data + 1, data + size);
    uint8_t end = 0;
    const uint32_t pid = vexa::mcu::gd_pid_from(bytes.data(), bytes.size(), data[0], &end);
    if (pid != 0 && end != MCU_ISP_ACK)
        std::abort();
    const uint32_t st = vexa::mcu::st_pid_from(bytes.data(), bytes.size());
    if (st != 0 && st != 0x450)
        std::abort();
    char version[vexa::mcu::kVersionLength];
    vexa::mcu::version_from_answer(bytes.data(), bytes.size(), version);
    return 0;
}
