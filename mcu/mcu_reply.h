// Judging what the MCU sends back: bootloader product ids and the version
// answer. Pure functions over byte buffers; they read nothing beyond the
// lengths they are given.
#ifndef VEXA_MCU_MCU_REPLY_H
#define VEXA_MCU_MCU_REPLY_H

#include <cstddef>
#include <cstdint>

namespace vexa::mcu {

// The longest GD32 product-id field the flasher takes.
constexpr size_t kGdPidMax = 16;
// Where the version text stands in the MCU's version answer.
constexpr size_t kVersionOffset = 46;
constexpr size_t kVersionLength = 15;

// The bytes after the GD32 product-id command's length byte: `length` id
// bytes, then an acknowledge. *end is that last byte. The id is the first
// four bytes, little-endian, when *end is the acknowledge; else 0.
uint32_t gd_pid_from(const uint8_t *reply, size_t size, size_t length, uint8_t *end);
// The ten bytes read after GET_ID's acknowledge: 0x450 for an STM32H750
// (count 1, id 0x04 0x50), else 0.
uint32_t st_pid_from(const uint8_t *reply, size_t size);
// Copies the version text out of an answer of `size` bytes into out (15
// bytes, no terminator); bytes the answer lacks come out as zeros.
void version_from_answer(const uint8_t *answer, size_t size, char *out);

} // namespace vexa::mcu

#endif
