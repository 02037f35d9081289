// What the board's host, its USB helper (vexaboard-usb) and the processes
// that ask about the bus share: the settings of ROOT/.board/usb-device.conf
// and the text that describes the bulk device's state.
#ifndef VEXA_SIM_USB_USB_SETTINGS_H
#define VEXA_SIM_USB_USB_SETTINGS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/usb/usb.h"

namespace vexa::sim {

// ROOT/.board/usb-device.conf, key=value a line ('#' starts a comment).
struct UsbSettings {
    bool present = true;        // device=none: no bulk device on the bus
    bool other_devices = true;  // others=none: no root hubs, keyboard or stick either
    uint16_t vendor = 0x1209;   // vendor=0x1209 (pid.codes)
    uint16_t product = 0x0001;  // product=0x0001 (its test product id)
    uint8_t interface_class = 0xff; // class=0xff: interface 0's class
    int bus = 1;                // bus=1..127
    int address = 2;            // address=2..127: its address at power-on
    int speed = 480;            // speed=12|480: full or high speed, in Mb/s
    int configurations = 1;     // configurations=0: the device offers none
    std::string driver;         // driver=NAME: a kernel driver holds interface 0
    bool detach_fails = false;  // detach=fail: that driver cannot be detached
    bool claim_fails = false;   // claim=fail: claiming always fails (busy)
    bool node = true;           // node=missing: the device node cannot be opened
};

// Unknown keys and bad values are skipped; each is described in *problems
// when given.
UsbSettings parse_usb_settings(const std::string &text, std::vector<std::string> *problems = nullptr);

// The state as one text, a fact a line ("address 2", "claimed 0 usbfs",
// "received 1 68656c6c6f"), and back; nothing for a text that is not one.
std::string usb_state_text(const UsbDeviceState &state);
std::optional<UsbDeviceState> parse_usb_state(const std::string &text);

// The "usb" service of the board's host, which hands each request to the
// helper: "testbed" (the testbed's root, "" when there is none), "state" (the
// state text, "none" without a bulk device), "plug" and "unplug" ("ok", or
// "none").
constexpr const char kUsbService[] = "usb";

} // namespace vexa::sim

#endif
