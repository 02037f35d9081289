// Link, PHY and Wi-Fi status against the board's network model.
#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>

#include "network/command_output.h"
#include "platform/os.h"
#include "sim/network/network_model.h"
#include "support/board_fixture.h"
#include "vexasdk/network.h"

namespace {

class LinkTest : public vexa::test::ProductTest {
protected:
    void module(const char *id)
    {
        board().set_module_id(id);
        load();
    }
    void bring_up(const char *name)
    {
        auto iface = vexa::sim::net_interface(board(), name);
        ASSERT_TRUE(iface);
        iface->up = true;
        vexa::sim::set_net_interface(board(), *iface);
    }
    // The carrier file as a program reads it: its text, or the read's errno.
    std::string carrier_read(const char *name)
    {
        const int fd = vexa::os::open((std::string("/sys/class/net/") + name + "/carrier").c_str(), O_RDONLY);
        if (fd < 0)
            return "open errno " + std::to_string(errno);
        char buf[8] = {};
        const ssize_t n = vexa::os::read(fd, buf, sizeof buf);
        const int error = errno;
        vexa::os::close(fd);
        return n < 0 ? "errno " + std::to_string(error) : std::string(buf, size_t(n));
    }
};

// The carrier is the kernel's: the cable's level while the interface is
// administratively up, no carrier at all (EINVAL) while it is down.
TEST_F(LinkTest, AnInterfaceSetDownHasNoCarrier)
{
    EXPECT_EQ(carrier_read("eth0"), "1\n");
    EXPECT_EQ(bi_network_get_pz50_link_status(), 1);
    ASSERT_EQ(vexa::os::system("ifconfig eth0 down"), 0);
    EXPECT_EQ(carrier_read("eth0"), "errno " + std::to_string(EINVAL));
    EXPECT_EQ(bi_network_get_pz50_link_status(), -2);
    EXPECT_EQ(check_network_port(1), 0) << "the PHY of a down interface has no link";
    ASSERT_EQ(vexa::os::system("ifconfig eth0 up"), 0);
    EXPECT_EQ(bi_network_get_pz50_link_status(), 1);
    // The cable pulled (the board's knob): up, but no carrier, no link.
    ASSERT_EQ(board().set_knob("network.link_down", "wlan1,eth0"), 0);
    EXPECT_EQ(carrier_read("eth0"), "0\n");
    EXPECT_EQ(bi_network_get_pz50_link_status(), 0);
    EXPECT_EQ(check_network_port(1), 0);
    FILE *p = vexa::os::popen("ifconfig eth0", "r");
    ASSERT_TRUE(p);
    char line[256];
    std::string text;
    while (std::fgets(line, sizeof line, p))
        text += line;
    vexa::os::pclose(p);
    EXPECT_NE(text.find("UP BROADCAST MULTICAST"), std::string::npos) << text;
    ASSERT_EQ(board().set_knob("network.link_down", ""), 0);
    EXPECT_EQ(bi_network_get_pz50_link_status(), 1);
    // The carrier is not the user's to write.
    const int fd = vexa::os::open("/sys/class/net/eth0/carrier", O_WRONLY);
    ASSERT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(vexa::os::write(fd, "0", 1), -1);
    EXPECT_EQ(errno, EINVAL);
    vexa::os::close(fd);
    EXPECT_EQ(carrier_read("eth0"), "1\n");
}

TEST_F(LinkTest, LinkWordSurvivesARoundTrip)
{
    for (uint64_t word : {uint64_t{0}, uint64_t{1} << 39, UINT64_MAX}) {
        ASSERT_EQ(bi_set_netport_link(word), 0);
        uint64_t back = 1;
        ASSERT_EQ(bi_get_netport_link(&back), 0);
        EXPECT_EQ(back, word);
    }
    EXPECT_EQ(board().property("vexa.netport_link_status"), "18446744073709551615");
}

TEST_F(LinkTest, LinkWordRejectsWhatIsNotANumber)
{
    uint64_t back = 7;
    const std::pair<const char *, const char *> cases[] = {
        {"12a", "83"}, {"-1", "83"}, {"18446744073709551616", "83"}, {"0x10", "83"}};
    for (auto [text, code] : cases) {
        board().set_property("vexa.netport_link_status", text);
        board().clear_log();
        EXPECT_EQ(bi_get_netport_link(&back), -1) << text;
        EXPECT_EQ(board().log_lines(),
                  std::vector<std::string>{std::string("E/vexa_system_bi_misc: bi_get_netport_link: ") + code})
            << text;
    }
    EXPECT_EQ(back, 7u);
}

TEST_F(LinkTest, CarrierFileGivesTheLink)
{
    EXPECT_EQ(bi_network_get_pz50_link_status(), 1);
    vexa::sim::set_carrier(board(), "eth0", false);
    EXPECT_EQ(bi_network_get_pz50_link_status(), 0);
    board().remove_file("/sys/class/net/eth0/carrier");
    EXPECT_EQ(bi_network_get_pz50_link_status(), -1);
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_network: vexa_open /sys/class/net/eth0/carrier Failed");
}

TEST_F(LinkTest, PhyCommandsGiveThePortMask)
{
    EXPECT_EQ(check_network_port(1), 1);
    EXPECT_EQ(check_network_port(2), 0);
    EXPECT_TRUE(logged("D/vexa_system_bi_network: Retrieved value: 0xa08"));
    // eth1 boots down: its PHY has no link until the interface is up and cabled.
    vexa::sim::set_carrier(board(), "eth1", true);
    EXPECT_EQ(check_network_port(2), 0);
    bring_up("eth1");
    board().clear_commands();
    EXPECT_EQ(bi_network_get_phy_link_status(), 3);
    // A linked port is asked twice.
    EXPECT_EQ(board().commands().size(), 4u);
    configure("phy_num", std::string("0"));
    EXPECT_EQ(bi_network_get_phy_link_status(), 0);
}

TEST_F(LinkTest, PortsThreeAndFourHaveNoCommand)
{
    board().clear_commands();
    EXPECT_EQ(check_network_port(3), -1);
    EXPECT_EQ(board().log_lines(),
              (std::vector<std::string>{"E/vexa_system_bi_network: command is NULL",
                                        "E/vexa_system_bi_network: Error getting link status for port 3"}));
    EXPECT_EQ(check_network_port(5), -1);
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_network: Invalid port number: 5");
    EXPECT_TRUE(board().commands().empty());
}

TEST_F(LinkTest, PhyCommandRunsAsGivenPipesIncluded)
{
    // The PHY-family boards filter the tool's output in their INI commands.
    const std::string eth0 = "/vendor/bin/phytool read eth0 0x1d 0x1f04 | grep value";
    const std::string eth1 = "/vendor/bin/phytool read eth1 0x1d 0x1f04 | grep 'value :' | head -n 1";
    rebuild(vexa::sim::Board::Builder().ini(
        vexa::test::ini_with("phy2_state_cmd", eth1, vexa::test::ini_with("phy1_state_cmd", eth0))));
    module("8474");
    vexa::sim::set_carrier(board(), "eth0", false);
    vexa::sim::set_carrier(board(), "eth1", true);
    bring_up("eth1");
    board().clear_commands();
    EXPECT_EQ(check_network_port(1), 0);
    EXPECT_EQ(check_network_port(2), 1);
    EXPECT_EQ(board().commands(), (std::vector<std::string>{eth0, eth1}));
    EXPECT_EQ(bi_network_detection(), 2);
    EXPECT_TRUE(logged("D/vexa_system_bi_network: bi_network_get_link_status_detail: command = " + eth1));
}

TEST_F(LinkTest, CommandWithoutTheRegisterLineGivesZero)
{
    EXPECT_EQ(bi_network_get_link_status_detail("/vendor/bin/phytool read eth0 0x1d 0x1f05"), 0);
    EXPECT_EQ(bi_network_get_link_status_detail(nullptr), -1);
}

TEST_F(LinkTest, DetectionFollowsTheModuleId)
{
    const std::pair<const char *, int> cases[] = {
        {"38409", 1}, {"38429", 1}, {"38430", -1}, {"8456", 1}, {"8461", -1}, {"8472", 1}, {"4374", 1},
        {"4097", -1},
    };
    for (auto [id, expected] : cases) {
        module(id);
        EXPECT_EQ(bi_network_detection(), expected) << id;
    }
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_network: bi_network_detection 197 default case");
    module("8474");
    vexa::sim::set_carrier(board(), "eth0", false);
    vexa::sim::set_carrier(board(), "eth1", true);
    bring_up("eth1");
    EXPECT_EQ(bi_network_detection(), 2);
}

class WifiTest : public vexa::test::ProductTest {};

TEST_F(WifiTest, IsolationAddsAndRemovesTheRule)
{
    EXPECT_EQ(bi_network_get_ap_insulation(), 0);
    ASSERT_EQ(bi_network_set_ap_insulation(1), 0);
    EXPECT_EQ(vexa::sim::forward_rules(board()),
              std::vector<std::string>{"DROP all 192.168.41.0/24 0.0.0.0/0"});
    EXPECT_EQ(bi_network_get_ap_insulation(), 1);
    board().clear_commands();
    // Already on: nothing changes.
    ASSERT_EQ(bi_network_set_ap_insulation(1), 0);
    EXPECT_EQ(board().commands(),
              std::vector<std::string>{"/system/bin/iptables -nL FORWARD --line-number"});
    ASSERT_EQ(bi_network_set_ap_insulation(0), 0);
    EXPECT_TRUE(vexa::sim::forward_rules(board()).empty());
    EXPECT_EQ(board().commands().back(), "/system/bin/iptables -D FORWARD -s 192.168.41.0/24 -j DROP");
    EXPECT_EQ(bi_network_set_ap_insulation(2), -1);
}

TEST_F(WifiTest, AChangeThatRanIsZeroAndOneThatExitedBadlyIsLogged)
{
    // iptables ran and exited 1: 0, a warning, and the state read back shows
    // that nothing changed.
    board().inject(vexa::sim::Fault::on("system").at("/system/bin/iptables -A").returns(1 << 8).once());
    EXPECT_EQ(bi_network_set_ap_insulation(1), 0);
    EXPECT_EQ(board().log_lines().back(),
              "W/vexa_system_bi_network: bi_network_set_ap_insulation: /system/bin/iptables -A FORWARD -s "
              "192.168.41.0/24 -j DROP exited with 1: the isolation is not changed");
    EXPECT_EQ(bi_network_get_ap_insulation(), 0);
    // A delete of a rule that is not there: iptables itself exits 1.
    board().write_file("/.board/iptables", "DROP all 192.168.41.0/24 10.0.0.0/8\n");
    EXPECT_EQ(bi_network_get_ap_insulation(), 1);
    EXPECT_EQ(bi_network_set_ap_insulation(0), 0);
    EXPECT_EQ(board().log_lines().back(),
              "W/vexa_system_bi_network: bi_network_set_ap_insulation: /system/bin/iptables -D FORWARD -s "
              "192.168.41.0/24 -j DROP exited with 1: the isolation is not changed");
    EXPECT_EQ(bi_network_get_ap_insulation(), 1);
    board().write_file("/.board/iptables", "");

    // Not run, or killed: 252.
    for (int status : {-1, SIGKILL}) {
        board().inject(vexa::sim::Fault::on("system").at("/system/bin/iptables -A").returns(status).once());
        EXPECT_EQ(bi_network_set_ap_insulation(1), 252) << status;
        EXPECT_EQ(board().log_lines().back(),
                  "E/vexa_system_bi_network: iptables operation failed!!!!!!!!!!!!!!!!!!!!!!!!!");
    }
    EXPECT_EQ(bi_network_get_ap_insulation(), 0);
    board().inject(vexa::sim::Fault::on("popen").at("/system/bin/iptables").returns(0));
    EXPECT_EQ(bi_network_set_ap_insulation(1), -3);
    EXPECT_EQ(bi_network_get_ap_insulation(), -2);
}

TEST_F(WifiTest, AccessPointStationAndChannel)
{
    EXPECT_EQ(bi_network_get_ap_state(), 0);
    EXPECT_EQ(bi_network_get_sta_state(), 0);
    EXPECT_EQ(bi_network_get_ap_channel(), 6);
    EXPECT_TRUE(logged("D/vexa_system_bi_network: bi_network_get_ap_state: wlan1 found"));
    vexa::sim::remove_net_interface(board(), "wlan0");
    EXPECT_EQ(bi_network_get_sta_state(), -1);
}

TEST_F(WifiTest, IpAddressOfAnInterface)
{
    bi_ip_address_t rec{};
    ASSERT_EQ(bi_network_get_ip_address("eth0", &rec), 0);
    EXPECT_STREQ(rec.name, "eth0");
    EXPECT_STREQ(rec.ip, "192.168.1.120");
    EXPECT_EQ(bi_network_get_ip_address("eth1", &rec), -1);
    EXPECT_EQ(board().log_lines().back(),
              "E/vexa_system_bi_network: bi_network_get_ip_address: no IP address found for interface eth1");
    // The FPGA's link bring-up configures eth1 with ifconfig.
    ASSERT_EQ(vexa::os::system("ifconfig eth1 240.10.10.10 netmask 255.255.255.0 up"), 0);
    ASSERT_EQ(bi_network_get_ip_address("eth1", &rec), 0);
    EXPECT_STREQ(rec.ip, "240.10.10.10");
    EXPECT_EQ(vexa::sim::net_interface(board(), "eth1")->address, "240.10.10.10/24");
}

TEST_F(WifiTest, InterfaceNamesThatAreNotPlainWordsAreRefused)
{
    bi_ip_address_t rec{};
    board().clear_commands();
    EXPECT_EQ(bi_network_get_ip_address("eth0;reboot", &rec), -1);
    EXPECT_EQ(bi_network_get_ip_address("-6", &rec), -1);
    EXPECT_EQ(bi_network_get_ip_address(nullptr, &rec), -1);
    EXPECT_TRUE(board().commands().empty());
    EXPECT_EQ(board().log_lines().front(), "E/vexa_system_bi_network: bi_network_get_ip_address: refusing shell "
                                           "metacharacters in \"eth0;reboot\"");
}

TEST(CommandOutput, PhyRegisterLineAndIsolationRule)
{
    using namespace vexa::net;
    EXPECT_EQ(phy_register_value("read phy addr: 0x1d  reg: 0x1f04   value : 0xa0c\n"), 0xa0cu);
    EXPECT_FALSE(phy_register_value("read phy addr: 0x1c  reg: 0x1f04   value : 0xa0c"));
    EXPECT_FALSE(phy_register_value(""));
    EXPECT_TRUE(isolation_rule("1    DROP       all  --  192.168.41.0/24      0.0.0.0/0"));
    EXPECT_FALSE(isolation_rule("1    ACCEPT     all  --  192.168.41.0/24      0.0.0.0/0"));
    EXPECT_FALSE(isolation_rule("1    DROP       all  --  192.168.42.0/24      0.0.0.0/0"));
    EXPECT_EQ(link_word("18446744073709551615"), UINT64_MAX);
    EXPECT_FALSE(link_word("1 "));
}

} // namespace
