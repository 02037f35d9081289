// The board's USB: the four port enable files and the OTG role file, and a
// bus that real libusb-1.0 enumerates and talks to.
//
// libusb reaches the bus through umockdev (Debian's umockdev and
// libumockdev0): its preload library, when it is in the process, redirects
// /sys and /dev/bus/usb to a testbed that the board lays out when a process
// attaches it, and hands the usbdevfs ioctls on the bulk device's node to
// the board's model. A process without the preload library sees no board
// USB (and libusb sees the host's own). Tests and vexactl get it with
// preload_usb(), which re-executes the program with the library preloaded.
//
// The bus, from ROOT/.board/usb-device.conf (key=value, read when a process
// attaches the board; see the seeded file):
//   bus 1: root hub; the bulk device, by default 1209:0001 at address 2:
//          interface 0 of the chosen class (default 0xff) with an interrupt
//          IN endpoint 0x83, a bulk IN 0x81 and a bulk OUT 0x01; interface 1,
//          CDC data (0x0a), with bulk IN 0x82 and bulk OUT 0x02
//   bus 3: root hub; a keyboard (HID)          bus 5: root hub; a USB stick
// Each bulk OUT endpoint's data comes back, in order, on the IN endpoint of
// the same number (an echo); an IN transfer waits until there is data.
//
// The bus lives while the process holds the board.
#ifndef VEXA_SIM_USB_USB_H
#define VEXA_SIM_USB_USB_H

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "sim/board.h"

namespace vexa::sim {

// True when umockdev's preload library is in this process.
bool usb_preloaded();

// Makes libusb in this process reach the board's USB: when the preload
// library is not loaded, re-executes the program (the same executable and
// arguments) with it added to LD_PRELOAD, and does not return. Returns true
// when it is loaded; false, after a line on standard error, when it cannot
// be (umockdev is not installed). Call it before the process starts threads
// or attaches a board.
bool preload_usb();

// The board's bulk device as its model sees it.
struct UsbDeviceState {
    std::map<int, std::string> claimed;  // interface -> claimer ("usbfs" for libusb)
    std::map<int, std::string> drivers;  // interface -> kernel driver bound to it
    std::map<int, std::string> received; // OUT endpoint -> bytes not yet read back
    int transfers = 0;                   // bulk URBs completed so far
};

// The state of the board's bulk device in this process; nothing when the
// board has no bus here (no preload library) or no bulk device.
std::optional<UsbDeviceState> usb_device_state(const Board &board);

// The umockdev testbed of the board's bus in this process ("" when none):
// other programs reach the same bus with UMOCKDEV_DIR set to it.
std::string usb_testbed(const Board &board);

} // namespace vexa::sim

#endif
