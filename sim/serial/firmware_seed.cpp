// The default board's MCU firmware image: 4 KiB that names its version, so a
// flashed MCU reports it.
#include <string>

#include "sim/board.h"

VEXA_SIM_SEEDER(mcu_firmware)
{
    std::string image(4096, '\0');
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<char>((i * 131u + 7u) & 0xFF);
    const std::string marker = std::string("MCUVER=V1.0.2.0") + '\0';
    image.replace(0x200, marker.size(), marker);
    board.write_file("/vendor/etc/mcu/mcu_fw.bin", image);
}
