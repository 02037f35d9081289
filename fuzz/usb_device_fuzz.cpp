// The board's USB texts on arbitrary bytes: usb-device.conf, which a person
// edits, and the device's state as the board's host answers it. Whatever
// the state parser takes comes back the same through the state text.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "sim/usb/usb_settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::vector<std::string> problems;
    const vexa::sim::UsbSettings settings = vexa::sim::parse_usb_settings(text, &problems);
    if (settings.speed != 12 && settings.speed != 480)
        std::abort();
    if (const auto state = vexa::sim::parse_usb_state(text)) {
        const auto again = vexa::sim::parse_usb_state(vexa::sim::usb_state_text(*state));
        if (!again || again->received != state->received || again->claimed != state->claimed ||
            again->address != state->address || again->transfers != state->transfers)
            std::abort();
    }
    return 0;
}
