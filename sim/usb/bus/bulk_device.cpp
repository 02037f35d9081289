// The bulk device's descriptors and usbfs behaviour.
#include "sim/usb/bus/bulk_device.h"

#include <linux/usbdevice_fs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace vexa::sim {
namespace {

constexpr unsigned kInterfaces = 2;

struct Endpoint {
    uint8_t address;
    uint8_t type; // 2 bulk, 3 interrupt
    uint8_t interface;
    uint8_t interval;
};

// Interface 0 (the chosen class): interrupt IN 0x83, bulk IN 0x81, bulk OUT
// 0x01. Interface 1 (CDC data): bulk IN 0x82, bulk OUT 0x02.
const Endpoint kEndpoints[] = {
    {0x83, 3, 0, 4}, {0x81, 2, 0, 0}, {0x01, 2, 0, 0}, {0x82, 2, 1, 0}, {0x02, 2, 1, 0},
};
constexpr uint8_t kCdcData = 0x0a;

// A bulk endpoint's packets are 512 bytes at high speed and 64 at full
// speed; the interrupt endpoint's 16 at either.
uint16_t max_packet(const Endpoint &e, int speed)
{
    if (e.type == 3)
        return 16;
    return speed == 480 ? 512 : 64;
}

void put16(std::vector<uint8_t> &out, unsigned value)
{
    out.push_back(value & 0xff);
    out.push_back((value >> 8) & 0xff);
}

const Endpoint *find_endpoint(unsigned address)
{
    for (const Endpoint &e : kEndpoints) {
        if (e.address == address)
            return &e;
    }
    return nullptr;
}

} // namespace

std::vector<uint8_t> bulk_device_descriptors(const UsbSettings &settings)
{
    std::vector<uint8_t> out = {18, 1, 0x00, 0x02, 0, 0, 0, 64};
    put16(out, settings.vendor);
    put16(out, settings.product);
    put16(out, 0x0100);
    out.insert(out.end(), {0, 0, 0, static_cast<uint8_t>(settings.configurations)});
    if (settings.configurations == 0)
        return out;
    std::vector<uint8_t> body;
    for (uint8_t interface = 0; interface < kInterfaces; ++interface) {
        const auto count = std::count_if(std::begin(kEndpoints), std::end(kEndpoints),
                                         [&](const Endpoint &e) { return e.interface == interface; });
        const uint8_t cls = interface == 0 ? settings.interface_class : kCdcData;
        body.insert(body.end(), {9, 4, interface, 0, static_cast<uint8_t>(count), cls, 0, 0, 0});
        for (const Endpoint &e : kEndpoints) {
            if (e.interface != interface)
                continue;
            body.insert(body.end(), {7, 5, e.address, e.type});
            put16(body, max_packet(e, settings.speed));
            body.push_back(e.interval);
        }
    }
    out.insert(out.end(), {9, 2});
    put16(out, static_cast<unsigned>(9 + body.size()));
    // Two interfaces, configuration 1, bus-powered, 100 mA.
    out.insert(out.end(), {kInterfaces, 1, 0, 0x80, 50});
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

BulkDevice::BulkDevice(const UsbSettings &settings) : settings_(settings)
{
    if (!settings_.driver.empty())
        drivers_[0] = settings_.driver;
}

int BulkDevice::claim(const void *client, unsigned interface)
{
    std::lock_guard<std::mutex> lock(mu_);
    return claim_locked(client, interface);
}

int BulkDevice::claim_locked(const void *client, unsigned interface)
{
    if (settings_.configurations == 0 || interface >= kInterfaces)
        return -ENOENT;
    const auto it = claims_.find(interface);
    if (it != claims_.end() && it->second == client)
        return 0;
    if (settings_.claim_fails || drivers_.count(interface) || it != claims_.end())
        return -EBUSY;
    claims_[interface] = client;
    return 0;
}

int BulkDevice::release(const void *client, unsigned interface)
{
    std::lock_guard<std::mutex> lock(mu_);
    const auto it = claims_.find(interface);
    if (it == claims_.end() || it->second != client)
        return -EINVAL;
    claims_.erase(it);
    return 0;
}

int BulkDevice::driver(unsigned interface, std::string *name) const
{
    std::lock_guard<std::mutex> lock(mu_);
    if (claims_.count(interface)) {
        *name = "usbfs";
        return 0;
    }
    const auto it = drivers_.find(interface);
    if (it == drivers_.end())
        return -ENODATA;
    *name = it->second;
    return 0;
}

int BulkDevice::disconnect(unsigned interface)
{
    std::lock_guard<std::mutex> lock(mu_);
    if (claims_.erase(interface))
        return 0;
    if (!drivers_.count(interface))
        return -ENODATA;
    if (settings_.detach_fails)
        return -EBUSY;
    drivers_.erase(interface);
    return 0;
}

void BulkDevice::client_gone(const void *client)
{
    std::lock_guard<std::mutex> lock(mu_);
    for (auto it = claims_.begin(); it != claims_.end();)
        it = it->second == client ? claims_.erase(it) : std::next(it);
}

int BulkDevice::check_transfer(const void *client, unsigned endpoint, int urb_type)
{
    const Endpoint *e = settings_.configurations == 0 ? nullptr : find_endpoint(endpoint);
    if (e == nullptr)
        return -ENOENT;
    const bool matches = (urb_type == USBDEVFS_URB_TYPE_BULK && e->type == 2) ||
                         (urb_type == USBDEVFS_URB_TYPE_INTERRUPT && e->type == 3);
    if (!matches)
        return -EINVAL;
    std::lock_guard<std::mutex> lock(mu_);
    return claim_locked(client, e->interface);
}

size_t BulkDevice::take(unsigned endpoint, const uint8_t *data, size_t len)
{
    std::lock_guard<std::mutex> lock(mu_);
    std::string &held = echo_[endpoint & 0x0f];
    const size_t n = std::min(len, kEchoBytes - std::min(kEchoBytes, held.size()));
    held.append(reinterpret_cast<const char *>(data), n);
    return n;
}

size_t BulkDevice::give(unsigned endpoint, uint8_t *buf, size_t len)
{
    std::lock_guard<std::mutex> lock(mu_);
    std::string &held = echo_[endpoint & 0x0f];
    const size_t n = std::min(len, held.size());
    std::memcpy(buf, held.data(), n);
    held.erase(0, n);
    return n;
}

bool BulkDevice::has_data(unsigned endpoint) const
{
    std::lock_guard<std::mutex> lock(mu_);
    const auto it = echo_.find(endpoint & 0x0f);
    return it != echo_.end() && !it->second.empty();
}

bool BulkDevice::has_room(unsigned endpoint) const
{
    std::lock_guard<std::mutex> lock(mu_);
    const auto it = echo_.find(endpoint & 0x0f);
    return it == echo_.end() || it->second.size() < kEchoBytes;
}

void BulkDevice::count_transfer()
{
    std::lock_guard<std::mutex> lock(mu_);
    ++transfers_;
}

UsbDeviceState BulkDevice::state() const
{
    std::lock_guard<std::mutex> lock(mu_);
    UsbDeviceState state;
    state.speed = std::to_string(settings_.speed);
    for (const auto &[interface, client] : claims_)
        state.claimed[static_cast<int>(interface)] = "usbfs";
    for (const auto &[interface, name] : drivers_)
        state.drivers[static_cast<int>(interface)] = name;
    for (const auto &[endpoint, bytes] : echo_) {
        if (!bytes.empty())
            state.received[static_cast<int>(endpoint)] = bytes;
    }
    state.transfers = transfers_;
    return state;
}

} // namespace vexa::sim
