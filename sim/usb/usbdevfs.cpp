// usbdevfs on a umockdev device node. umockdev hands each ioctl of a client
// (one open of the node) to handle() on its worker thread, with the
// argument as client memory that resolve() copies in and complete() copies
// back. A URB is answered at once when it can be (OUT data, IN data already
// there) and otherwise waits; either way it is reaped later, by pointer, as
// the kernel does.
#include "sim/usb/usbdevfs.h"

#include <sys/ioctl.h>

#include <linux/usb/ch9.h>
#include <linux/usbdevice_fs.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace vexa::sim {
namespace {

// The capabilities libusb asks for: one URB per transfer, any length.
constexpr uint32_t kCapabilities = USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM;

GRef<UMockdevIoctlData> resolve(UMockdevIoctlData *data, size_t offset, size_t len)
{
    GError *error = nullptr;
    UMockdevIoctlData *resolved = umockdev_ioctl_data_resolve(data, offset, len, &error);
    if (error != nullptr)
        g_error_free(error);
    return GRef<UMockdevIoctlData>(resolved);
}

usbdevfs_urb *urb_of(const GRef<UMockdevIoctlData> &data)
{
    return reinterpret_cast<usbdevfs_urb *>(data->data);
}

} // namespace

UsbdevfsNode::UsbdevfsNode(std::shared_ptr<BulkDevice> device, int devnum)
    : device_(std::move(device)), devnum_(devnum), handler_(umockdev_ioctl_base_new())
{
    g_signal_connect(handler_.get(), "handle-ioctl", G_CALLBACK(on_ioctl), this);
    g_signal_connect(handler_.get(), "client-vanished", G_CALLBACK(on_vanished), this);
}

UsbdevfsNode::~UsbdevfsNode()
{
    if (testbed_ != nullptr)
        umockdev_testbed_detach_ioctl(testbed_, devnode_.c_str(), nullptr);
    g_signal_handlers_disconnect_by_data(handler_.get(), this);
}

bool UsbdevfsNode::attach(UMockdevTestbed *testbed, const std::string &devnode)
{
    GError *error = nullptr;
    if (!umockdev_testbed_attach_ioctl(testbed, devnode.c_str(), handler_.get(), &error)) {
        g_error_free(error);
        return false;
    }
    testbed_ = testbed;
    devnode_ = devnode;
    return true;
}

gboolean UsbdevfsNode::on_ioctl(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self)
{
    auto *node = static_cast<UsbdevfsNode *>(self);
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData *arg = umockdev_ioctl_client_get_arg(client);
    if (request == USBDEVFS_REAPURB || request == USBDEVFS_REAPURBNDELAY) {
        std::lock_guard<std::mutex> lock(node->mu_);
        if (node->reap(client, arg))
            return TRUE;
        if (request == USBDEVFS_REAPURBNDELAY) {
            umockdev_ioctl_client_complete(client, -1, EAGAIN);
        } else {
            // A blocking reap is answered when one of the client's URBs ends.
            g_object_ref(arg);
            node->reapers_[client].reset(arg);
        }
        return TRUE;
    }
    const long result = node->handle(client, request, arg);
    if (result < 0)
        umockdev_ioctl_client_complete(client, -1, static_cast<int>(-result));
    else
        umockdev_ioctl_client_complete(client, result, 0);
    return TRUE;
}

void UsbdevfsNode::on_vanished(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self)
{
    auto *node = static_cast<UsbdevfsNode *>(self);
    {
        std::lock_guard<std::mutex> lock(node->mu_);
        for (auto it = node->waiting_.begin(); it != node->waiting_.end();)
            it = it->client == client ? node->waiting_.erase(it) : std::next(it);
        node->finished_.erase(client);
        node->reapers_.erase(client);
    }
    node->device_->client_gone(client);
}

long UsbdevfsNode::handle(UMockdevIoctlClient *client, unsigned long request, UMockdevIoctlData *arg)
{
    switch (request) {
    case USBDEVFS_GET_CAPABILITIES: {
        auto caps = resolve(arg, 0, sizeof(uint32_t));
        if (!caps)
            return -EFAULT;
        std::memcpy(caps->data, &kCapabilities, sizeof kCapabilities);
        return 0;
    }
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_RELEASEINTERFACE: {
        auto number = resolve(arg, 0, sizeof(unsigned));
        if (!number)
            return -EFAULT;
        unsigned interface;
        std::memcpy(&interface, number->data, sizeof interface);
        return request == USBDEVFS_CLAIMINTERFACE ? device_->claim(client, interface)
                                                  : device_->release(client, interface);
    }
    case USBDEVFS_GETDRIVER: {
        auto data = resolve(arg, 0, sizeof(usbdevfs_getdriver));
        if (!data)
            return -EFAULT;
        auto *query = reinterpret_cast<usbdevfs_getdriver *>(data->data);
        std::string name;
        const int rc = device_->driver(query->interface, &name);
        if (rc == 0)
            std::snprintf(query->driver, sizeof query->driver, "%s", name.c_str());
        return rc;
    }
    case USBDEVFS_IOCTL: {
        auto data = resolve(arg, 0, sizeof(usbdevfs_ioctl));
        if (!data)
            return -EFAULT;
        const auto *command = reinterpret_cast<usbdevfs_ioctl *>(data->data);
        if (command->ioctl_code == static_cast<int>(USBDEVFS_DISCONNECT))
            return device_->disconnect(static_cast<unsigned>(command->ifno));
        if (command->ioctl_code == static_cast<int>(USBDEVFS_CONNECT))
            return 0;
        return -ENOTTY;
    }
    case USBDEVFS_CONNECTINFO: {
        auto data = resolve(arg, 0, sizeof(usbdevfs_connectinfo));
        if (!data)
            return -EFAULT;
        auto *info = reinterpret_cast<usbdevfs_connectinfo *>(data->data);
        info->devnum = static_cast<unsigned>(devnum_);
        info->slow = 0;
        return 0;
    }
    case USBDEVFS_GET_SPEED:
        return USB_SPEED_HIGH;
    case USBDEVFS_SUBMITURB: {
        std::lock_guard<std::mutex> lock(mu_);
        return submit(client, arg);
    }
    case USBDEVFS_DISCARDURB: {
        std::lock_guard<std::mutex> lock(mu_);
        return discard(client, arg);
    }
    case USBDEVFS_SETCONFIGURATION:
    case USBDEVFS_SETINTERFACE:
    case USBDEVFS_CLEAR_HALT:
    case USBDEVFS_RESETEP:
    case USBDEVFS_RESET:
        return 0;
    default:
        return -ENOTTY;
    }
}

long UsbdevfsNode::submit(UMockdevIoctlClient *client, UMockdevIoctlData *arg)
{
    auto data = resolve(arg, 0, sizeof(usbdevfs_urb));
    if (!data)
        return -EFAULT;
    const usbdevfs_urb *urb = urb_of(data);
    if (urb->buffer_length < 0)
        return -EINVAL;
    GRef<UMockdevIoctlData> buffer;
    if (urb->buffer_length > 0) {
        buffer = resolve(data.get(), offsetof(usbdevfs_urb, buffer), static_cast<size_t>(urb->buffer_length));
        if (!buffer)
            return -EFAULT;
    }
    const unsigned endpoint = urb->endpoint;
    const size_t length = static_cast<size_t>(urb->buffer_length);
    const int type = urb->type;
    Urb held{std::move(data), std::move(buffer), client, endpoint};
    // Control requests (string descriptors and the like) stall: the device
    // answers none.
    if (type == USBDEVFS_URB_TYPE_CONTROL) {
        finish(std::move(held), -EPIPE, 0);
        return 0;
    }
    const int kind = device_->endpoint_type(endpoint);
    if (kind < 0)
        return kind;
    const bool matches = (type == USBDEVFS_URB_TYPE_BULK && kind == 2) ||
                         (type == USBDEVFS_URB_TYPE_INTERRUPT && kind == 3);
    if (!matches)
        return -EINVAL;
    if (!(endpoint & USB_DIR_IN)) {
        if (length > 0)
            device_->receive(endpoint, held.buffer->data, length);
        finish(std::move(held), 0, length);
        feed_waiting_in(endpoint | USB_DIR_IN);
        return 0;
    }
    waiting_.push_back(std::move(held));
    feed_waiting_in(endpoint);
    return 0;
}

// A URB is cancelled by its address in the client's memory; it then ends
// with -ENOENT, to be reaped like any other.
long UsbdevfsNode::discard(UMockdevIoctlClient *client, UMockdevIoctlData *arg)
{
    unsigned long address = 0;
    std::memcpy(&address, arg->data, std::min<size_t>(sizeof address, static_cast<size_t>(arg->data_len)));
    for (auto it = waiting_.begin(); it != waiting_.end(); ++it) {
        if (it->client == client && it->urb->client_addr == address) {
            Urb urb = std::move(*it);
            waiting_.erase(it);
            finish(std::move(urb), -ENOENT, 0);
            return 0;
        }
    }
    return -EINVAL;
}

void UsbdevfsNode::finish(Urb urb, int status, size_t actual)
{
    usbdevfs_urb *raw = urb_of(urb.urb);
    raw->status = status;
    raw->actual_length = static_cast<int>(actual);
    if (status == 0 && (raw->type == USBDEVFS_URB_TYPE_BULK || raw->type == USBDEVFS_URB_TYPE_INTERRUPT))
        device_->count_transfer();
    UMockdevIoctlClient *client = urb.client;
    finished_[client].push_back(std::move(urb));
    const auto reaper = reapers_.find(client);
    if (reaper != reapers_.end()) {
        GRef<UMockdevIoctlData> arg = std::move(reaper->second);
        reapers_.erase(reaper);
        reap(client, arg.get());
    }
}

// IN URBs on endpoint take what its OUT twin has received, oldest first.
void UsbdevfsNode::feed_waiting_in(unsigned endpoint)
{
    for (auto it = waiting_.begin(); it != waiting_.end() && device_->has_data(endpoint);) {
        if (it->endpoint != endpoint) {
            ++it;
            continue;
        }
        Urb urb = std::move(*it);
        it = waiting_.erase(it);
        const size_t length = static_cast<size_t>(urb_of(urb.urb)->buffer_length);
        const size_t n = urb.buffer ? device_->send(endpoint, urb.buffer->data, length) : 0;
        finish(std::move(urb), 0, n);
    }
}

bool UsbdevfsNode::reap(UMockdevIoctlClient *client, UMockdevIoctlData *arg)
{
    const auto it = finished_.find(client);
    if (it == finished_.end() || it->second.empty())
        return false;
    Urb urb = std::move(it->second.front());
    it->second.pop_front();
    // The kernel stores the URB's own address where the argument points.
    auto slot = resolve(arg, 0, sizeof(void *));
    if (!slot) {
        umockdev_ioctl_client_complete(client, -1, EFAULT);
        return true;
    }
    umockdev_ioctl_data_set_ptr(slot.get(), 0, urb.urb.get());
    umockdev_ioctl_client_complete(client, 0, 0);
    return true;
}

} // namespace vexa::sim
