// Internal interfaces shared by the MCU link's files.
#ifndef VEXA_MCU_MCU_INTERNAL_H
#define VEXA_MCU_MCU_INTERNAL_H

#include <string>

namespace vexa::mcu {

// The raw serial layer's module-wide descriptor (-1 before the first open).
int serial_fd();

// Runs "echo VALUE > /sys/class/vexagpios/NAME/value".
void set_sysfs_gpio(const char *name, int value);

} // namespace vexa::mcu

#endif
