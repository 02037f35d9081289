// The board's USB bulk device as usbfs sees it: its descriptors, the claims
// and kernel drivers of its interfaces, and an echo behind each pair of bulk
// endpoints. No umockdev here: usbdevfs.cpp carries the ioctls to it.
#ifndef VEXA_SIM_USB_BUS_BULK_DEVICE_H
#define VEXA_SIM_USB_BUS_BULK_DEVICE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sim/usb/usb_settings.h"

namespace vexa::sim {

// The descriptors of the bulk device as sysfs "descriptors" holds them: the
// device descriptor, then its configuration whole.
std::vector<uint8_t> bulk_device_descriptors(const UsbSettings &settings);

class BulkDevice {
public:
    // What the echo of one endpoint pair holds at most: an OUT transfer
    // beyond it waits for the IN side to be read, as the device NAKs.
    static constexpr size_t kEchoBytes = 16384;

    explicit BulkDevice(const UsbSettings &settings);

    // usbfs operations: 0 or a negative errno. A client is one open of the
    // device node.
    int claim(const void *client, unsigned interface);
    int release(const void *client, unsigned interface);
    // The driver bound to interface ("usbfs" when an open of the node
    // claimed it), or -ENODATA.
    int driver(unsigned interface, std::string *name) const;
    // Unbinds whatever driver holds interface: a kernel driver, or another
    // open's claim.
    int disconnect(unsigned interface);
    // The client closed the node: its claims go.
    void client_gone(const void *client);

    // A client's transfer of URB type urb_type (USBDEVFS_URB_TYPE_*) on an
    // endpoint address: -ENOENT when the device has no such endpoint,
    // -EINVAL when the endpoint is of another type, else the claim of the
    // endpoint's interface, made now when the client has not made it (as
    // usbfs does for a program that did not claim first): -EBUSY when
    // another open of the node or a kernel driver holds it.
    int check_transfer(const void *client, unsigned endpoint, int urb_type);

    // The echo: an OUT endpoint takes what fits of len bytes (the count
    // taken); its IN twin gives at most len bytes of them.
    size_t take(unsigned endpoint, const uint8_t *data, size_t len);
    size_t give(unsigned endpoint, uint8_t *buf, size_t len);
    bool has_data(unsigned endpoint) const;
    bool has_room(unsigned endpoint) const;
    void count_transfer();

    // Claims, drivers, echo contents and transfers (the bus adds where the
    // device is).
    UsbDeviceState state() const;

private:
    int claim_locked(const void *client, unsigned interface);

    mutable std::mutex mu_;
    UsbSettings settings_;
    std::map<unsigned, const void *> claims_;
    std::map<unsigned, std::string> drivers_;
    std::map<unsigned, std::string> echo_; // by endpoint number
    int transfers_ = 0;
};

} // namespace vexa::sim

#endif
