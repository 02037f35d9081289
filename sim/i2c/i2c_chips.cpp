// The I2C chips' model and the board's hal_i2c_reg_read/hal_i2c_reg_write.
#include "sim/i2c/i2c_chips.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include <iniparser.h>

#include "platform/hal.h"
#include "sim/state.h"

namespace vexa::sim {
namespace {

struct Reg {
    std::string bus;
    unsigned addr = 0, reg = 0, value = 0;
};

std::string hex(unsigned v)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", v);
    return text;
}

std::vector<Reg> load(const Board::State &s)
{
    std::vector<Reg> regs;
    std::istringstream in(read_state(s, "i2c"));
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        Reg r;
        std::string a, g, v;
        if (!(words >> r.bus >> a >> g >> v) || r.bus[0] == '#')
            continue;
        r.addr = std::strtoul(a.c_str(), nullptr, 0);
        r.reg = std::strtoul(g.c_str(), nullptr, 0);
        r.value = std::strtoul(v.c_str(), nullptr, 0) & 0xff;
        regs.push_back(r);
    }
    return regs;
}

void save(const Board::State &s, const std::vector<Reg> &regs)
{
    std::string text;
    for (const Reg &r : regs)
        text += r.bus + " " + hex(r.addr) + " " + hex(r.reg) + " " + hex(r.value) + "\n";
    write_state(s, "i2c", text);
}

std::string chip_name(const std::string &bus, unsigned addr) { return bus + "@" + hex(addr); }

// A chip "BUS@ADDR" of the knob i2c.silent (ADDR decimal or 0x).
bool parse_chip(const std::string &item, std::string *bus, unsigned *addr)
{
    const auto at = item.rfind('@');
    if (at == std::string::npos || at == 0 || item[0] != '/')
        return false;
    const std::string a = item.substr(at + 1);
    char *end = nullptr;
    const unsigned long n = std::strtoul(a.c_str(), &end, 0);
    if (a.empty() || *end != '\0' || a[0] == '-' || a[0] == '+' || n > 0x7f)
        return false;
    *bus = item.substr(0, at);
    *addr = unsigned(n);
    return true;
}

std::vector<std::string> silent_list(Board::State &s)
{
    std::vector<std::string> items;
    std::istringstream list(knob_value(s, "i2c.silent"));
    std::string item;
    while (std::getline(list, item, ','))
        if (!item.empty())
            items.push_back(item);
    return items;
}

// The RTC chip of the product INI, silent with the RTC (rtc.chip=silent).
struct RtcChip {
    std::string bus;
    unsigned addr = 0;
};

bool silent(Board::State &s, const RtcChip &rtc, const std::string &bus, unsigned addr)
{
    if (!rtc.bus.empty() && rtc.bus == bus && rtc.addr == addr && knob_value(s, "rtc.chip") == "silent")
        return true;
    for (const std::string &item : silent_list(s)) {
        std::string b;
        unsigned a = 0;
        if (parse_chip(item, &b, &a) && b == bus && a == addr)
            return true;
    }
    return false;
}

// "read BUS ADDR REG" -> "ok VALUE" | "nak"; "write BUS ADDR REG VALUE" ->
// "ok" | "nak"; "set ..." writes even a missing chip.
std::string serve_i2c(Board::State &s, const RtcChip &rtc, const std::string &request)
{
    std::istringstream words(request);
    std::string op, bus, a, g, v;
    words >> op >> bus >> a >> g >> v;
    const unsigned addr = std::strtoul(a.c_str(), nullptr, 0) & 0xff;
    const unsigned reg = std::strtoul(g.c_str(), nullptr, 0) & 0xff;
    const unsigned value = std::strtoul(v.c_str(), nullptr, 0) & 0xff;
    return with_board_lock(s, [&]() -> std::string {
        auto regs = load(s);
        bool chip = false;
        Reg *found = nullptr;
        for (Reg &r : regs) {
            if (r.bus == bus && r.addr == addr) {
                chip = true;
                if (r.reg == reg)
                    found = &r;
            }
        }
        if (op != "set" && (!chip || silent(s, rtc, bus, addr)))
            return "nak";
        if (op == "read")
            return "ok " + hex(found ? found->value : 0);
        if (op == "write" || op == "set") {
            if (found)
                found->value = value;
            else
                regs.push_back({bus, addr, reg, value});
            save(s, regs);
            return "ok";
        }
        return "nak";
    });
}

std::string request(const char *op, const std::string &bus, unsigned addr, unsigned reg,
                    unsigned value = 0)
{
    return std::string(op) + " " + bus + " " + hex(addr) + " " + hex(reg) + " " + hex(value);
}

} // namespace

std::optional<uint8_t> i2c_register(const Board &board, const std::string &bus, uint8_t addr,
                                    uint8_t reg)
{
    const auto reply = board.call("i2c", request("read", bus, addr, reg));
    if (!reply || reply->rfind("ok ", 0) != 0)
        return std::nullopt;
    return static_cast<uint8_t>(std::strtoul(reply->c_str() + 3, nullptr, 0));
}

void set_i2c_register(const Board &board, const std::string &bus, uint8_t addr, uint8_t reg,
                      uint8_t value)
{
    board.call("i2c", request("set", bus, addr, reg, value));
}

void set_i2c_silent(const Board &board, const std::string &bus, uint8_t addr, bool on)
{
    std::string list;
    std::istringstream items(board.knob("i2c.silent"));
    std::string item;
    while (std::getline(items, item, ',')) {
        std::string b;
        unsigned a = 0;
        if (!item.empty() && !(parse_chip(item, &b, &a) && b == bus && a == addr))
            list += (list.empty() ? "" : ",") + item;
    }
    if (on)
        list += (list.empty() ? "" : ",") + chip_name(bus, addr);
    board.set_knob("i2c.silent", list);
}

} // namespace vexa::sim

using namespace vexa::sim;

// The default board's chips, as the default product INI describes them: the
// codecs enabled at full volume and ready, the RTC's clock intact, the clock
// chip locked.
VEXA_SIM_SEEDER(i2c_chips)
{
    board.write_file("/.board/i2c",
                     "/dev/i2c-1 0x1a 0x02 0x01\n/dev/i2c-1 0x1a 0x03 0x00\n"
                     "/dev/i2c-1 0x1a 0x04 0x00\n/dev/i2c-1 0x1a 0x05 0x20\n"
                     "/dev/i2c-2 0x1b 0x02 0x01\n/dev/i2c-2 0x1b 0x03 0x00\n"
                     "/dev/i2c-2 0x1b 0x04 0x00\n/dev/i2c-2 0x1b 0x05 0x20\n"
                     "/dev/i2c-3 0x51 0x02 0x00\n/dev/i2c-3 0x68 0x0f 0x81\n");
}

VEXA_SIM_ATTACHER(i2c_chips)
{
    RtcChip rtc;
    if (board.exists("/vendor/etc/product.ini")) {
        const Descriptor file(board.folder().open("/vendor/etc/product.ini", O_RDONLY));
        if (dictionary *ini = file ? iniparser_load(descriptor_path(file.get()).c_str()) : nullptr) {
            rtc.bus = iniparser_getstring(ini, "i2c:i2c_rtc_0_path", "");
            rtc.addr = unsigned(iniparser_getint(ini, "i2c:i2c_rtc_0_device", 0)) & 0x7f;
            iniparser_freedict(ini);
        }
    }
    std::weak_ptr<Board::State> weak = attached();
    board.serve("i2c", [weak, rtc](const std::string &req) -> std::string {
        auto s = weak.lock();
        return s ? serve_i2c(*s, rtc, req) : "nak";
    });
    board.add_knob({"i2c.silent", "BUS@ADDR,...",
                    "these chips never acknowledge (ENXIO), e.g. /dev/i2c-1@0x1a", "",
                    Knob::list_of([](const std::string &item) {
                        std::string bus;
                        unsigned addr = 0;
                        return parse_chip(item, &bus, &addr);
                    })});
}

extern "C" int hal_i2c_reg_read(const char *path, uint8_t dev_addr, uint8_t reg_addr, uint8_t *out)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_i2c_reg_read", path ? path : "", int);
    if (!path || !out || path[0] == '\0') {
        errno = ENOENT;
        return -1;
    }
    const auto reply = call_service(s, "i2c", request("read", path, dev_addr, reg_addr));
    if (!reply || reply->rfind("ok ", 0) != 0) {
        errno = ENXIO; // no acknowledge from the chip
        return -1;
    }
    *out = static_cast<uint8_t>(std::strtoul(reply->c_str() + 3, nullptr, 0));
    return 0;
}

extern "C" int hal_i2c_reg_write(const char *path, uint8_t dev_addr, uint8_t reg_addr, uint8_t value)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_i2c_reg_write", path ? path : "", int);
    if (!path || path[0] == '\0') {
        errno = ENOENT;
        return -1;
    }
    const auto reply = call_service(s, "i2c", request("write", path, dev_addr, reg_addr, value));
    if (!reply || *reply != "ok") {
        errno = ENXIO;
        return -1;
    }
    return 0;
}
