// The board's USB bus in a umockdev testbed: sysfs devices with their
// descriptors, device nodes, and the bulk device's usbdevfs behind its node.
// Set up when a process with umockdev's preload library attaches the board.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <vector>

#include "sim/usb/bulk_device.h"
#include "sim/usb/usb.h"
#include "sim/usb/usbdevfs.h"

namespace fs = std::filesystem;

namespace vexa::sim {
namespace {

const char kPreload[] = "libumockdev-preload.so.0";
const char kPreloadTried[] = "VEXA_USB_PRELOAD_TRIED";
const char kSettings[] = "/.board/usb-device.conf";

struct Endpoint {
    uint8_t address, type;
    uint16_t max_packet;
    uint8_t interval;
};

// A device of one interface, as sysfs "descriptors" holds it: the device
// descriptor and its one configuration.
std::vector<uint8_t> simple_descriptors(uint16_t vendor, uint16_t product, uint8_t device_class,
                                        uint8_t interface_class, uint8_t subclass, uint8_t protocol,
                                        std::initializer_list<Endpoint> endpoints)
{
    const auto lo = [](unsigned v) { return static_cast<uint8_t>(v & 0xff); };
    const auto hi = [](unsigned v) { return static_cast<uint8_t>(v >> 8); };
    // A hub's device protocol is 1 (a single transaction translator).
    std::vector<uint8_t> d = {18, 1, 0x00, 0x02, device_class, 0, device_class == 9 ? uint8_t{1} : uint8_t{0}, 64,
                              lo(vendor), hi(vendor), lo(product), hi(product), 0x00, 0x01, 0, 0, 0, 1};
    const unsigned total = 9 + 9 + 7 * static_cast<unsigned>(endpoints.size());
    // Self-powered with remote wake-up, no current drawn from the bus.
    d.insert(d.end(), {9, 2, lo(total), hi(total), 1, 1, 0, 0xe0, 0});
    d.insert(d.end(), {9, 4, 0, 0, static_cast<uint8_t>(endpoints.size()), interface_class, subclass, protocol, 0});
    for (const Endpoint &e : endpoints)
        d.insert(d.end(), {7, 5, e.address, e.type, lo(e.max_packet), hi(e.max_packet), e.interval});
    return d;
}

// A device the bus lists: its sysfs place, address and descriptors.
struct BusDevice {
    std::string name;   // sysfs name: usbB for a root hub, B-P for a device
    std::string parent; // name of the parent, "" for a root hub
    int bus, devnum;
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

class UsbBus;
std::mutex g_mu;
std::map<std::string, std::weak_ptr<UsbBus>> g_buses; // by board root
std::weak_ptr<UsbBus> g_latest;

class UsbBus {
public:
    explicit UsbBus(const Board &board) : board_root_(board.root()), testbed_(umockdev_testbed_new())
    {
        const UsbSettings settings = parse_usb_settings(board.exists(kSettings) ? board.read_file(kSettings) : "");
        std::vector<BusDevice> devices;
        if (settings.other_devices) {
            for (int bus : {1, 3, 5}) {
                const uint16_t hub = bus == 5 ? 0x0003 : 0x0002;
                devices.push_back({"usb" + std::to_string(bus), "", bus, 1,
                                   simple_descriptors(0x1d6b, hub, 9, 9, 0, 0, {{0x81, 3, 4, 12}})});
            }
            devices.push_back({"3-1", "usb3", 3, 2,
                               simple_descriptors(0x413c, 0x2113, 0, 3, 1, 1, {{0x81, 3, 8, 10}})});
            devices.push_back({"5-1", "usb5", 5, 2,
                               simple_descriptors(0x0781, 0x5583, 0, 8, 6, 0x50,
                                                  {{0x81, 2, 512, 0}, {0x02, 2, 512, 0}})});
        }
        for (const auto &dev : devices) {
            // The bulk device takes the place of another device at its address.
            if (!settings.present || dev.bus != settings.bus || dev.devnum != settings.address)
                add(dev, true);
        }
        if (settings.present) {
            // Port 2 of its bus's root hub, when the bus has one.
            const bool hub = settings.other_devices && (settings.bus == 1 || settings.bus == 3 || settings.bus == 5);
            device_ = std::make_shared<BulkDevice>(settings);
            add({std::to_string(settings.bus) + "-2", hub ? "usb" + std::to_string(settings.bus) : "", settings.bus,
                 settings.address, bulk_device_descriptors(settings)},
                settings.node);
            if (settings.node) {
                node_ = std::make_unique<UsbdevfsNode>(device_, settings.address);
                node_->attach(testbed_.get(), devnode(settings.bus, settings.address));
            }
        }
    }

    ~UsbBus()
    {
        node_.reset();
        testbed_.reset(); // removes the testbed and unsets UMOCKDEV_DIR
        // Another board's bus that is still alive keeps the process on it.
        std::lock_guard<std::mutex> lock(g_mu);
        if (auto it = g_buses.find(board_root_); it != g_buses.end() && it->second.expired())
            g_buses.erase(it);
        if (auto latest = g_latest.lock(); latest && latest.get() != this)
            ::setenv("UMOCKDEV_DIR", latest->root().c_str(), 1);
    }

    std::string root() const
    {
        gchar *dir = umockdev_testbed_get_root_dir(testbed_.get());
        std::string root = dir ? dir : "";
        g_free(dir);
        return root;
    }

    std::shared_ptr<BulkDevice> device() const { return device_; }

private:
    void add(const BusDevice &dev, bool with_node)
    {
        const std::string parent = dev.parent.empty() ? "" : syspaths_[dev.parent];
        const std::string node = devnode(dev.bus, dev.devnum);
        const std::string bus3 = node.substr(13, 3), dev3 = node.substr(17, 3);
        const int minor = (dev.bus - 1) * 128 + dev.devnum - 1;
        const bool configured = dev.descriptors[17] > 0;
        gchar *syspath = umockdev_testbed_add_device(
            testbed_.get(), "usb", dev.name.c_str(), parent.empty() ? nullptr : parent.c_str(),
            "busnum", line(dev.bus).c_str(), "devnum", line(dev.devnum).c_str(), "speed", "480\n",
            "bConfigurationValue", configured ? "1\n" : "\n", "dev", ("189:" + line(minor)).c_str(),
            "devpath", (dev.parent.empty() ? "0\n" : dev.name.substr(dev.name.find('-') + 1) + "\n").c_str(),
            nullptr, "DEVNAME", node.c_str(), "DEVTYPE", "usb_device", "BUSNUM", bus3.c_str(), "DEVNUM",
            dev3.c_str(), "PRODUCT", ids(dev.descriptors).c_str(), nullptr);
        std::vector<uint8_t> descriptors = dev.descriptors;
        umockdev_testbed_set_attribute_binary(testbed_.get(), syspath, "descriptors", descriptors.data(),
                                              static_cast<gint>(descriptors.size()));
        syspaths_[dev.name] = syspath;
        g_free(syspath);
        // libusb opens the node; umockdev serves it when a model is
        // attached, and a plain file otherwise.
        if (with_node) {
            const std::string host = root() + node;
            std::error_code ec;
            fs::create_directories(fs::path(host).parent_path(), ec);
            std::ofstream(host).flush();
        }
    }

    std::string board_root_;
    GRef<UMockdevTestbed> testbed_;
    std::map<std::string, std::string> syspaths_;
    std::shared_ptr<BulkDevice> device_;
    std::unique_ptr<UsbdevfsNode> node_;
};

std::shared_ptr<UsbBus> bus_of(const Board &board)
{
    std::lock_guard<std::mutex> lock(g_mu);
    const auto it = g_buses.find(board.root());
    return it == g_buses.end() ? nullptr : it->second.lock();
}

std::vector<char *> own_arguments(std::vector<std::string> *words)
{
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::string word;
    while (std::getline(in, word, '\0'))
        words->push_back(word);
    std::vector<char *> argv;
    for (auto &w : *words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    return argv;
}

} // namespace

bool usb_preloaded()
{
    void *preload = ::dlopen(kPreload, RTLD_LAZY | RTLD_NOLOAD);
    if (preload == nullptr)
        return false;
    ::dlclose(preload);
    return true;
}

bool preload_usb()
{
    if (usb_preloaded())
        return true;
    if (std::getenv(kPreloadTried) != nullptr) {
        std::fprintf(stderr, "the virtual board's USB needs umockdev's preload library (%s, Debian "
                             "package umockdev), which could not be loaded\n", kPreload);
        return false;
    }
    const char *old = std::getenv("LD_PRELOAD");
    const std::string preload = old && *old ? std::string(kPreload) + ":" + old : kPreload;
    ::setenv("LD_PRELOAD", preload.c_str(), 1);
    ::setenv(kPreloadTried, "1", 1);
    std::vector<std::string> words;
    std::vector<char *> argv = own_arguments(&words);
    std::fflush(nullptr);
    ::execv("/proc/self/exe", argv.data());
    std::perror("re-executing with umockdev's preload library");
    return false;
}

std::optional<UsbDeviceState> usb_device_state(const Board &board)
{
    const auto bus = bus_of(board);
    if (!bus || !bus->device())
        return std::nullopt;
    return bus->device()->state();
}

std::string usb_testbed(const Board &board)
{
    const auto bus = bus_of(board);
    return bus ? bus->root() : std::string();
}

} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_SEEDER(usb)
{
    // The four ports' enable files of the default product INI, all on, and
    // the OTG role of the USB 2 PHY.
    for (int port = 1; port <= 4; ++port)
        board.write_file("/sys/class/vexagpios/USB" + std::to_string(port) + "_EN/value", "1\n");
    board.write_file("/sys/devices/platform/fe8a0000.usb2-phy/otg_mode", "host\n");
    board.write_file(kSettings,
                     "# The board's USB bulk device, read when a process attaches the board.\n"
                     "# Its ids, interface 0's class, and where it sits (bus 1, 3 or 5; address):\n"
                     "vendor=0x1209\nproduct=0x0001\nclass=0xff\nbus=1\naddress=2\n"
                     "# Faults: device=none, others=none (no hubs or other devices), configurations=0,\n"
                     "# driver=NAME (a kernel driver holds interface 0), detach=fail, claim=fail,\n"
                     "# node=missing (the device cannot be opened).\n");
}

// In every process that attaches the board: libusb reaches a testbed only
// through the preload library of its own process.
VEXA_SIM_PROCESS_ATTACHER(usb)
{
    // Without umockdev's preload library libusb cannot reach a testbed: the
    // process sees no board USB, and nothing of it is set up.
    if (!usb_preloaded())
        return;
    auto bus = std::make_shared<UsbBus>(board);
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_buses[board.root()] = bus;
        g_latest = bus;
    }
    // The board keeps the bus alive; the service names its testbed.
    board.serve("usb", [bus](const std::string &) { return bus->root(); });
}
