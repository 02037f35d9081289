// The board's USB bulk device as usbfs sees it: its descriptors, the claims
// and kernel drivers of its interfaces, and an echo behind each pair of bulk
// endpoints. No umockdev here: usbdevfs.cpp carries the ioctls to it.
#ifndef VEXA_SIM_USB_BULK_DEVICE_H
#define VEXA_SIM_USB_BULK_DEVICE_H

#include <cstdint>
#include <map>
#include <mutex>
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
    int address = 2;            // address=2..127
    int configurations = 1;     // configurations=0: the device offers none
    std::string driver;         // driver=NAME: a kernel driver holds interface 0
    bool detach_fails = false;  // detach=fail: that driver cannot be detached
    bool claim_fails = false;   // claim=fail: claiming always fails (busy)
    bool node = true;           // node=missing: the device node cannot be opened
};

// Unknown keys and bad values are skipped; each is described in *problems
// when given.
UsbSettings parse_usb_settings(const std::string &text, std::vector<std::string> *problems = nullptr);

// The descriptors of a device as sysfs "descriptors" holds them: the device
// descriptor, then each configuration whole.
std::vector<uint8_t> bulk_device_descriptors(const UsbSettings &settings);

class BulkDevice {
public:
    explicit BulkDevice(const UsbSettings &settings);

    // usbfs operations: 0 or a negative errno. A client is one open of the
    // device node.
    int claim(const void *client, unsigned interface);
    int release(const void *client, unsigned interface);
    // The driver bound to interface ("usbfs" when claimed), or -ENODATA.
    int driver(unsigned interface, std::string *name) const;
    // Detaches the kernel driver from interface.
    int disconnect(unsigned interface);
    // The client closed the node: its claims go.
    void client_gone(const void *client);

    // The transfer type (1 interrupt, 2 bulk) of an endpoint address, or
    // -ENOENT when the device has no such endpoint.
    int endpoint_type(unsigned address) const;
    // Data sent to an OUT endpoint; data read from an IN endpoint (at most
    // len bytes of what its OUT twin received; 0 when there is none).
    void receive(unsigned endpoint, const uint8_t *data, size_t len);
    size_t send(unsigned endpoint, uint8_t *buf, size_t len);
    bool has_data(unsigned endpoint) const;
    void count_transfer();

    UsbDeviceState state() const;

private:
    mutable std::mutex mu_;
    UsbSettings settings_;
    std::map<unsigned, const void *> claims_;
    std::map<unsigned, std::string> drivers_;
    std::map<unsigned, std::string> echo_; // by endpoint number
    int transfers_ = 0;
};

} // namespace vexa::sim

#endif
