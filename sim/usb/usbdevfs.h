// The usbdevfs ioctls of one device node, answered by a device model through
// umockdev: libusb's claims, kernel-driver calls and URBs reach the
// BulkDevice; completed URBs wait for their submitter to reap them.
#ifndef VEXA_SIM_USB_USBDEVFS_H
#define VEXA_SIM_USB_USBDEVFS_H

#include <umockdev.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/usb/bulk_device.h"

namespace vexa::sim {

template <typename T> struct GObjectUnref {
    void operator()(T *object) const { g_object_unref(object); }
};
// One reference to a GObject.
template <typename T> using GRef = std::unique_ptr<T, GObjectUnref<T>>;

class UsbdevfsNode {
public:
    UsbdevfsNode(std::shared_ptr<BulkDevice> device, int devnum);
    ~UsbdevfsNode();
    UsbdevfsNode(const UsbdevfsNode &) = delete;
    UsbdevfsNode &operator=(const UsbdevfsNode &) = delete;

    // Serves the node devnode ("/dev/bus/usb/BBB/DDD") of testbed until the
    // node is destroyed. False when umockdev refuses.
    bool attach(UMockdevTestbed *testbed, const std::string &devnode);

private:
    struct Urb {
        GRef<UMockdevIoctlData> urb;
        GRef<UMockdevIoctlData> buffer; // null for an empty transfer
        UMockdevIoctlClient *client;
        unsigned endpoint;
    };

    static gboolean on_ioctl(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self);
    static void on_vanished(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self);

    // Each returns the ioctl's result, or a negative errno.
    long handle(UMockdevIoctlClient *client, unsigned long request, UMockdevIoctlData *arg);
    long submit(UMockdevIoctlClient *client, UMockdevIoctlData *arg);
    long discard(UMockdevIoctlClient *client, UMockdevIoctlData *arg);
    // Completes the reap of client's oldest finished URB; false when none.
    bool reap(UMockdevIoctlClient *client, UMockdevIoctlData *arg);
    void finish(Urb urb, int status, size_t actual);
    void feed_waiting_in(unsigned endpoint);

    std::shared_ptr<BulkDevice> device_;
    int devnum_;
    GRef<UMockdevIoctlBase> handler_;
    UMockdevTestbed *testbed_ = nullptr; // not owned
    std::string devnode_;

    std::mutex mu_; // the URB lists; ioctls arrive on umockdev's worker thread
    std::vector<Urb> waiting_; // IN URBs waiting for data
    std::map<UMockdevIoctlClient *, std::deque<Urb>> finished_;
    // Blocking reaps waiting for a URB to finish, with their argument.
    std::map<UMockdevIoctlClient *, GRef<UMockdevIoctlData>> reapers_;
};

} // namespace vexa::sim

#endif
