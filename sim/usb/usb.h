// The board's USB: the four port enable files and the OTG role file, and one
// USB bus that real libusb-1.0 enumerates and talks to, the same bus for
// every process that attaches the board.
//
// The bus is a umockdev testbed (Debian's umockdev and libumockdev0) held by
// vexaboard-usb, a helper that the board's host starts when the bus is first
// needed and that leaves with it: its sysfs devices with their descriptors,
// the device nodes, and the bulk device's usbdevfs behind its node. Only the
// helper loads umockdev; a process that talks to the bus through libusb
// needs umockdev's preload library (libumockdev-preload.so.0, which loads
// nothing but the C library): started with it, the process's libusb reaches
// the board's bus, and without it libusb sees the machine's own USB. When
// libusb starts (libusb_init), the board points the preload library at the
// bus of the attached board (attaching the default board when none is), so a
// program's first call may be bi_usb_open. Tests and vexactl get the preload
// library with preload_usb(), which re-executes the program with it.
//
// The bus, from ROOT/.board/usb-device.conf (key=value, read when the helper
// starts; see the seeded file):
//   bus 1: root hub; the bulk device, by default 1209:0001 at address 2, high
//          speed: interface 0 of the chosen class (default 0xff) with an
//          interrupt IN endpoint 0x83, a bulk IN 0x81 and a bulk OUT 0x01;
//          interface 1, CDC data (0x0a), with bulk IN 0x82 and bulk OUT 0x02
//   bus 3: root hub; a keyboard (HID, low speed)
//   bus 5: root hub; a USB stick
// Each bulk OUT endpoint's data comes back, in order, on the IN endpoint of
// the same number (an echo, which holds at most 16 KiB: beyond that an OUT
// transfer waits for the IN side to be read); an IN transfer waits until
// there is data. Interfaces are claimed as usbfs claims them: a transfer on
// an interface that another open of the node has claimed fails with EBUSY.
// The knob usb.device=unplugged pulls its cable: the device leaves the bus
// (libusb's hotplug callbacks see it go) and every call on a node opened
// before fails with ENODEV; plugged again, it comes back at the next free
// address, as a re-enumerated device does.
#ifndef VEXA_SIM_USB_USB_H
#define VEXA_SIM_USB_USB_H

#include <map>
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
// be (umockdev is not installed). Call it before the process starts threads.
bool preload_usb();

// The board's bulk device as its model sees it.
struct UsbDeviceState {
    bool plugged = false;
    int bus = 0;
    int address = 0;                     // on its bus; each plug takes the next free one
    std::string speed;                   // in Mb/s, as sysfs shows it: "12", "480"
    std::map<int, std::string> claimed;  // interface -> claimer ("usbfs": an open of the node)
    std::map<int, std::string> drivers;  // interface -> kernel driver bound to it
    std::map<int, std::string> received; // OUT endpoint -> bytes not yet read back
    int transfers = 0;                   // bulk and interrupt URBs completed since the last plug
};

// The state of the board's bulk device, from any process that attaches the
// board; nothing when the board has no USB bus (umockdev is not installed,
// or usb-device.conf says device=none).
std::optional<UsbDeviceState> usb_device_state(const Board &board);

// The umockdev testbed of the board's bus ("" when there is none): a program
// started with LD_PRELOAD=libumockdev-preload.so.0 and UMOCKDEV_DIR set to it
// reaches the bus without attaching the board.
std::string usb_testbed(const Board &board);

} // namespace vexa::sim

#endif
