// The board's USB bus in a umockdev testbed: sysfs devices with their
// descriptors, device nodes, and the bulk device's usbdevfs behind its
// node. umockdev checks what it is given through its own preload library,
// so the process that holds the testbed runs with it (vexaboard-usb does).
#ifndef VEXA_SIM_USB_BUS_USB_BUS_H
#define VEXA_SIM_USB_BUS_USB_BUS_H

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/usb/bus/usbdevfs.h"
#include "sim/usb/usb_settings.h"

namespace vexa::sim {

class UsbBus {
public:
    // Lays the bus out in a new testbed, the bulk device plugged.
    explicit UsbBus(const UsbSettings &settings);
    ~UsbBus(); // removes the testbed
    UsbBus(const UsbBus &) = delete;
    UsbBus &operator=(const UsbBus &) = delete;

    // The testbed's root: UMOCKDEV_DIR for the processes that use the bus.
    std::string root() const;

    // Takes the bulk device off the bus or puts it back (at the next free
    // address), with the uevent that libusb's hotplug follows. False when
    // the bus has no bulk device.
    bool set_plugged(bool plugged);
    // The bulk device; nothing when the bus has none.
    std::optional<UsbDeviceState> state() const;

private:
    struct Plugged {
        std::shared_ptr<BulkDevice> device;
        std::unique_ptr<UsbdevfsNode> node; // null for node=missing
        std::string syspath;
        int address = 0;
    };

    std::string add(const std::string &name, const std::string &parent, int bus, int devnum, const char *speed,
                    const std::vector<uint8_t> &descriptors, bool with_node);
    void plug();
    void unplug();
    int next_address() const;
    // Drops the nodes of unplugged devices once nothing has them open.
    void forget_closed();

    UsbSettings settings_;
    GRef<UMockdevTestbed> testbed_;
    std::string root_;
    std::map<std::string, std::string> syspaths_; // by sysfs name
    std::vector<int> taken_;                      // addresses of the other devices on the bulk device's bus
    std::optional<Plugged> plugged_;
    int last_address_ = 0;
    std::vector<std::unique_ptr<UsbdevfsNode>> gone_; // unplugged, still open somewhere
};

} // namespace vexa::sim

#endif
