// The USB bulk channel: one device chosen by vendor and product id, one
// interface of a class with an IN and an OUT endpoint of a transfer type,
// over libusb-1.0's default context.
#include <libusb.h>

#include <cstring>

#include "platform/log.h"
#include "system/libusb_owners.h"
#include "vexasdk/system.h"

extern "C" {
VEXA_API libusb_device_handle *vexa_usb_handle = nullptr;
VEXA_API libusb_device *vexa_usb_dev = nullptr;
VEXA_API libusb_device **vexa_usb_devs = nullptr;
VEXA_API vexa_usb_port_t vexa_usb_port = {};
}

static_assert(sizeof(vexa_usb_port_t) == 10, "the port record is 10 bytes");

namespace {

const char kTag[] = "vexa_system_bi_ops_usb_port";

// Clears the channel's state. The device list is freed here (the handle
// holds its own reference to its device), before libusb closes.
void forget_channel()
{
    if (vexa_usb_devs != nullptr)
        libusb_free_device_list(vexa_usb_devs, 1);
    vexa_usb_devs = nullptr;
    vexa_usb_dev = nullptr;
    vexa_usb_handle = nullptr;
    std::memset(&vexa_usb_port, 0, sizeof vexa_usb_port);
}

// Every failure after libusb started ends here: nothing stays behind.
int32_t fail_open(int32_t code)
{
    forget_channel();
    libusb_exit(nullptr);
    VEXA_LOGE(kTag, "%s:usb open failed, ret=%d\n", "bi_usb_open", static_cast<int>(code));
    return code;
}

// Lists the devices into vexa_usb_devs and picks the first with the port's
// ids as vexa_usb_dev. *last is the last descriptor read. 0, -2 for an empty
// list, or the failed query's negative count.
int32_t bi_get_device_descriptor(libusb_device_descriptor *last)
{
    const ssize_t count = libusb_get_device_list(nullptr, &vexa_usb_devs);
    if (count < 0) {
        vexa_usb_devs = nullptr;
        VEXA_LOGE(kTag, "%s:获取USB设备列表失败\n", __func__);
        return static_cast<int32_t>(count);
    }
    if (count == 0)
        return -2;
    for (ssize_t i = 0; i < count; ++i) {
        if (libusb_get_device_descriptor(vexa_usb_devs[i], last) < 0) {
            VEXA_LOGE(kTag, "%s:获取设备描述符失败, i:%d\n", __func__, static_cast<int>(i + 1));
            continue;
        }
        if (last->idProduct == vexa_usb_port.product_id && last->idVendor == vexa_usb_port.vendor_id) {
            vexa_usb_dev = vexa_usb_devs[i];
            break;
        }
    }
    return 0;
}

// The first alternate setting of the port's class that has an IN and an OUT
// endpoint of the port's transfer type gives the endpoints and the interface
// number. Finding none is not a failure: the endpoints stay 0.
int32_t bi_get_device_endpoint(uint8_t configurations)
{
    for (uint8_t index = 0; index < configurations; ++index) {
        if (vexa_usb_dev == nullptr) {
            VEXA_LOGE(kTag, "%s:vexa_usb_dev is NULL\n", __func__);
            return -1;
        }
        libusb_config_descriptor *raw = nullptr;
        if (libusb_get_config_descriptor(vexa_usb_dev, index, &raw) < 0) {
            VEXA_LOGE(kTag, "%s:获取配置描述符失败!\n", __func__);
            return -1;
        }
        const vexa::ConfigDescriptor config(raw);
        for (int i = 0; i < config->bNumInterfaces; ++i) {
            const libusb_interface &interface = config->interface[i];
            for (int a = 0; a < interface.num_altsetting; ++a) {
                const libusb_interface_descriptor &alt = interface.altsetting[a];
                if (alt.bInterfaceClass != vexa_usb_port.interface_class || alt.bNumEndpoints == 0)
                    continue;
                uint8_t in = 0, out = 0;
                for (int e = 0; e < alt.bNumEndpoints; ++e) {
                    const libusb_endpoint_descriptor &endpoint = alt.endpoint[e];
                    if ((endpoint.bmAttributes & 3) != vexa_usb_port.transfer_type)
                        continue;
                    if (endpoint.bEndpointAddress & LIBUSB_ENDPOINT_IN) {
                        in = endpoint.bEndpointAddress;
                        VEXA_LOGD(kTag, "找到输入端点,地址:%d\n", in);
                    } else {
                        out = endpoint.bEndpointAddress;
                        VEXA_LOGD(kTag, "找到输出端点,地址:%d\n", out);
                    }
                    if (in != 0 && out != 0) {
                        vexa_usb_port.endpoint_in = in;
                        vexa_usb_port.endpoint_out = out;
                        vexa_usb_port.interface_number = alt.bInterfaceNumber;
                        return 0;
                    }
                }
            }
        }
    }
    return 0;
}

// A transfer needs a buffer, a positive length and an open channel.
bool transfer_ready(const char *func, const void *buffer, int32_t length)
{
    if (buffer == nullptr || length <= 0) {
        VEXA_LOGE(kTag, "%s: invalid params\n", func);
        return false;
    }
    if (vexa_usb_handle == nullptr) {
        VEXA_LOGE(kTag, "%s: usb not open\n", func);
        return false;
    }
    return true;
}

} // namespace

extern "C" {

VEXA_API int32_t bi_usb_open(uint16_t vendor_id, uint16_t product_id, uint8_t interface_class,
                             uint8_t selector, uint8_t transfer_type, vexa_usb_port_t *out_port)
{
    if (vexa_usb_handle != nullptr) {
        VEXA_LOGW(kTag, "%s:usb already open, closing it first\n", __func__);
        bi_usb_close();
    }
    std::memset(&vexa_usb_port, 0, sizeof vexa_usb_port);
    vexa_usb_port.vendor_id = vendor_id;
    vexa_usb_port.product_id = product_id;
    vexa_usb_port.interface_class = interface_class;
    vexa_usb_port.selector = selector;
    vexa_usb_port.transfer_type = transfer_type;
    vexa_usb_dev = nullptr;

    if (libusb_init(nullptr) < 0) {
        VEXA_LOGE(kTag, "%s:*** initial USB lib failed! \n", __func__);
        forget_channel(); // nothing to close yet, and nothing stays behind
        return -2;
    }
    libusb_device_descriptor last{};
    int32_t rc = bi_get_device_descriptor(&last);
    if (rc < 0) {
        VEXA_LOGE(kTag, "%s:*** bi_get_device_descriptor failed! \n", __func__);
        return fail_open(rc);
    }
    if (last.bNumConfigurations == 0) {
        VEXA_LOGE(kTag, "%s:*** bi_get_device_endpoint failed! ret:%d \n", __func__, -2);
        return fail_open(-2);
    }
    rc = bi_get_device_endpoint(last.bNumConfigurations);
    if (rc < 0) {
        VEXA_LOGE(kTag, "%s:*** bi_get_device_endpoint failed! ret:%d \n", __func__, static_cast<int>(rc));
        return fail_open(rc);
    }
    VEXA_LOGD(kTag, "%s:In bEndpointAddress:%d\n", __func__, vexa_usb_port.endpoint_in);
    VEXA_LOGD(kTag, "%s:Out bEndpointAddress:%d\n", __func__, vexa_usb_port.endpoint_out);

    vexa_usb_handle = libusb_open_device_with_vid_pid(nullptr, vendor_id, product_id);
    if (vexa_usb_handle == nullptr) {
        VEXA_LOGE(kTag,
                  "%s:*** Permission denied or Can not find the USB board (Maybe the USB driver has "
                  "not been installed correctly), quit!\n",
                  __func__);
        return fail_open(-5);
    }
    const int interface = vexa_usb_port.interface_number;
    if (libusb_claim_interface(vexa_usb_handle, interface) < 0) {
        rc = libusb_detach_kernel_driver(vexa_usb_handle, interface);
        if (rc < 0) {
            VEXA_LOGE(kTag, "%s:*** libusb_detach_kernel_driver failed! ret:%d\n", __func__, static_cast<int>(rc));
            libusb_close(vexa_usb_handle);
            return fail_open(-6);
        }
        rc = libusb_claim_interface(vexa_usb_handle, interface);
        if (rc < 0) {
            VEXA_LOGE(kTag, "%s:*** libusb_claim_interface failed! ret:%d\n", __func__, static_cast<int>(rc));
            libusb_close(vexa_usb_handle);
            return fail_open(-7);
        }
    }
    if (out_port != nullptr)
        std::memcpy(out_port, &vexa_usb_port, sizeof vexa_usb_port);
    VEXA_LOGD(kTag, "%s:usb open success\n", __func__);
    return 0;
}

VEXA_API int32_t bi_usb_close(void)
{
    if (vexa_usb_handle == nullptr) {
        VEXA_LOGD(kTag, "%s:usb not open, already closed\n", __func__);
        forget_channel();
        return 0;
    }
    const int rc = libusb_release_interface(vexa_usb_handle, vexa_usb_port.interface_number);
    if (rc < 0)
        VEXA_LOGW(kTag, "%s:libusb_release_interface failed! ret:%d, but continue cleanup\n", __func__, rc);
    libusb_close(vexa_usb_handle);
    forget_channel();
    libusb_exit(nullptr);
    VEXA_LOGD(kTag, "%s:USB device closed successfully\n", __func__);
    return 0;
}

VEXA_API int32_t bi_usb_blocking_write(const uint8_t *buffer, int32_t length, uint32_t timeout_ms)
{
    if (!transfer_ready(__func__, buffer, length))
        return -1;
    VEXA_LOGD(kTag, "%s: Writing to endpoint 0x%02X, count=%d\n", __func__, vexa_usb_port.endpoint_out,
              static_cast<int>(length));
    int transferred = 0;
    // An OUT transfer only reads the buffer.
    const int rc = libusb_bulk_transfer(vexa_usb_handle, vexa_usb_port.endpoint_out,
                                        const_cast<uint8_t *>(buffer), length, &transferred, timeout_ms);
    if (rc < 0) {
        VEXA_LOGE(kTag, "%s: bulk transfer failed, ret:%d\n", __func__, rc);
        return -1;
    }
    VEXA_LOGD(kTag, "%s: Wrote %d bytes successfully\n", __func__, transferred);
    return transferred;
}

VEXA_API int32_t bi_usb_blocking_read(uint8_t *buffer, int32_t length, uint32_t timeout_ms)
{
    if (!transfer_ready(__func__, buffer, length))
        return -1;
    VEXA_LOGD(kTag, "%s: Reading from endpoint 0x%02X, expecting %d bytes, timeout=%dms\n", __func__,
              vexa_usb_port.endpoint_in, static_cast<int>(length), static_cast<int>(timeout_ms));
    int transferred = 0;
    const int rc = libusb_bulk_transfer(vexa_usb_handle, vexa_usb_port.endpoint_in, buffer, length,
                                        &transferred, timeout_ms);
    if (rc < 0) {
        VEXA_LOGE(kTag, "%s: bulk transfer failed, ret:%d (libusb error)\n", __func__, rc);
        return -1;
    }
    VEXA_LOGD(kTag, "%s: Read %d bytes, libusb_ret=%d\n", __func__, transferred, rc);
    return transferred;
}

} // extern "C"
