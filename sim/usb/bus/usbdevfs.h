// The usbdevfs ioctls of one device node, answered by a device model through
// umockdev: libusb's claims, kernel-driver calls and URBs reach the
// BulkDevice; completed URBs wait for their submitter to reap them. Once the
// device is unplugged the node answers as usbfs does for a device gone: its
// URBs end with -ESHUTDOWN, and every call after their reap fails with
// ENODEV.
#ifndef VEXA_SIM_USB_BUS_USBDEVFS_H
#define VEXA_SIM_USB_BUS_USBDEVFS_H

#include <umockdev.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/usb/bus/bulk_device.h"

namespace vexa::sim {

template <typename T> struct GObjectUnref {
    void operator()(T *object) const { g_object_unref(object); }
};
// One reference to a GObject.
template <typename T> using GRef = std::unique_ptr<T, GObjectUnref<T>>;

class UsbdevfsNode {
public:
    UsbdevfsNode(std::shared_ptr<BulkDevice> device, int devnum, int speed);
    ~UsbdevfsNode();
    UsbdevfsNode(const UsbdevfsNode &) = delete;
    UsbdevfsNode &operator=(const UsbdevfsNode &) = delete;

    // Serves the node devnode ("/dev/bus/usb/BBB/DDD") of testbed until the
    // node is destroyed. False when umockdev refuses.
    bool attach(UMockdevTestbed *testbed, const std::string &devnode);

    // The device left the bus.
    void unplug();
    // Forgets the opens of the node that have been closed, with their URBs
    // and claims (umockdev tells of a close only through the client).
    void prune();
    // Opens of the node that are still open.
    size_t clients();

private:
    struct Urb {
        GRef<UMockdevIoctlData> urb;
        GRef<UMockdevIoctlData> buffer; // null for an empty transfer
        UMockdevIoctlClient *client;
        unsigned endpoint;
        size_t done = 0; // bytes moved so far
    };

    static gboolean on_ioctl(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self);
    static void on_connected(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self);
    static void on_vanished(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self);
    void forget_locked(UMockdevIoctlClient *client);

    // Each returns the ioctl's result, or a negative errno.
    long handle(UMockdevIoctlClient *client, unsigned long request, UMockdevIoctlData *arg);
    long submit(UMockdevIoctlClient *client, UMockdevIoctlData *arg);
    long discard(UMockdevIoctlClient *client, UMockdevIoctlData *arg);
    // Completes the reap of client's oldest finished URB; false when none.
    bool reap(UMockdevIoctlClient *client, UMockdevIoctlData *arg);
    void finish(Urb urb, int status);
    // Moves what can move between the waiting URBs of one endpoint pair and
    // the device's echo.
    void pump(unsigned number);

    std::shared_ptr<BulkDevice> device_;
    int devnum_;
    int speed_;
    GRef<UMockdevIoctlBase> handler_;
    UMockdevTestbed *testbed_ = nullptr; // not owned
    std::string devnode_;

    mutable std::mutex mu_; // everything below; ioctls arrive on umockdev's worker thread
    bool gone_ = false;
    std::map<UMockdevIoctlClient *, GRef<UMockdevIoctlClient>> clients_; // a reference each
    std::vector<Urb> waiting_; // URBs the device has not finished, oldest first
    std::map<UMockdevIoctlClient *, std::deque<Urb>> finished_;
    // Blocking reaps waiting for a URB to finish, with their argument.
    std::map<UMockdevIoctlClient *, GRef<UMockdevIoctlData>> reapers_;
};

} // namespace vexa::sim

#endif
