// Waiting for bytes from the MCU without sleeping past their arrival.
#ifndef VEXA_MCU_SERIAL_WAIT_H
#define VEXA_MCU_SERIAL_WAIT_H

#include <cstddef>
#include <cstdint>

namespace vexa::mcu {

// Waits up to timeout_ms for fd to become readable: 1 readable, 0 time-out,
// -1 error (errno kept).
int wait_readable(int fd, int timeout_ms);

// Reads into buf (capacity cap) until at least want bytes have arrived or
// timeout_ms has passed on the board's clock, then takes whatever else is
// already waiting (up to cap). Returns the bytes read, or -1 when the first
// read failed.
long read_for(int fd, uint8_t *buf, size_t want, size_t cap, int timeout_ms);

} // namespace vexa::mcu

#endif
