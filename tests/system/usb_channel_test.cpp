// The USB bulk channel and the device list, through real libusb on the
// board's USB bus.
#include <dirent.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "sim/usb/usb.h"
#include "support/board_fixture.h"
#include "vexasdk/system.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace vexa::test {
namespace {

const char kTag[] = "vexa_system_bi_ops_usb_port";
constexpr uint16_t kVendor = 0x1209;
constexpr uint16_t kProduct = 0x0001;
constexpr uint8_t kBulk = 2;

int open_descriptors()
{
    int count = 0;
    if (DIR *dir = ::opendir("/proc/self/fd")) {
        while (::readdir(dir) != nullptr)
            ++count;
        ::closedir(dir);
    }
    return count;
}

// The process's descriptors once the board's bus is up (the host keeps a
// socket to the bus's helper) and they stop changing.
int descriptors_at_rest(const sim::Board &board)
{
    EXPECT_NE(sim::usb_testbed(board), "");
    int count = open_descriptors();
    for (int same = 0, i = 0; same < 3 && i < 500; ++i) {
        ::usleep(10000);
        const int now = open_descriptors();
        same = now == count ? same + 1 : 0;
        count = now;
    }
    return count;
}

// The process's descriptors once the preload library has let go of a
// closed device node: at most five seconds.
int descriptors_settled_at(int expected)
{
    int count = open_descriptors();
    for (int i = 0; i < 500 && count != expected; ++i) {
        ::usleep(10000);
        count = open_descriptors();
    }
    return count;
}

class UsbChannelTest : public BoardTest {
protected:
    void TearDown() override
    {
        bi_usb_close();
        BoardTest::TearDown();
    }

    // A fresh board whose bulk device has these settings (lines of
    // ROOT/.board/usb-device.conf).
    void with_device(const std::string &settings)
    {
        rebuild(sim::Board::Builder().file("/.board/usb-device.conf", settings));
        board().clear_log();
    }

    std::vector<std::string> usb_log() { return log_of(kTag); }

    std::string echo(const std::string &text)
    {
        const auto *out = reinterpret_cast<const uint8_t *>(text.data());
        EXPECT_EQ(bi_usb_blocking_write(out, static_cast<int32_t>(text.size()), 1000),
                  static_cast<int32_t>(text.size()));
        uint8_t in[64] = {0};
        const int32_t n = bi_usb_blocking_read(in, sizeof in, 1000);
        return n < 0 ? "(failed)" : std::string(reinterpret_cast<char *>(in), static_cast<size_t>(n));
    }

    // The channel holds nothing: no handle, device, list or port record.
    void expect_closed()
    {
        EXPECT_EQ(vexa_usb_handle, nullptr);
        EXPECT_EQ(vexa_usb_dev, nullptr);
        EXPECT_EQ(vexa_usb_devs, nullptr);
        const vexa_usb_port_t zero{};
        EXPECT_EQ(std::memcmp(&vexa_usb_port, &zero, sizeof zero), 0);
    }
};

TEST_F(UsbChannelTest, OpensTheBulkPairOfTheClassAndEchoesThroughLibusb)
{
    board().clear_log();
    vexa_usb_port_t port;
    std::memset(&port, 0xee, sizeof port);
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 7, kBulk, &port), 0);
    // Interface 0's interrupt endpoint 0x83 comes first and is passed over.
    EXPECT_EQ(port.vendor_id, kVendor);
    EXPECT_EQ(port.product_id, kProduct);
    EXPECT_EQ(port.interface_class, 0xff);
    EXPECT_EQ(port.selector, 7);
    EXPECT_EQ(port.transfer_type, kBulk);
    EXPECT_EQ(port.endpoint_in, 0x81);
    EXPECT_EQ(port.endpoint_out, 0x01);
    EXPECT_EQ(port.interface_number, 0);
    EXPECT_EQ(std::memcmp(&port, &vexa_usb_port, sizeof port), 0);
    EXPECT_NE(vexa_usb_handle, nullptr);
    EXPECT_NE(vexa_usb_dev, nullptr);
    EXPECT_NE(vexa_usb_devs, nullptr);
    auto device = sim::usb_device_state(board());
    ASSERT_TRUE(device);
    EXPECT_THAT(device->claimed, ElementsAre(std::pair<const int, std::string>(0, "usbfs")));
    EXPECT_THAT(usb_log(), ElementsAre("D/vexa_system_bi_ops_usb_port: 找到输入端点,地址:129",
                                       "D/vexa_system_bi_ops_usb_port: 找到输出端点,地址:1",
                                       "D/vexa_system_bi_ops_usb_port: bi_usb_open:In bEndpointAddress:129",
                                       "D/vexa_system_bi_ops_usb_port: bi_usb_open:Out bEndpointAddress:1",
                                       "D/vexa_system_bi_ops_usb_port: bi_usb_open:usb open success"));

    board().clear_log();
    EXPECT_EQ(echo("hello"), "hello");
    EXPECT_EQ(sim::usb_device_state(board())->transfers, 2);
    EXPECT_THAT(usb_log(),
                ElementsAre("D/vexa_system_bi_ops_usb_port: bi_usb_blocking_write: Writing to endpoint 0x01, count=5",
                            "D/vexa_system_bi_ops_usb_port: bi_usb_blocking_write: Wrote 5 bytes successfully",
                            "D/vexa_system_bi_ops_usb_port: bi_usb_blocking_read: Reading from endpoint 0x81, "
                            "expecting 64 bytes, timeout=1000ms",
                            "D/vexa_system_bi_ops_usb_port: bi_usb_blocking_read: Read 5 bytes, libusb_ret=0"));
}

TEST_F(UsbChannelTest, TheSecondInterfaceOfItsClassIsClaimedWithItsOwnEndpoints)
{
    vexa_usb_port_t port{};
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0x0a, 0, kBulk, &port), 0);
    EXPECT_EQ(port.endpoint_in, 0x82);
    EXPECT_EQ(port.endpoint_out, 0x02);
    EXPECT_EQ(port.interface_number, 1);
    EXPECT_THAT(sim::usb_device_state(board())->claimed,
                ElementsAre(std::pair<const int, std::string>(1, "usbfs")));
    EXPECT_EQ(echo("over interface 1"), "over interface 1");
}

TEST_F(UsbChannelTest, ADeviceWithoutTheRequestedPairStillOpensWithEndpointsZero)
{
    // No interface of class 0x08; and interface 0's only interrupt endpoint
    // is an IN one, so an interrupt pair is not found either.
    for (const auto &[cls, type] : {std::pair<uint8_t, uint8_t>{0x08, kBulk}, {0xff, 3}}) {
        vexa_usb_port_t port{};
        ASSERT_EQ(bi_usb_open(kVendor, kProduct, cls, 0, type, &port), 0) << int(cls);
        EXPECT_EQ(port.endpoint_in, 0);
        EXPECT_EQ(port.endpoint_out, 0);
        EXPECT_EQ(port.interface_number, 0);
        EXPECT_TRUE(logged("D/vexa_system_bi_ops_usb_port: bi_usb_open:In bEndpointAddress:0"));
        bi_usb_close();
    }
}

TEST_F(UsbChannelTest, FailedOpensReturnTheirCodeAndLeaveNothingBehind)
{
    struct Case {
        const char *settings;
        uint16_t vendor;
        int32_t code;
        std::vector<std::string> lines; // the error lines, in order
    };
    const Case cases[] = {
        {"", 0xdead, -1,
         {"E/vexa_system_bi_ops_usb_port: bi_get_device_endpoint:vexa_usb_dev is NULL",
          "E/vexa_system_bi_ops_usb_port: bi_usb_open:*** bi_get_device_endpoint failed! ret:-1 ",
          "E/vexa_system_bi_ops_usb_port: bi_usb_open:usb open failed, ret=-1"}},
        {"device=none\nothers=none\n", kVendor, -2,
         {"E/vexa_system_bi_ops_usb_port: bi_usb_open:*** bi_get_device_descriptor failed! ",
          "E/vexa_system_bi_ops_usb_port: bi_usb_open:usb open failed, ret=-2"}},
        {"configurations=0\n", kVendor, -2,
         {"E/vexa_system_bi_ops_usb_port: bi_usb_open:*** bi_get_device_endpoint failed! ret:-2 ",
          "E/vexa_system_bi_ops_usb_port: bi_usb_open:usb open failed, ret=-2"}},
        {"node=missing\n", kVendor, -5,
         {"E/vexa_system_bi_ops_usb_port: bi_usb_open:*** Permission denied or Can not find the USB board "
          "(Maybe the USB driver has not been installed correctly), quit!",
          "E/vexa_system_bi_ops_usb_port: bi_usb_open:usb open failed, ret=-5"}},
        // The claim fails with no driver to detach: libusb finds none.
        {"claim=fail\n", kVendor, -6,
         {"E/vexa_system_bi_ops_usb_port: bi_usb_open:*** libusb_detach_kernel_driver failed! ret:-5",
          "E/vexa_system_bi_ops_usb_port: bi_usb_open:usb open failed, ret=-6"}},
        {"driver=usb-storage\ndetach=fail\n", kVendor, -6,
         {"E/vexa_system_bi_ops_usb_port: bi_usb_open:*** libusb_detach_kernel_driver failed! ret:-99",
          "E/vexa_system_bi_ops_usb_port: bi_usb_open:usb open failed, ret=-6"}},
        {"driver=usb-storage\nclaim=fail\n", kVendor, -7,
         {"E/vexa_system_bi_ops_usb_port: bi_usb_open:*** libusb_claim_interface failed! ret:-6",
          "E/vexa_system_bi_ops_usb_port: bi_usb_open:usb open failed, ret=-7"}},
    };
    for (const Case &c : cases) {
        with_device(c.settings);
        const int descriptors = descriptors_at_rest(board());
        vexa_usb_port_t port;
        std::memset(&port, 0x5a, sizeof port);
        EXPECT_EQ(bi_usb_open(c.vendor, kProduct, 0xff, 0, kBulk, &port), c.code) << c.settings;
        std::vector<std::string> errors;
        for (const auto &line : usb_log())
            if (line.rfind("E/", 0) == 0)
                errors.push_back(line);
        EXPECT_EQ(errors, c.lines) << c.settings;
        expect_closed();
        EXPECT_EQ(port.vendor_id, 0x5a5a) << "the caller's record is left alone";
        // umockdev keeps two sockets of each open of a missing node: only
        // the others show that libusb was closed.
        if (c.code != -5) {
            EXPECT_EQ(descriptors_settled_at(descriptors), descriptors) << c.settings;
        }
        if (auto device = sim::usb_device_state(board())) {
            EXPECT_THAT(device->claimed, IsEmpty()) << c.settings;
        }
    }
}

TEST_F(UsbChannelTest, AKernelDriverIsDetachedBeforeTheSecondClaim)
{
    with_device("driver=usb-storage\n");
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), 0);
    const auto device = sim::usb_device_state(board());
    EXPECT_THAT(device->drivers, IsEmpty());
    EXPECT_THAT(device->claimed, ElementsAre(std::pair<const int, std::string>(0, "usbfs")));
}

TEST_F(UsbChannelTest, CloseReleasesEverythingAndIsSafeTwice)
{
    const int descriptors = descriptors_at_rest(board());
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), 0);
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0x0a, 0, kBulk, nullptr), 0);
    EXPECT_TRUE(logged("W/vexa_system_bi_ops_usb_port: bi_usb_open:usb already open, closing it first"));
    EXPECT_THAT(sim::usb_device_state(board())->claimed,
                ElementsAre(std::pair<const int, std::string>(1, "usbfs")));
    board().clear_log();
    EXPECT_EQ(bi_usb_close(), 0);
    expect_closed();
    EXPECT_THAT(sim::usb_device_state(board())->claimed, IsEmpty());
    EXPECT_EQ(descriptors_settled_at(descriptors), descriptors) << "the device and libusb are closed";
    EXPECT_EQ(bi_usb_close(), 0);
    EXPECT_THAT(usb_log(), ElementsAre("D/vexa_system_bi_ops_usb_port: bi_usb_close:USB device closed successfully",
                                       "D/vexa_system_bi_ops_usb_port: bi_usb_close:usb not open, already closed"));
}

TEST_F(UsbChannelTest, TransfersRefuseBadArgumentsAndAClosedChannel)
{
    uint8_t buf[8] = {1, 2, 3};
    EXPECT_EQ(bi_usb_blocking_write(buf, 3, 100), -1);
    EXPECT_TRUE(logged("E/vexa_system_bi_ops_usb_port: bi_usb_blocking_write: usb not open"));
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), 0);
    board().clear_log();
    EXPECT_EQ(bi_usb_blocking_write(buf, 0, 100), -1);
    EXPECT_EQ(bi_usb_blocking_write(nullptr, 3, 100), -1);
    EXPECT_EQ(bi_usb_blocking_read(buf, -1, 100), -1);
    EXPECT_THAT(usb_log(), ElementsAre("E/vexa_system_bi_ops_usb_port: bi_usb_blocking_write: invalid params",
                                       "E/vexa_system_bi_ops_usb_port: bi_usb_blocking_write: invalid params",
                                       "E/vexa_system_bi_ops_usb_port: bi_usb_blocking_read: invalid params"));
    EXPECT_EQ(sim::usb_device_state(board())->transfers, 0);
}

TEST_F(UsbChannelTest, AReadWithNothingSentTimesOut)
{
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), 0);
    uint8_t buf[8];
    EXPECT_EQ(bi_usb_blocking_read(buf, sizeof buf, 20), -1);
    EXPECT_TRUE(logged("E/vexa_system_bi_ops_usb_port: bi_usb_blocking_read: bulk transfer failed, ret:-7 "
                       "(libusb error)"));
    // The cancelled transfer took nothing: what is sent next comes back whole.
    EXPECT_EQ(echo("after"), "after");
}

TEST_F(UsbChannelTest, ALongWriteComesBackInPieces)
{
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), 0);
    std::string text(3000, '\0');
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(bi_usb_blocking_write(reinterpret_cast<const uint8_t *>(text.data()), 3000, 1000), 3000);
    std::string back;
    uint8_t buf[1024];
    int32_t n;
    while (back.size() < text.size() && (n = bi_usb_blocking_read(buf, sizeof buf, 1000)) > 0)
        back.append(reinterpret_cast<char *>(buf), static_cast<size_t>(n));
    EXPECT_EQ(back, text);
}

TEST_F(UsbChannelTest, TheDeviceListTakesTheCommunicationBusesDevices)
{
    EXPECT_EQ(bi_usb_get_vexa_devices(nullptr), -1);
    vexa_usb_devices_t list;
    std::memset(&list, 0x77, sizeof list);
    board().clear_log();
    // Bus 1: a root hub and the bulk device; bus 3 (not a communication
    // bus): a root hub and a keyboard; bus 5: a root hub and a USB stick.
    ASSERT_EQ(bi_usb_get_vexa_devices(&list), 1);
    ASSERT_EQ(list.count, 1);
    const vexa_usb_device_info_t &d = list.devices[0];
    EXPECT_EQ(d.bus, 1);
    EXPECT_EQ(d.address, 2);
    EXPECT_EQ(d.vendor_id, kVendor);
    EXPECT_EQ(d.product_id, kProduct);
    EXPECT_EQ(d.configuration, 1);
    EXPECT_EQ(d.interface_number, 0);
    EXPECT_EQ(d.interface_class, 0xff);
    EXPECT_EQ(list.devices[1].bus, 0) << "the rest of the record is zeroed";
    const auto lines = usb_log();
    auto count = [&](const std::string &line) { return std::count(lines.begin(), lines.end(), line); };
    EXPECT_EQ(count("E/vexa_system_bi_ops_usb_port: bi_usb_dumpdevice: This bus not vexa usb communication port"), 2);
    EXPECT_EQ(count("E/vexa_system_bi_ops_usb_port: bi_usb_dumpdevice: addr 0x001 is not devices"), 2);
    EXPECT_EQ(count("I/vexa_system_bi_ops_usb_port: bi_usb_dumpdevice: /dev/bus/usb/001/002"), 1);
    EXPECT_EQ(count("I/vexa_system_bi_ops_usb_port: bi_usb_dumpdevice: deviceDescriptor.idVendor = 1209"), 1);
    EXPECT_EQ(count("I/vexa_system_bi_ops_usb_port: bi_usb_dumpdevice: deviceDescriptor.idVendor = 0781"), 1);
    EXPECT_EQ(count("I/vexa_system_bi_ops_usb_port: bi_usb_dumpdevice: deviceDescriptor.idProduct = 5583"), 1);

    // The tables are read on every call.
    const int32_t bus = Vexa_usb_devices_bus[1];
    Vexa_usb_devices_bus[1] = 3;
    EXPECT_EQ(bi_usb_get_vexa_devices(&list), 1) << "the keyboard is a HID device";
    Vexa_usb_devices_bus[1] = bus;
}

TEST_F(UsbChannelTest, EveryUnsupportedClassIsLeftOut)
{
    for (const int32_t cls : Nonsupport_bInterfaceClass) {
        with_device("class=" + std::to_string(cls) + "\nothers=none\n");
        vexa_usb_devices_t list;
        // Interface 1 is CDC data (10), also unsupported.
        EXPECT_EQ(bi_usb_get_vexa_devices(&list), 0) << cls;
    }
    with_device("class=2\nothers=none\n");
    vexa_usb_devices_t list;
    EXPECT_EQ(bi_usb_get_vexa_devices(&list), 1);
    EXPECT_EQ(list.devices[0].interface_class, 2);
}

TEST_F(UsbChannelTest, TheDeviceListLeavesAnOpenChannelOpen)
{
    ASSERT_EQ(bi_usb_open(kVendor, kProduct, 0xff, 0, kBulk, nullptr), 0);
    vexa_usb_devices_t list;
    EXPECT_EQ(bi_usb_get_vexa_devices(&list), 1);
    EXPECT_EQ(echo("still open"), "still open");
}

} // namespace
} // namespace vexa::test
