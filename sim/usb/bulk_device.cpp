// The bulk device's settings, descriptors and usbfs behaviour.
#include "sim/usb/bulk_device.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>

namespace vexa::sim {
namespace {

constexpr unsigned kInterfaces = 2;

struct Endpoint {
    uint8_t address;
    uint8_t type; // 1 interrupt, 2 bulk
    uint16_t max_packet;
    uint8_t interval;
};

// Interface 0 (the chosen class): interrupt IN 0x83, bulk IN 0x81, bulk OUT
// 0x01. Interface 1 (CDC data): bulk IN 0x82, bulk OUT 0x02.
const Endpoint kInterface0[] = {{0x83, 3, 16, 4}, {0x81, 2, 512, 0}, {0x01, 2, 512, 0}};
const Endpoint kInterface1[] = {{0x82, 2, 512, 0}, {0x02, 2, 512, 0}};
constexpr uint8_t kCdcData = 0x0a;

bool number(const std::string &text, long min, long max, long *out)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 0);
    if (*end != '\0' || value < min || value > max)
        return false;
    *out = value;
    return true;
}

std::string trim(const std::string &text)
{
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return "";
    const auto last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

void put16(std::vector<uint8_t> &out, unsigned value)
{
    out.push_back(value & 0xff);
    out.push_back((value >> 8) & 0xff);
}

void interface(std::vector<uint8_t> &out, uint8_t number, uint8_t cls, const Endpoint *endpoints,
               size_t count)
{
    const uint8_t desc[] = {9, 4, number, 0, static_cast<uint8_t>(count), cls, 0, 0, 0};
    out.insert(out.end(), desc, desc + sizeof desc);
    for (size_t i = 0; i < count; ++i) {
        out.insert(out.end(), {7, 5, endpoints[i].address, endpoints[i].type});
        put16(out, endpoints[i].max_packet);
        out.push_back(endpoints[i].interval);
    }
}

} // namespace

UsbSettings parse_usb_settings(const std::string &text, std::vector<std::string> *problems)
{
    UsbSettings s;
    std::istringstream in(text);
    std::string line;
    auto problem = [&](const std::string &what) {
        if (problems)
            problems->push_back(what);
    };
    while (std::getline(in, line)) {
        line = trim(line.substr(0, line.find('#')));
        if (line.empty())
            continue;
        const auto eq = line.find('=');
        if (eq == std::string::npos) {
            problem("not key=value: " + line);
            continue;
        }
        const std::string key = trim(line.substr(0, eq));
        const std::string value = trim(line.substr(eq + 1));
        long n = 0;
        if (key == "device" && (value == "none" || value == "present"))
            s.present = value == "present";
        else if (key == "others" && (value == "none" || value == "present"))
            s.other_devices = value == "present";
        else if (key == "vendor" && number(value, 0, 0xffff, &n))
            s.vendor = static_cast<uint16_t>(n);
        else if (key == "product" && number(value, 0, 0xffff, &n))
            s.product = static_cast<uint16_t>(n);
        else if (key == "class" && number(value, 0, 0xff, &n))
            s.interface_class = static_cast<uint8_t>(n);
        else if (key == "bus" && number(value, 1, 127, &n))
            s.bus = static_cast<int>(n);
        else if (key == "address" && number(value, 2, 127, &n))
            s.address = static_cast<int>(n);
        else if (key == "configurations" && number(value, 0, 1, &n))
            s.configurations = static_cast<int>(n);
        else if (key == "driver" && value.find_first_of("/ ") == std::string::npos && value.size() < 64)
            s.driver = value;
        else if (key == "detach" && (value == "fail" || value == "ok"))
            s.detach_fails = value == "fail";
        else if (key == "claim" && (value == "fail" || value == "ok"))
            s.claim_fails = value == "fail";
        else if (key == "node" && (value == "missing" || value == "present"))
            s.node = value == "present";
        else
            problem("unknown setting or bad value: " + line);
    }
    return s;
}

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
    interface(body, 0, settings.interface_class, kInterface0, std::size(kInterface0));
    interface(body, 1, kCdcData, kInterface1, std::size(kInterface1));
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
    if (settings_.configurations == 0 || interface >= kInterfaces)
        return -ENOENT;
    if (settings_.claim_fails || drivers_.count(interface))
        return -EBUSY;
    const auto it = claims_.find(interface);
    if (it != claims_.end() && it->second != client)
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

int BulkDevice::endpoint_type(unsigned address) const
{
    if (settings_.configurations == 0)
        return -ENOENT;
    for (const Endpoint &e : kInterface0) {
        if (e.address == address)
            return e.type;
    }
    for (const Endpoint &e : kInterface1) {
        if (e.address == address)
            return e.type;
    }
    return -ENOENT;
}

void BulkDevice::receive(unsigned endpoint, const uint8_t *data, size_t len)
{
    std::lock_guard<std::mutex> lock(mu_);
    echo_[endpoint & 0x0f].append(reinterpret_cast<const char *>(data), len);
}

size_t BulkDevice::send(unsigned endpoint, uint8_t *buf, size_t len)
{
    std::lock_guard<std::mutex> lock(mu_);
    std::string &pending = echo_[endpoint & 0x0f];
    const size_t n = std::min(len, pending.size());
    std::memcpy(buf, pending.data(), n);
    pending.erase(0, n);
    return n;
}

bool BulkDevice::has_data(unsigned endpoint) const
{
    std::lock_guard<std::mutex> lock(mu_);
    const auto it = echo_.find(endpoint & 0x0f);
    return it != echo_.end() && !it->second.empty();
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
