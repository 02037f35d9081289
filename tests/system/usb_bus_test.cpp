// The board's USB bus as programs see it: one device for every process,
// usbfs's claims and refusals, the cable pulled and put back (libusb's
// hotplug), the device's speed, and a bounded echo.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <libusb.h>
#include <linux/usbdevice_fs.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "sim/usb/usb.h"
#include "sim/usb/usb_settings.h"
#include "support/board_fixture.h"
#include "vexasdk/system.h"

extern char **environ;

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

namespace vexa::test {
namespace {

constexpr uint16_t kVendor = 0x1209;
constexpr uint16_t kProduct = 0x0001;
constexpr uint8_t kBulk = 2;

struct Ran {
    std::string out, err;
    int status = -1;
};

std::string drain(int fd)
{
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<size_t>(n));
    ::close(fd);
    return text;
}

// Runs the test's program (usb_program.cpp) on the board in root, with or
// without umockdev's preload library, and nothing of this process's USB
// set-up: it finds the board's bus by itself.
Ran run_program(const std::string &root, const std::vector<std::string> &args, bool preload)
{
    std::vector<std::string> env;
    for (char **e = environ; *e != nullptr; ++e) {
        const std::string var = *e;
        if (var.rfind("LD_PRELOAD=", 0) != 0 && var.rfind("UMOCKDEV_DIR=", 0) != 0 &&
            var.rfind("VEXA_BOARD=", 0) != 0)
            env.push_back(var);
    }
    env.push_back("VEXA_BOARD=" + root);
    if (preload)
        env.push_back("LD_PRELOAD=libumockdev-preload.so.0");
    std::vector<char *> envp, argv;
    for (auto &e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string program = USB_PROGRAM;
    argv.push_back(program.data());
    std::vector<std::string> words = args;
    for (auto &w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    int out[2], err[2];
    EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(err, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    pid_t pid = -1;
    Ran ran;
    const int rc = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    EXPECT_EQ(rc, 0);
    std::thread errors([&] { ran.err = drain(err[0]); });
    ran.out = drain(out[0]);
    errors.join();
    if (rc == 0)
        ::waitpid(pid, &ran.status, 0);
    return ran;
}

// One open of a usbfs node, through the preload library of this process.
class Usbfs {
public:
    explicit Usbfs(const std::string &node) : fd_(::open(node.c_str(), O_RDWR | O_CLOEXEC)) {}
    ~Usbfs()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    int fd() const { return fd_; }

    // 0, or the errno of the refusal.
    int claim(unsigned interface) { return result(::ioctl(fd_, USBDEVFS_CLAIMINTERFACE, &interface)); }
    int release(unsigned interface) { return result(::ioctl(fd_, USBDEVFS_RELEASEINTERFACE, &interface)); }
    int submit(unsigned endpoint, unsigned char type)
    {
        urbs_.emplace_back();
        usbdevfs_urb &urb = urbs_.back();
        urb.type = type;
        urb.endpoint = static_cast<unsigned char>(endpoint);
        urb.buffer = buffer_;
        urb.buffer_length = 4;
        return result(::ioctl(fd_, USBDEVFS_SUBMITURB, &urb));
    }
    int driver(unsigned interface, std::string *name)
    {
        usbdevfs_getdriver query{};
        query.interface = interface;
        const int rc = result(::ioctl(fd_, USBDEVFS_GETDRIVER, &query));
        *name = query.driver;
        return rc;
    }
    int disconnect(unsigned interface)
    {
        usbdevfs_ioctl command{};
        command.ifno = static_cast<int>(interface);
        command.ioctl_code = USBDEVFS_DISCONNECT;
        return result(::ioctl(fd_, USBDEVFS_IOCTL, &command));
    }

private:
    static int result(int rc) { return rc < 0 ? errno : 0; }
    int fd_;
    char buffer_[4] = {'p', 'i', 'n', 'g'};
    std::deque<usbdevfs_urb> urbs_; // the kernel writes back to a URB until it is reaped
};

class UsbBusTest : public BoardTest {
protected:
    void TearDown() override
    {
        bi_usb_close();
        BoardTest::TearDown();
    }

    void with_device(const std::string &settings)
    {
        rebuild(sim::Board::Builder().file("/.board/usb-device.conf", settings));
    }

    // This process's raw opens reach the board's bus as libusb's do.
    std::string node(int address)
    {
        ::setenv("UMOCKDEV_DIR", sim::usb_testbed(board()).c_str(), 1);
        char path[32];
        std::snprintf(path, sizeof path, "/dev/bus/usb/001/%03d", address);
        return path;
    }
};

TEST_F(UsbBusTest, UsbfsRefusesWhatTheKernelRefusesWithItsErrno)
{
    Usbfs first(node(2)), second(node(2));
    ASSERT_GE(first.fd(), 0);
    ASSERT_GE(second.fd(), 0);
    ASSERT_EQ(first.claim(0), 0);
    std::string driver;
    struct Case {
        const char *what;
        int error;
        int got;
    };
    // Each in order: a refusal leaves the claims as they were.
    const Case cases[] = {
        {"a second open claims a claimed interface", EBUSY, second.claim(0)},
        {"a transfer on another open's interface", EBUSY, second.submit(0x01, USBDEVFS_URB_TYPE_BULK)},
        {"an interrupt transfer on it", EBUSY, second.submit(0x83, USBDEVFS_URB_TYPE_INTERRUPT)},
        {"releasing what another open claimed", EINVAL, second.release(0)},
        {"an endpoint the device does not have", ENOENT, second.submit(0x05, USBDEVFS_URB_TYPE_BULK)},
        {"an interface the device does not have", ENOENT, second.claim(2)},
        {"a bulk endpoint used as an interrupt one", EINVAL, second.submit(0x02, USBDEVFS_URB_TYPE_INTERRUPT)},
        {"the driver of an interface nobody holds", ENODATA, second.driver(1, &driver)},
        {"detaching the driver of an interface nobody holds", ENODATA, second.disconnect(1)},
        // A program that did not claim interface 1 first gets it with its
        // first transfer, as usbfs does; then it is the first open's to lose.
        {"a transfer on a free interface", 0, second.submit(0x02, USBDEVFS_URB_TYPE_BULK)},
        {"claiming it from the first open", EBUSY, first.claim(1)},
    };
    for (const Case &c : cases)
        EXPECT_EQ(c.got, c.error) << c.what << ": " << std::strerror(c.got);
    EXPECT_EQ(second.driver(0, &driver), 0);
    EXPECT_EQ(driver, "usbfs");
    const auto state = sim::usb_device_state(board());
    ASSERT_TRUE(state);
    EXPECT_THAT(state->claimed, ElementsAre(Pair(0, "usbfs"), Pair(1, "usbfs")));
    EXPECT_THAT(state->received, ElementsAre(Pair(2, "ping"))) << "only the free interface's transfer went out";
}

TEST_F(UsbBusTest, ClosingTheNodeReleasesItsClaimsForTheNextOpen)
{
    {
        Usbfs first(node(2));
        ASSERT_EQ(first.claim(0), 0);
        Usbfs second(node(2));
        EXPECT_EQ(second.claim(0), EBUSY);
    }
    // The preload library closes its end of the node's socket at once, and
    // the bus learns of it on its own thread.
    for (int i = 0; i < 500 && !sim::usb_device_state(board())->claimed.empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    Usbfs third(node(2));
    EXPECT_EQ(third.claim(0), 0);
}

TEST_F(UsbBusTest, TwoProgramsTalkToOneDeviceAndItsClaimsKeepThemApart)
{
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), 0);
    const std::string text = "left by the first program";
    ASSERT_EQ(bi_usb_blocking_write(reinterpret_cast<const uint8_t *>(text.data()),
                                    static_cast<int32_t>(text.size()), 1000),
              static_cast<int32_t>(text.size()));
    // The interface is this process's: the other program's claim is refused
    // and there is no kernel driver to detach (libusb: not found).
    board().clear_log();
    Ran busy = run_program(board().root(), {"read"}, true);
    EXPECT_EQ(busy.out, "open -6\n") << busy.err;
    EXPECT_THAT(log_of("vexa_system_bi_ops_usb_port"),
                ::testing::Contains("E/vexa_system_bi_ops_usb_port: bi_usb_open:*** libusb_detach_kernel_driver "
                                    "failed! ret:-5"));
    ASSERT_EQ(bi_usb_close(), 0);
    // Released, the interface is the other program's, and what this one left
    // in the device comes back to it.
    Ran read = run_program(board().root(), {"read"}, true);
    EXPECT_EQ(read.out, "open 0\nread " + text + "\n") << read.err;
    EXPECT_EQ(read.err, "");
    EXPECT_THAT(sim::usb_device_state(board())->received, IsEmpty());
}

TEST_F(UsbBusTest, AProgramWithoutThePreloadLibraryIsToldHowToReachTheBus)
{
    Ran ran = run_program(board().root(), {"read"}, false);
    EXPECT_EQ(ran.err, "vexaboard: libusb in this process sees this machine's USB, not the virtual board's; "
                       "start the program with LD_PRELOAD=libumockdev-preload.so.0 to reach the board's bus\n");
    EXPECT_NE(ran.out, "open 0\n");
}

struct HotplugLog {
    std::vector<std::string> events;
};

int on_hotplug(libusb_context *, libusb_device *device, libusb_hotplug_event event, void *data)
{
    auto *log = static_cast<HotplugLog *>(data);
    log->events.push_back(std::string(event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED ? "arrived" : "left") + " " +
                          std::to_string(libusb_get_bus_number(device)) + "-" +
                          std::to_string(libusb_get_device_address(device)));
    return 0;
}

// libusb's events until the log holds count of them (at most five seconds).
void events_until(libusb_context *context, const HotplugLog &log, size_t count)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (log.events.size() < count && std::chrono::steady_clock::now() < end) {
        timeval step = {0, 20000};
        libusb_handle_events_timeout_completed(context, &step, nullptr);
    }
}

TEST_F(UsbBusTest, UnpluggedAndPluggedAgainTheDeviceComesBackAtTheNextAddress)
{
    libusb_context *context = nullptr;
    ASSERT_EQ(libusb_init(&context), 0);
    HotplugLog log;
    libusb_hotplug_callback_handle handle;
    ASSERT_EQ(libusb_hotplug_register_callback(
                  context, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT,
                  LIBUSB_HOTPLUG_ENUMERATE, kVendor, kProduct, LIBUSB_HOTPLUG_MATCH_ANY, on_hotplug, &log, &handle),
              0);
    EXPECT_THAT(log.events, ElementsAre("arrived 1-2"));

    ASSERT_EQ(board().set_knob("usb.device", "unplugged"), 0);
    events_until(context, log, 2);
    auto state = sim::usb_device_state(board());
    EXPECT_FALSE(state->plugged);
    EXPECT_EQ(::access(node(2).c_str(), F_OK), -1) << "its node has gone";

    ASSERT_EQ(board().set_knob("usb.device", "plugged"), 0);
    events_until(context, log, 3);
    EXPECT_THAT(log.events, ElementsAre("arrived 1-2", "left 1-2", "arrived 1-3"));
    state = sim::usb_device_state(board());
    EXPECT_TRUE(state->plugged);
    EXPECT_EQ(state->address, 3);
    libusb_hotplug_deregister_callback(context, handle);
    libusb_exit(context);

    // The library finds it where it is now.
    vexa_usb_devices_t list;
    ASSERT_EQ(bi_usb_get_vexa_devices(&list), 1);
    EXPECT_EQ(list.devices[0].address, 3);
}

TEST_F(UsbBusTest, ABusSetUpWhileTheKnobSaysUnpluggedHasNoDevice)
{
    rebuild(sim::Board::Builder().file("/.board/knobs", "usb.device=unplugged\n"));
    const auto state = sim::usb_device_state(board());
    ASSERT_TRUE(state);
    EXPECT_FALSE(state->plugged);
    EXPECT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), -1);
    ASSERT_EQ(board().set_knob("usb.device", ""), 0) << "cleared, the knob is back to plugged";
    EXPECT_TRUE(sim::usb_device_state(board())->plugged);
    EXPECT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), 0);
}

TEST_F(UsbBusTest, AnOpenChannelFailsWithNoDeviceOnceUnpluggedAndOpensAgainOncePlugged)
{
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), 0);
    // A read waiting for data when the cable goes ends then, as the host
    // controller ends it, not at its timeout.
    int32_t read = 0;
    std::thread reader([&] {
        uint8_t buf[16];
        read = bi_usb_blocking_read(buf, sizeof buf, 60000);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(board().set_knob("usb.device", "unplugged"), 0);
    reader.join();
    EXPECT_EQ(read, -1);
    const uint8_t text[] = "after";
    EXPECT_EQ(bi_usb_blocking_write(text, 5, 1000), -1);
    EXPECT_EQ(bi_usb_close(), 0);
    EXPECT_THAT(log_of("vexa_system_bi_ops_usb_port"),
                ::testing::IsSupersetOf(
                    {"E/vexa_system_bi_ops_usb_port: bi_usb_blocking_read: bulk transfer failed, ret:-4 (libusb error)",
                     "E/vexa_system_bi_ops_usb_port: bi_usb_blocking_write: bulk transfer failed, ret:-4",
                     "W/vexa_system_bi_ops_usb_port: bi_usb_close:libusb_release_interface failed! ret:-4, but "
                     "continue cleanup"}));
    EXPECT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), -1) << "the bus has no such device";

    ASSERT_EQ(board().set_knob("usb.device", "plugged"), 0);
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), 0);
    EXPECT_EQ(bi_usb_blocking_write(text, 5, 1000), 5);
    EXPECT_THAT(sim::usb_device_state(board())->received, ElementsAre(Pair(1, "after")))
        << "a new device, with nothing of the old one's echo";
}

TEST_F(UsbBusTest, EachDeviceReportsItsOwnSpeed)
{
    struct Case {
        const char *settings;
        uint16_t vendor;
        int speed;
        int packet; // of bulk IN 0x81 (the keyboard: its interrupt IN)
    };
    const Case cases[] = {
        {"", kVendor, LIBUSB_SPEED_HIGH, 512},
        {"speed=12\n", kVendor, LIBUSB_SPEED_FULL, 64},
        {"", 0x413c, LIBUSB_SPEED_LOW, 8},   // the keyboard on bus 3
        {"", 0x0781, LIBUSB_SPEED_HIGH, 512}, // the USB stick on bus 5
    };
    for (const Case &c : cases) {
        with_device(c.settings);
        libusb_context *context = nullptr;
        ASSERT_EQ(libusb_init(&context), 0);
        libusb_device **list = nullptr;
        const ssize_t count = libusb_get_device_list(context, &list);
        int speed = -1, packet = -1;
        for (ssize_t i = 0; i < count; ++i) {
            libusb_device_descriptor d{};
            libusb_get_device_descriptor(list[i], &d);
            if (d.idVendor == c.vendor) {
                speed = libusb_get_device_speed(list[i]);
                packet = libusb_get_max_packet_size(list[i], 0x81);
            }
        }
        libusb_free_device_list(list, 1);
        libusb_exit(context);
        EXPECT_EQ(speed, c.speed) << c.settings << std::hex << c.vendor;
        EXPECT_EQ(packet, c.packet) << c.settings << std::hex << c.vendor;
    }
    EXPECT_EQ(sim::usb_device_state(board())->speed, "480");
}

TEST_F(UsbBusTest, AFullEchoHoldsAnOutTransferUntilTheInSideIsRead)
{
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), 0);
    std::vector<uint8_t> text(20000);
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<uint8_t>('a' + i % 26);
    // Nothing reads: the device takes what its echo holds and NAKs the rest
    // until the transfer times out.
    EXPECT_EQ(bi_usb_blocking_write(text.data(), 20000, 200), -1);
    EXPECT_TRUE(logged("E/vexa_system_bi_ops_usb_port: bi_usb_blocking_write: bulk transfer failed, ret:-7"));
    const auto held = sim::usb_device_state(board())->received.at(1);
    EXPECT_EQ(held.size(), 16384u);
    EXPECT_EQ(held, std::string(text.begin(), text.begin() + 16384));
    // Read, the echo takes the next write whole.
    std::vector<uint8_t> buf(16384);
    EXPECT_EQ(bi_usb_blocking_read(buf.data(), 16384, 1000), 16384);
    EXPECT_EQ(bi_usb_blocking_write(text.data(), 100, 1000), 100);
}

TEST(UsbSettingsTest, EveryKeyTakesItsValuesAndRefusesOthers)
{
    struct Case {
        const char *line;
        bool taken;
    };
    const Case cases[] = {
        {"device=none", true},      {"device=gone", false},   {"others=none", true},
        {"vendor=0x2e8a", true},    {"vendor=0x10000", false}, {"product=7", true},
        {"class=0x0a", true},       {"class=256", false},      {"bus=3", true},
        {"bus=0", false},           {"address=127", true},     {"address=1", false},
        {"speed=12", true},         {"speed=5000", false},     {"configurations=0", true},
        {"configurations=2", false}, {"driver=usb-storage", true}, {"driver=a/b", false},
        {"detach=fail", true},      {"claim=fail", true},      {"claim=maybe", false},
        {"node=missing", true},     {"colour=blue", false},    {"no equals sign", false},
    };
    for (const Case &c : cases) {
        std::vector<std::string> problems;
        sim::parse_usb_settings(std::string(c.line) + "  # a comment\n", &problems);
        EXPECT_EQ(problems.empty(), c.taken) << c.line;
    }
    const sim::UsbSettings s = sim::parse_usb_settings("vendor=0x2e8a\nproduct=7\nclass=0x0a\nbus=3\naddress=9\n"
                                                       "speed=12\ndriver=cdc_acm\ndevice=none\n");
    EXPECT_EQ(s.vendor, 0x2e8a);
    EXPECT_EQ(s.product, 7);
    EXPECT_EQ(s.interface_class, 0x0a);
    EXPECT_EQ(s.bus, 3);
    EXPECT_EQ(s.address, 9);
    EXPECT_EQ(s.speed, 12);
    EXPECT_EQ(s.driver, "cdc_acm");
    EXPECT_FALSE(s.present);
}

TEST(UsbSettingsTest, TheStateTextComesBackAsItWent)
{
    sim::UsbDeviceState state;
    state.plugged = true;
    state.bus = 5;
    state.address = 17;
    state.speed = "12";
    state.claimed = {{1, "usbfs"}};
    state.drivers = {{0, "usb-storage"}};
    state.received = {{2, std::string("\0\xff\n x", 5)}};
    state.transfers = 42;
    const auto back = sim::parse_usb_state(sim::usb_state_text(state));
    ASSERT_TRUE(back);
    EXPECT_TRUE(back->plugged);
    EXPECT_EQ(back->bus, 5);
    EXPECT_EQ(back->address, 17);
    EXPECT_EQ(back->speed, "12");
    EXPECT_EQ(back->claimed, state.claimed);
    EXPECT_EQ(back->drivers, state.drivers);
    EXPECT_EQ(back->received, state.received);
    EXPECT_EQ(back->transfers, 42);
    for (const char *bad : {"", "bus 1\nreceived 1 6\n", "bus 1\nclaimed 0\n", "bus 1\ntransfers 1 2\n",
                            "bus 1\nplugged yes\n", "address 2\n"})
        EXPECT_FALSE(sim::parse_usb_state(bad)) << bad;
}

} // namespace
} // namespace vexa::test
