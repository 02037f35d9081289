// Owners of what libusb hands out, released when they go out of scope.
#ifndef VEXA_SYSTEM_LIBUSB_OWNERS_H
#define VEXA_SYSTEM_LIBUSB_OWNERS_H

#include <libusb.h>

#include <memory>

namespace vexa {

struct ConfigDescriptorFree {
    void operator()(libusb_config_descriptor *config) const { libusb_free_config_descriptor(config); }
};
using ConfigDescriptor = std::unique_ptr<libusb_config_descriptor, ConfigDescriptorFree>;

// A device list, freed with its references to the devices.
struct DeviceListFree {
    void operator()(libusb_device **list) const { libusb_free_device_list(list, 1); }
};
using DeviceList = std::unique_ptr<libusb_device *, DeviceListFree>;

// One reference to libusb's default context: libusb_exit when it goes.
class DefaultContext {
public:
    DefaultContext() : rc_(libusb_init(nullptr)) {}
    ~DefaultContext()
    {
        if (rc_ == 0)
            libusb_exit(nullptr);
    }
    DefaultContext(const DefaultContext &) = delete;
    DefaultContext &operator=(const DefaultContext &) = delete;
    // libusb_init's result: 0 when the context is up.
    int status() const { return rc_; }

private:
    int rc_;
};

} // namespace vexa

#endif
