// The board's USB bus: root hubs, a keyboard, a USB stick and the bulk
// device, laid out in a umockdev testbed; the bulk device's cable can be
// pulled and put back.
#include "sim/usb/bus/usb_bus.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace vexa::sim {
namespace {

struct Endpoint {
    uint8_t address, type;
    uint16_t max_packet;
    uint8_t interval;
};

// A device of one interface, as sysfs "descriptors" holds it: the device
// descriptor and its one configuration.
std::vector<uint8_t> simple_descriptors(uint16_t vendor, uint16_t product, uint8_t device_class, uint8_t packet0,
                                        uint8_t interface_class, uint8_t subclass, uint8_t protocol,
                                        std::initializer_list<Endpoint> endpoints)
{
    const auto lo = [](unsigned v) { return static_cast<uint8_t>(v & 0xff); };
    const auto hi = [](unsigned v) { return static_cast<uint8_t>(v >> 8); };
    // A hub's device protocol is 1 (a single transaction translator).
    std::vector<uint8_t> d = {18, 1, 0x00, 0x02, device_class, 0, device_class == 9 ? uint8_t{1} : uint8_t{0},
                              packet0, lo(vendor), hi(vendor), lo(product), hi(product), 0x00, 0x01, 0, 0, 0, 1};
    const unsigned total = 9 + 9 + 7 * static_cast<unsigned>(endpoints.size());
    // Self-powered with remote wake-up, no current drawn from the bus.
    d.insert(d.end(), {9, 2, lo(total), hi(total), 1, 1, 0, 0xe0, 0});
    d.insert(d.end(), {9, 4, 0, 0, static_cast<uint8_t>(endpoints.size()), interface_class, subclass, protocol, 0});
    for (const Endpoint &e : endpoints)
        d.insert(d.end(), {7, 5, e.address, e.type, lo(e.max_packet), hi(e.max_packet), e.interval});
    return d;
}

// A device the bus lists besides the bulk device.
struct BusDevice {
    std::string name;   // sysfs name: usbB for a root hub, B-P for a device
    std::string parent; // name of the parent, "" for a root hub
    int bus, devnum;
    const char *speed; // Mb/s, as sysfs shows it
    std::vector<uint8_t> descriptors;
};

std::string devnode(int bus, int devnum)
{
    char path[32];
    std::snprintf(path, sizeof path, "/dev/bus/usb/%03d/%03d", bus, devnum);
    return path;
}

// The sysfs attributes end with a newline, as the kernel's do.
std::string line(int value) { return std::to_string(value) + "\n"; }

std::string ids(const std::vector<uint8_t> &d)
{
    char text[32];
    std::snprintf(text, sizeof text, "%x/%x/%x", d[8] | d[9] << 8, d[10] | d[11] << 8, d[12] | d[13] << 8);
    return text;
}

} // namespace

UsbBus::UsbBus(const UsbSettings &settings) : settings_(settings), testbed_(umockdev_testbed_new())
{
    gchar *dir = umockdev_testbed_get_root_dir(testbed_.get());
    root_ = dir ? dir : "";
    g_free(dir);
    std::vector<BusDevice> devices;
    if (settings.other_devices) {
        for (int bus : {1, 3, 5})
            devices.push_back({"usb" + std::to_string(bus), "", bus, 1, "480",
                               simple_descriptors(0x1d6b, 0x0002, 9, 64, 9, 0, 0, {{0x81, 3, 4, 12}})});
        // A low-speed keyboard: 8-byte control packets.
        devices.push_back({"3-1", "usb3", 3, 2, "1.5",
                           simple_descriptors(0x413c, 0x2113, 0, 8, 3, 1, 1, {{0x81, 3, 8, 10}})});
        devices.push_back({"5-1", "usb5", 5, 2, "480",
                           simple_descriptors(0x0781, 0x5583, 0, 64, 8, 6, 0x50,
                                              {{0x81, 2, 512, 0}, {0x02, 2, 512, 0}})});
    }
    for (const auto &dev : devices) {
        // The bulk device takes the place of another device at its address.
        if (settings.present && dev.bus == settings.bus && dev.devnum == settings.address)
            continue;
        add(dev.name, dev.parent, dev.bus, dev.devnum, dev.speed, dev.descriptors, true);
        if (dev.bus == settings.bus)
            taken_.push_back(dev.devnum);
    }
    if (settings.present)
        plug();
}

UsbBus::~UsbBus()
{
    plugged_.reset();
    gone_.clear();
    testbed_.reset(); // removes the testbed
}

std::string UsbBus::root() const { return root_; }

std::string UsbBus::add(const std::string &name, const std::string &parent_name, int bus, int devnum,
                        const char *speed, const std::vector<uint8_t> &descriptors, bool with_node)
{
    const auto parent = syspaths_.find(parent_name);
    const std::string node = devnode(bus, devnum);
    const std::string bus3 = node.substr(13, 3), dev3 = node.substr(17, 3);
    const int minor = (bus - 1) * 128 + devnum - 1;
    const bool configured = descriptors[17] > 0;
    gchar *syspath = umockdev_testbed_add_device(
        testbed_.get(), "usb", name.c_str(), parent == syspaths_.end() ? nullptr : parent->second.c_str(), "busnum",
        line(bus).c_str(), "devnum", line(devnum).c_str(), "speed", (std::string(speed) + "\n").c_str(),
        "bConfigurationValue", configured ? "1\n" : "\n", "dev", ("189:" + line(minor)).c_str(), "devpath",
        (parent_name.empty() ? "0\n" : name.substr(name.find('-') + 1) + "\n").c_str(), nullptr, "DEVNAME",
        node.c_str(), "DEVTYPE", "usb_device", "BUSNUM", bus3.c_str(), "DEVNUM", dev3.c_str(), "PRODUCT",
        ids(descriptors).c_str(), nullptr);
    if (syspath == nullptr)
        return "";
    std::vector<uint8_t> bytes = descriptors;
    umockdev_testbed_set_attribute_binary(testbed_.get(), syspath, "descriptors", bytes.data(),
                                          static_cast<gint>(bytes.size()));
    const std::string result = syspath;
    syspaths_[name] = result;
    g_free(syspath);
    // libusb opens the node; umockdev serves it when a model is attached,
    // and a plain file otherwise.
    if (with_node) {
        std::error_code ec;
        fs::create_directories(fs::path(root_ + node).parent_path(), ec);
        std::ofstream(root_ + node).flush();
    }
    return result;
}

int UsbBus::next_address() const
{
    if (last_address_ == 0)
        return settings_.address;
    // An address is free when no other device has it and no node of an
    // unplugged device that is still open keeps its socket.
    auto in_use = [&](int address) {
        return std::find(taken_.begin(), taken_.end(), address) != taken_.end() ||
               fs::exists(root_ + "/ioctl" + devnode(settings_.bus, address));
    };
    // The next address after the last one, as the hub driver hands them out.
    for (int step = 1; step < 127; ++step) {
        const int address = (last_address_ - 2 + step) % 126 + 2;
        if (!in_use(address))
            return address;
    }
    return settings_.address;
}

void UsbBus::plug()
{
    const int address = next_address();
    // Port 2 of its bus's root hub, when the bus has one.
    const bool hub = settings_.other_devices && (settings_.bus == 1 || settings_.bus == 3 || settings_.bus == 5);
    Plugged p;
    p.address = address;
    p.device = std::make_shared<BulkDevice>(settings_);
    p.syspath = add(std::to_string(settings_.bus) + "-2", hub ? "usb" + std::to_string(settings_.bus) : "",
                    settings_.bus, address, std::to_string(settings_.speed).c_str(),
                    bulk_device_descriptors(settings_), settings_.node);
    if (settings_.node) {
        p.node = std::make_unique<UsbdevfsNode>(p.device, address, settings_.speed);
        p.node->attach(testbed_.get(), devnode(settings_.bus, address));
    }
    last_address_ = address;
    plugged_ = std::move(p);
    if (!plugged_->syspath.empty())
        umockdev_testbed_uevent(testbed_.get(), plugged_->syspath.c_str(), "add");
}

void UsbBus::unplug()
{
    Plugged p = std::move(*plugged_);
    plugged_.reset();
    if (!p.syspath.empty()) {
        umockdev_testbed_uevent(testbed_.get(), p.syspath.c_str(), "remove");
        umockdev_testbed_remove_device(testbed_.get(), p.syspath.c_str());
    }
    std::error_code ec;
    fs::remove(root_ + devnode(settings_.bus, p.address), ec);
    if (p.node) {
        p.node->unplug();
        gone_.push_back(std::move(p.node));
    }
}

void UsbBus::forget_closed()
{
    gone_.erase(std::remove_if(gone_.begin(), gone_.end(), [](const auto &node) { return node->clients() == 0; }),
                gone_.end());
}

bool UsbBus::set_plugged(bool plugged)
{
    if (!settings_.present)
        return false;
    forget_closed();
    if (plugged && !plugged_)
        plug();
    else if (!plugged && plugged_)
        unplug();
    return true;
}

std::optional<UsbDeviceState> UsbBus::state() const
{
    if (!settings_.present)
        return std::nullopt;
    UsbDeviceState state;
    if (plugged_) {
        if (plugged_->node)
            plugged_->node->prune();
        state = plugged_->device->state();
        state.plugged = true;
    }
    state.bus = settings_.bus;
    state.address = last_address_;
    state.speed = std::to_string(settings_.speed);
    return state;
}

} // namespace vexa::sim
