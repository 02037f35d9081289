// The network model and its commands: ifconfig, ip, iw, iptables, phytool.
#include "sim/network/network_model.h"

#include <arpa/inet.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "sim/shell_filters.h"
#include "sim/state.h"

namespace vexa::sim {
namespace {

constexpr int kFailed = 1 << 8;

std::vector<NetInterface> load(const Board::State &s)
{
    std::vector<NetInterface> out;
    for (const auto &line : state_lines(read_state(s, "network"))) {
        std::istringstream words(line);
        NetInterface i;
        std::string state, address;
        if (!(words >> i.name >> state >> address >> i.mac))
            continue;
        i.up = state == "up";
        i.address = address == "-" ? "" : address;
        out.push_back(i);
    }
    return out;
}

void save(const Board::State &s, const std::vector<NetInterface> &ifaces)
{
    std::string text;
    for (const auto &i : ifaces)
        text += i.name + " " + (i.up ? "up" : "down") + " " + (i.address.empty() ? "-" : i.address) +
                " " + i.mac + "\n";
    write_state(s, "network", text);
}

// The cable: the carrier file's level, unless the knob network.link_down
// names the interface.
bool cable(Board::State &s, const std::string &name)
{
    std::istringstream down(knob_value(s, "network.link_down"));
    std::string item;
    while (std::getline(down, item, ','))
        if (item == name)
            return false;
    std::istringstream in(s.folder().read("/sys/class/net/" + name + "/carrier").value_or(""));
    int value = 0;
    return (in >> value) && value == 1;
}

bool is_up(const Board::State &s, const std::string &name)
{
    for (const auto &i : load(s))
        if (i.name == name)
            return i.up;
    return false;
}

// The carrier the kernel reports: the cable's, while the interface is
// administratively up.
bool carrier(Board::State &s, const std::string &name)
{
    return is_up(s, name) && cable(s, name);
}

// /sys/class/net/IFACE/carrier as the kernel serves it: "1" or "0" while
// the interface is up, and a read of a down interface fails with EINVAL.
class CarrierFile : public DeviceModel {
public:
    CarrierFile(std::weak_ptr<Board::State> state, std::string iface)
        : state_(std::move(state)), iface_(std::move(iface))
    {
    }

    ssize_t read(int fd, void *buf, size_t count) override
    {
        const off_t at = ::lseek(fd, 0, SEEK_CUR);
        const ssize_t n = pread(fd, buf, count, at < 0 ? 0 : at);
        if (n > 0)
            ::lseek(fd, n, SEEK_CUR);
        return n;
    }

    ssize_t pread(int, void *buf, size_t count, off_t offset) override
    {
        auto s = state_.lock();
        if (!s || !is_up(*s, iface_)) {
            errno = EINVAL;
            return -1;
        }
        const std::string text = cable(*s, iface_) ? "1\n" : "0\n";
        if (offset < 0 || size_t(offset) >= text.size())
            return 0;
        const size_t n = std::min(count, text.size() - size_t(offset));
        std::memcpy(buf, text.data() + offset, n);
        return ssize_t(n);
    }

    // The carrier of a real network device is not the user's to set.
    ssize_t write(int, const void *, size_t) override
    {
        errno = EINVAL;
        return -1;
    }
    ssize_t pwrite(int, const void *, size_t, off_t) override
    {
        errno = EINVAL;
        return -1;
    }

private:
    std::weak_ptr<Board::State> state_;
    std::string iface_;
};

// Address and prefix of "A.B.C.D/N".
bool split_address(const std::string &cidr, std::string *ip, int *prefix)
{
    const auto slash = cidr.find('/');
    *ip = cidr.substr(0, slash);
    *prefix = slash == std::string::npos ? 32 : std::atoi(cidr.c_str() + slash + 1);
    return !ip->empty();
}

std::string mask_of(int prefix)
{
    const uint32_t mask = prefix <= 0 ? 0 : (prefix >= 32 ? 0xffffffffu : ~((1u << (32 - prefix)) - 1));
    in_addr a{htonl(mask)};
    return inet_ntoa(a);
}

std::string broadcast_of(const std::string &ip, int prefix)
{
    in_addr a{};
    if (inet_aton(ip.c_str(), &a) == 0)
        return "0.0.0.0";
    const uint32_t host = prefix >= 32 ? 0 : (prefix <= 0 ? 0xffffffffu : (1u << (32 - prefix)) - 1);
    a.s_addr = htonl(ntohl(a.s_addr) | host);
    return inet_ntoa(a);
}

int prefix_of(const std::string &mask)
{
    in_addr a{};
    if (inet_aton(mask.c_str(), &a) == 0)
        return -1;
    return __builtin_popcount(ntohl(a.s_addr));
}

std::string ifconfig_block(Board::State &s, const NetInterface &i)
{
    std::ostringstream out;
    char head[128];
    std::snprintf(head, sizeof head, "%-10s", i.name.c_str());
    if (i.name == "lo")
        out << head << "Link encap:Local Loopback\n";
    else
        out << head << "Link encap:Ethernet  HWaddr " << i.mac << "\n";
    std::string ip;
    int prefix = 0;
    if (!i.address.empty() && split_address(i.address, &ip, &prefix))
        out << "          inet addr:" << ip << "  Bcast:" << broadcast_of(ip, prefix)
            << "  Mask:" << mask_of(prefix) << "\n";
    out << "          " << (i.up ? "UP " : "") << "BROADCAST "
        << (i.up && (i.name == "lo" || carrier(s, i.name)) ? "RUNNING " : "")
        << "MULTICAST  MTU:1500  Metric:1\n"
        << "          RX packets:0 errors:0 dropped:0 overruns:0 frame:0\n"
        << "          TX packets:0 errors:0 dropped:0 overruns:0 carrier:0\n"
        << "          collisions:0 txqueuelen:1000\n"
        << "          RX bytes:0 TX bytes:0\n\n";
    return out.str();
}

CommandResult ifconfig(Board::State &s, const std::vector<std::string> &argv)
{
    return with_board_lock(s, [&]() -> CommandResult {
        auto ifaces = load(s);
        bool all = false;
        std::vector<std::string> words;
        for (size_t i = 1; i < argv.size(); ++i) {
            if (argv[i] == "-a")
                all = true;
            else
                words.push_back(argv[i]);
        }
        if (words.empty()) {
            std::string out;
            for (const auto &i : ifaces)
                if (all || i.up)
                    out += ifconfig_block(s, i);
            return {0, out};
        }
        NetInterface *iface = nullptr;
        for (auto &i : ifaces)
            if (i.name == words[0])
                iface = &i;
        if (!iface)
            return {kFailed, ""}; // "ifconfig: NAME: error fetching interface information"
        if (words.size() == 1)
            return {0, ifconfig_block(s, *iface)};
        // ifconfig NAME [ADDRESS] [netmask MASK] [up|down]
        std::string ip;
        int prefix = 24;
        if (!iface->address.empty())
            split_address(iface->address, &ip, &prefix);
        for (size_t w = 1; w < words.size(); ++w) {
            in_addr a{};
            if (words[w] == "up") {
                iface->up = true;
            } else if (words[w] == "down") {
                iface->up = false;
            } else if (words[w] == "netmask" && w + 1 < words.size()) {
                prefix = prefix_of(words[++w]);
                if (prefix < 0)
                    return {kFailed, ""};
            } else if (inet_aton(words[w].c_str(), &a) != 0) {
                ip = words[w];
            } else {
                return {kFailed, ""};
            }
        }
        if (!ip.empty())
            iface->address = ip + "/" + std::to_string(prefix);
        save(s, ifaces);
        return {};
    });
}

CommandResult ip(Board::State &s, const std::vector<std::string> &argv)
{
    // ip addr show [NAME], ip a [NAME]
    if (argv.size() < 2 || (argv[1] != "addr" && argv[1] != "a" && argv[1] != "address"))
        return {kFailed, ""};
    std::string name;
    if (argv.size() >= 3 && argv[2] != "show")
        return {kFailed, ""};
    if (argv.size() >= 4)
        name = argv[3];
    const auto ifaces = with_board_lock(s, [&] { return load(s); });
    std::ostringstream out;
    int index = 0;
    bool found = false;
    for (const auto &i : ifaces) {
        ++index;
        if (!name.empty() && i.name != name)
            continue;
        found = true;
        const bool running = i.up && (i.name == "lo" || carrier(s, i.name));
        out << index << ": " << i.name << ": <" << (i.name == "lo" ? "LOOPBACK" : "BROADCAST,MULTICAST")
            << (i.up ? ",UP" : "") << (running ? ",LOWER_UP" : "") << "> mtu 1500 qdisc mq state "
            << (running ? "UP" : "DOWN") << " group default qlen 1000\n";
        out << "    link/ether " << i.mac << " brd ff:ff:ff:ff:ff:ff\n";
        std::string ip;
        int prefix = 0;
        if (!i.address.empty() && split_address(i.address, &ip, &prefix))
            out << "    inet " << ip << "/" << prefix << " brd " << broadcast_of(ip, prefix)
                << " scope global " << i.name << "\n       valid_lft forever preferred_lft forever\n";
    }
    if (!found && !name.empty())
        return {kFailed, ""}; // Device "NAME" does not exist.
    return {0, out.str()};
}

std::string setting(const Board::State &s, const std::string &key)
{
    for (const auto &line : state_lines(read_state(s, "network.conf"))) {
        const auto eq = line.find('=');
        if (eq != std::string::npos && line.substr(0, eq) == key)
            return line.substr(eq + 1);
    }
    return "";
}

CommandResult iw(Board::State &s, const std::vector<std::string> &argv)
{
    // iw dev NAME info
    if (argv.size() != 4 || argv[1] != "dev" || argv[3] != "info")
        return {kFailed, ""};
    const auto ifaces = with_board_lock(s, [&] { return load(s); });
    int index = 0;
    for (const auto &i : ifaces) {
        ++index;
        if (i.name != argv[2] || i.name.rfind("wlan", 0) != 0)
            continue;
        const bool ap = i.name == "wlan1";
        const int channel = ap ? std::atoi(setting(s, "ap_channel").c_str()) : 0;
        const int mhz = channel == 14 ? 2484 : 2407 + 5 * channel;
        std::ostringstream out;
        out << "Interface " << i.name << "\n\tifindex " << index << "\n\twdev 0x" << index
            << "\n\taddr " << i.mac << "\n\ttype " << (ap ? "AP" : "managed") << "\n";
        if (ap && channel > 0)
            out << "\tchannel " << channel << " (" << mhz << " MHz), width: 20 MHz, center1: " << mhz
                << " MHz\n";
        out << "\ttxpower 20.00 dBm\n";
        return {0, out.str()};
    }
    return {kFailed, ""}; // command failed: No such device (-19)
}

std::string rule_line(size_t n, const std::string &rule)
{
    std::istringstream words(rule);
    std::string target, prot, src, dst;
    words >> target >> prot >> src >> dst;
    char line[160];
    std::snprintf(line, sizeof line, "%-4zu %-10s %-4s %-3s  %-20s %-20s\n", n, target.c_str(),
                  prot.c_str(), "--", src.c_str(), dst.c_str());
    return line;
}

CommandResult iptables(Board::State &s, const std::vector<std::string> &argv)
{
    std::string op, chain, source = "0.0.0.0/0", target;
    bool numeric = false, line_numbers = false;
    for (size_t i = 1; i < argv.size(); ++i) {
        const std::string &a = argv[i];
        if ((a == "-A" || a == "-D" || a == "-L") && i + 1 < argv.size()) {
            op = a;
            chain = argv[++i];
        } else if (a == "-nL" && i + 1 < argv.size()) {
            op = "-L";
            numeric = true;
            chain = argv[++i];
        } else if (a == "-n") {
            numeric = true;
        } else if (a == "--line-number" || a == "--line-numbers") {
            line_numbers = true;
        } else if (a == "-s" && i + 1 < argv.size()) {
            source = argv[++i];
        } else if (a == "-j" && i + 1 < argv.size()) {
            target = argv[++i];
        } else {
            return {2 << 8, ""}; // Bad argument
        }
    }
    (void)numeric;
    if (chain != "FORWARD")
        return {1 << 8, ""}; // only the FORWARD chain is modelled
    return with_board_lock(s, [&]() -> CommandResult {
        auto rules = state_lines(read_state(s, "iptables"));
        if (op == "-L") {
            std::string out = "Chain FORWARD (policy ACCEPT)\n";
            out += std::string(line_numbers ? "num  " : "") +
                   "target     prot opt source               destination         \n";
            for (size_t n = 0; n < rules.size(); ++n) {
                std::string line = rule_line(n + 1, rules[n]);
                out += line_numbers ? line : line.substr(5);
            }
            return {0, out};
        }
        if (target.empty())
            return {2 << 8, ""};
        const std::string rule = target + " all " + source + " 0.0.0.0/0";
        if (op == "-A") {
            rules.push_back(rule);
        } else if (op == "-D") {
            bool removed = false;
            for (auto it = rules.begin(); it != rules.end(); ++it) {
                if (*it == rule) {
                    rules.erase(it);
                    removed = true;
                    break;
                }
            }
            if (!removed)
                return {1 << 8, ""}; // Bad rule (does a matching rule exist in that chain?)
        } else {
            return {2 << 8, ""};
        }
        std::string text;
        for (const auto &r : rules)
            text += r + "\n";
        write_state(s, "iptables", text);
        return {};
    });
}

// phytool read IFACE ADDR REG: the PHY's register as its driver prints it.
// The link status register 0x1f04 sets bit 2 while the link is up.
CommandResult phytool(Board::State &s, const std::vector<std::string> &argv)
{
    if (argv.size() != 5 || argv[1] != "read")
        return {kFailed, ""};
    const unsigned addr = std::strtoul(argv[3].c_str(), nullptr, 0);
    const unsigned reg = std::strtoul(argv[4].c_str(), nullptr, 0);
    const auto ifaces = with_board_lock(s, [&] { return load(s); });
    bool known = false;
    for (const auto &i : ifaces)
        known = known || i.name == argv[2];
    if (!known)
        return {kFailed, ""};
    unsigned value = 0;
    if (reg == 0x1f04)
        value = 0x0a08 | (carrier(s, argv[2]) ? 0x04 : 0);
    char line[96];
    std::snprintf(line, sizeof line, "read phy addr: 0x%x  reg: 0x%x   value : 0x%x\n", addr, reg,
                  value);
    return {0, line};
}

using Program = CommandResult (*)(Board::State &, const std::vector<std::string> &);

void serve_command(Board &board, const char *program, Program run)
{
    std::weak_ptr<Board::State> weak = attached();
    board.on_command(program, [weak, run](const std::vector<std::string> &,
                                          const std::string &command) -> CommandResult {
        auto s = weak.lock();
        const auto stages = split_pipeline(command);
        if (!s || stages.empty())
            return {kFailed, ""};
        const CommandResult first = run(*s, stages[0]);
        if (stages.size() == 1)
            return first;
        const auto out = run_filters(first.output, stages);
        if (!out)
            return {127 << 8, ""};
        return {0, *out};
    });
}

} // namespace

std::vector<NetInterface> net_interfaces(const Board &board)
{
    std::vector<NetInterface> out;
    std::istringstream in(board.exists("/.board/network") ? board.read_file("/.board/network") : "");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        NetInterface i;
        std::string state, address;
        if (!(words >> i.name >> state >> address >> i.mac) || i.name[0] == '#')
            continue;
        i.up = state == "up";
        i.address = address == "-" ? "" : address;
        out.push_back(i);
    }
    return out;
}

std::optional<NetInterface> net_interface(const Board &board, const std::string &name)
{
    for (const auto &i : net_interfaces(board))
        if (i.name == name)
            return i;
    return std::nullopt;
}

void set_net_interface(const Board &board, const NetInterface &iface)
{
    auto ifaces = net_interfaces(board);
    bool replaced = false;
    for (auto &i : ifaces) {
        if (i.name == iface.name) {
            i = iface;
            replaced = true;
        }
    }
    if (!replaced)
        ifaces.push_back(iface);
    std::string text;
    for (const auto &i : ifaces)
        text += i.name + " " + (i.up ? "up" : "down") + " " + (i.address.empty() ? "-" : i.address) +
                " " + i.mac + "\n";
    board.write_file("/.board/network", text);
}

void remove_net_interface(const Board &board, const std::string &name)
{
    std::string text;
    for (const auto &i : net_interfaces(board))
        if (i.name != name)
            text += i.name + " " + (i.up ? "up" : "down") + " " +
                    (i.address.empty() ? "-" : i.address) + " " + i.mac + "\n";
    board.write_file("/.board/network", text);
}

void set_carrier(const Board &board, const std::string &name, bool link)
{
    board.write_file("/sys/class/net/" + name + "/carrier", link ? "1\n" : "0\n");
}

std::vector<std::string> forward_rules(const Board &board)
{
    return state_lines(board.exists("/.board/iptables") ? board.read_file("/.board/iptables") : "");
}

} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_SEEDER(network)
{
    board.write_file("/.board/network", "lo up 127.0.0.1/8 00:00:00:00:00:00\n"
                                        "eth0 up 192.168.1.120/24 a2:5c:3e:10:00:01\n"
                                        "eth1 down - a2:5c:3e:10:00:02\n"
                                        "wlan0 up 192.168.31.25/24 a2:5c:3e:10:00:03\n"
                                        "wlan1 up 192.168.41.1/24 a2:5c:3e:10:00:04\n");
    board.write_file("/.board/iptables", "");
    board.write_file("/.board/network.conf", "ap_channel=6\n");
    set_carrier(board, "eth0", true);
    set_carrier(board, "eth1", false);
    set_carrier(board, "wlan0", true);
    set_carrier(board, "wlan1", true);
}

VEXA_SIM_ATTACHER(network)
{
    std::weak_ptr<Board::State> weak = attached();
    for (const auto &iface : net_interfaces(board))
        if (iface.name != "lo")
            board.add_model("/sys/class/net/" + iface.name + "/carrier",
                            std::make_shared<CarrierFile>(weak, iface.name));
    board.add_knob({"network.link_down", "IFACE,...",
                    "the cable of these interfaces is out: no carrier, the link and the PHY down", "",
                    Knob::list_of([](const std::string &name) {
                        return !name.empty() && name.size() < 16 &&
                               name.find_first_of("/ \t") == std::string::npos;
                    })});
    serve_command(board, "ifconfig", ifconfig);
    serve_command(board, "ip", ip);
    serve_command(board, "iw", iw);
    serve_command(board, "iptables", iptables);
    serve_command(board, "phytool", phytool);
}
