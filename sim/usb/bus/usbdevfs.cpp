// usbdevfs on a umockdev device node. umockdev hands each ioctl of a client
// (one open of the node, in any process) to handle() on its worker thread,
// with the argument as client memory that resolve() copies in and
// complete() copies back. A URB is answered at once when it can be (OUT data
// with room in the echo, IN data already there) and otherwise waits; either
// way it is reaped later, by pointer, as the kernel does.
#include "sim/usb/bus/usbdevfs.h"

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

size_t length_of(const GRef<UMockdevIoctlData> &data)
{
    return static_cast<size_t>(urb_of(data)->buffer_length);
}

} // namespace

UsbdevfsNode::UsbdevfsNode(std::shared_ptr<BulkDevice> device, int devnum, int speed)
    : device_(std::move(device)), devnum_(devnum), speed_(speed), handler_(umockdev_ioctl_base_new())
{
    g_signal_connect(handler_.get(), "handle-ioctl", G_CALLBACK(on_ioctl), this);
    g_signal_connect(handler_.get(), "client-connected", G_CALLBACK(on_connected), this);
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

void UsbdevfsNode::unplug()
{
    std::lock_guard<std::mutex> lock(mu_);
    if (gone_)
        return;
    gone_ = true;
    // The host controller ends every URB of a device that has gone.
    std::vector<Urb> waiting = std::move(waiting_);
    waiting_.clear();
    for (Urb &urb : waiting)
        finish(std::move(urb), -ESHUTDOWN);
    for (auto &[client, arg] : reapers_)
        umockdev_ioctl_client_complete(client, -1, ENODEV);
    reapers_.clear();
}

size_t UsbdevfsNode::clients()
{
    prune();
    std::lock_guard<std::mutex> lock(mu_);
    return clients_.size();
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
        if (node->gone_) {
            umockdev_ioctl_client_complete(client, -1, ENODEV);
        } else if (request == USBDEVFS_REAPURBNDELAY) {
            umockdev_ioctl_client_complete(client, -1, EAGAIN);
        } else {
            // A blocking reap is answered when one of the client's URBs ends.
            g_object_ref(arg);
            node->reapers_[client].reset(arg);
        }
        return TRUE;
    }
    node->prune();
    const long result = node->handle(client, request, arg);
    if (result < 0)
        umockdev_ioctl_client_complete(client, -1, static_cast<int>(-result));
    else
        umockdev_ioctl_client_complete(client, result, 0);
    return TRUE;
}

void UsbdevfsNode::on_connected(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self)
{
    auto *node = static_cast<UsbdevfsNode *>(self);
    std::lock_guard<std::mutex> lock(node->mu_);
    g_object_ref(client);
    node->clients_[client].reset(client);
}

void UsbdevfsNode::on_vanished(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self)
{
    auto *node = static_cast<UsbdevfsNode *>(self);
    std::lock_guard<std::mutex> lock(node->mu_);
    node->forget_locked(client);
}

void UsbdevfsNode::prune()
{
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<UMockdevIoctlClient *> gone;
    for (const auto &[client, ref] : clients_) {
        if (!umockdev_ioctl_client_get_connected(client))
            gone.push_back(client);
    }
    for (auto *client : gone)
        forget_locked(client);
}

// A closed open of the node: its URBs go, and its claims.
void UsbdevfsNode::forget_locked(UMockdevIoctlClient *client)
{
    for (auto it = waiting_.begin(); it != waiting_.end();)
        it = it->client == client ? waiting_.erase(it) : std::next(it);
    finished_.erase(client);
    reapers_.erase(client);
    device_->client_gone(client);
    clients_.erase(client); // the last reference to the client may go here
}

long UsbdevfsNode::handle(UMockdevIoctlClient *client, unsigned long request, UMockdevIoctlData *arg)
{
    {
        // usbfs answers nothing but the reaps of a device that has gone.
        std::lock_guard<std::mutex> lock(mu_);
        if (gone_)
            return -ENODEV;
    }
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
        info->slow = 0; // low speed only
        return 0;
    }
    case USBDEVFS_GET_SPEED:
        return speed_ == 480 ? USB_SPEED_HIGH : USB_SPEED_FULL;
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
    const unsigned endpoint = urb->endpoint;
    const int type = urb->type;
    // Control requests (string descriptors and the like) stall: the device
    // answers none. They need no claim.
    if (type != USBDEVFS_URB_TYPE_CONTROL) {
        const int rc = device_->check_transfer(client, endpoint, type);
        if (rc < 0)
            return rc;
    }
    GRef<UMockdevIoctlData> buffer;
    if (urb->buffer_length > 0) {
        buffer = resolve(data.get(), offsetof(usbdevfs_urb, buffer), length_of(data));
        if (!buffer)
            return -EFAULT;
    }
    Urb held{std::move(data), std::move(buffer), client, endpoint};
    if (type == USBDEVFS_URB_TYPE_CONTROL) {
        finish(std::move(held), -EPIPE);
        return 0;
    }
    waiting_.push_back(std::move(held));
    pump(endpoint & 0x0f);
    return 0;
}

// A URB is cancelled by its address in the client's memory; it then ends
// with -ENOENT and what it moved so far, to be reaped like any other.
long UsbdevfsNode::discard(UMockdevIoctlClient *client, UMockdevIoctlData *arg)
{
    unsigned long address = 0;
    std::memcpy(&address, arg->data, std::min<size_t>(sizeof address, static_cast<size_t>(arg->data_len)));
    for (auto it = waiting_.begin(); it != waiting_.end(); ++it) {
        if (it->client == client && it->urb->client_addr == address) {
            Urb urb = std::move(*it);
            const unsigned number = urb.endpoint & 0x0f;
            waiting_.erase(it);
            finish(std::move(urb), -ENOENT);
            // An OUT transfer that gave up lets the next one in.
            pump(number);
            return 0;
        }
    }
    return -EINVAL;
}

void UsbdevfsNode::finish(Urb urb, int status)
{
    usbdevfs_urb *raw = urb_of(urb.urb);
    raw->status = status;
    raw->actual_length = static_cast<int>(urb.done);
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

// OUT URBs of the pair fill the echo in the order they came, each whole
// before the next; IN URBs take what the echo holds, oldest first.
void UsbdevfsNode::pump(unsigned number)
{
    for (bool moved = true; moved;) {
        moved = false;
        bool out_blocked = false; // an OUT URB waits for room: the later ones wait behind it
        for (auto it = waiting_.begin(); it != waiting_.end();) {
            const bool in = (it->endpoint & USB_DIR_IN) != 0;
            if ((it->endpoint & 0x0f) != number || (!in && out_blocked)) {
                ++it;
                continue;
            }
            const size_t length = length_of(it->urb);
            uint8_t *bytes = it->buffer ? it->buffer->data : nullptr;
            if (!in) {
                const size_t n = length ? device_->take(it->endpoint, bytes + it->done, length - it->done) : 0;
                it->done += n;
                moved = moved || n > 0;
                if (it->done < length) {
                    out_blocked = true;
                    ++it;
                    continue;
                }
            } else if (length > 0) {
                if (!device_->has_data(it->endpoint)) {
                    ++it;
                    continue;
                }
                it->done = device_->give(it->endpoint, bytes, length);
                moved = true;
            }
            Urb urb = std::move(*it);
            it = waiting_.erase(it);
            finish(std::move(urb), 0);
        }
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
