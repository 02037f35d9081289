// The devices a client may talk to over the USB channel: those on the
// board's communication buses, root hubs and unsupported classes left out.
#include <libusb.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "platform/log.h"
#include "system/libusb_owners.h"
#include "vexasdk/system.h"

extern "C" {
VEXA_API int32_t Vexa_usb_devices_bus[2] = {1, 5};
// Audio, HID, printer, mass storage, hub, CDC data, smart card, video,
// personal healthcare, wireless controller.
VEXA_API int32_t Nonsupport_bInterfaceClass[10] = {1, 3, 7, 8, 9, 10, 11, 14, 15, 224};
}

namespace {

const char kTag[] = "vexa_system_bi_ops_usb_port";

template <size_t N> bool listed(const int32_t (&table)[N], int value)
{
    return std::find(std::begin(table), std::end(table), value) != std::end(table);
}

// Judges one device: 0 and *info filled when it is accepted, -1 not on a
// communication bus, -2 a root hub, -3 no interface of a supported class.
int bi_usb_dumpdevice(libusb_device *dev, vexa_usb_device_info_t *info)
{
    const unsigned bus = libusb_get_bus_number(dev);
    const unsigned address = libusb_get_device_address(dev);
    VEXA_LOGI(kTag, "%s: /dev/bus/usb/%03u/%03u\n", __func__, bus, address);
    if (!listed(Vexa_usb_devices_bus, static_cast<int>(bus))) {
        VEXA_LOGE(kTag, "%s: This bus not vexa usb communication port\n", __func__);
        return -1;
    }
    if (address == 1) {
        VEXA_LOGE(kTag, "%s: addr 0x001 is not devices\n", __func__);
        return -2;
    }
    libusb_device_descriptor desc{};
    if (libusb_get_device_descriptor(dev, &desc) < 0)
        return -3;
    VEXA_LOGI(kTag, "%s: deviceDescriptor.idVendor = %04X\n", __func__, desc.idVendor);
    VEXA_LOGI(kTag, "%s: deviceDescriptor.idProduct = %04X\n", __func__, desc.idProduct);
    for (uint8_t index = 0; index < desc.bNumConfigurations; ++index) {
        VEXA_LOGI(kTag, "%s:configIndex = %d\n", __func__, index);
        libusb_config_descriptor *raw = nullptr;
        if (libusb_get_config_descriptor(dev, index, &raw) < 0)
            continue;
        const vexa::ConfigDescriptor config(raw);
        for (int i = 0; i < config->bNumInterfaces; ++i) {
            const libusb_interface &interface = config->interface[i];
            for (int a = 0; a < interface.num_altsetting; ++a) {
                const libusb_interface_descriptor &alt = interface.altsetting[a];
                if (listed(Nonsupport_bInterfaceClass, alt.bInterfaceClass))
                    continue;
                *info = {};
                info->bus = static_cast<uint8_t>(bus);
                info->address = static_cast<uint8_t>(address);
                info->vendor_id = desc.idVendor;
                info->product_id = desc.idProduct;
                info->configuration = config->bConfigurationValue;
                info->interface_number = alt.bInterfaceNumber;
                info->interface_class = alt.bInterfaceClass;
                return 0;
            }
        }
    }
    return -3;
}

} // namespace

extern "C" VEXA_API int32_t bi_usb_get_vexa_devices(vexa_usb_devices_t *out)
{
    if (out == nullptr)
        return -1;
    std::memset(out, 0, sizeof *out);
    const vexa::DefaultContext context;
    if (context.status() < 0)
        return -2;
    libusb_device **raw = nullptr;
    const ssize_t count = libusb_get_device_list(nullptr, &raw);
    if (count < 0)
        return static_cast<int32_t>(count);
    const vexa::DeviceList list(raw);
    int32_t accepted = 0;
    for (ssize_t i = 0; i < count; ++i) {
        vexa_usb_device_info_t info;
        if (bi_usb_dumpdevice(raw[i], &info) != 0)
            continue;
        if (accepted < VEXA_USB_DEVICES_MAX)
            out->devices[out->count++] = info;
        ++accepted;
    }
    return accepted;
}
