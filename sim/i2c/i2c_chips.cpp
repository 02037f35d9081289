// The I2C chips' model and the board's hal_i2c_reg_read/hal_i2c_reg_write.
#include "sim/i2c/i2c_chips.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>

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

bool silent(const Board::State &s, const std::string &bus, unsigned addr)
{
    std::istringstream in(read_state(s, "i2c.conf"));
    std::string line;
    const std::string chip = chip_name(bus, addr);
    while (std::getline(in, line)) {
        if (line.rfind("silent", 0) != 0 || line.find('=') == std::string::npos)
            continue;
        std::istringstream list(line.substr(line.find('=') + 1));
        std::string item;
        while (std::getline(list, item, ',')) {
            item.erase(0, item.find_first_not_of(' '));
            item.erase(item.find_last_not_of(' ') + 1);
            if (item == chip)
                return true;
        }
    }
    return false;
}

void set_silent(const Board::State &s, const std::string &bus, unsigned addr, bool on)
{
    std::string list;
    std::istringstream in(read_state(s, "i2c.conf"));
    std::string line, rest;
    const std::string chip = chip_name(bus, addr);
    while (std::getline(in, line)) {
        if (line.rfind("silent", 0) == 0 && line.find('=') != std::string::npos) {
            std::istringstream items(line.substr(line.find('=') + 1));
            std::string item;
            while (std::getline(items, item, ',')) {
                item.erase(0, item.find_first_not_of(' '));
                item.erase(item.find_last_not_of(' ') + 1);
                if (!item.empty() && item != chip)
                    list += (list.empty() ? "" : ",") + item;
            }
        } else {
            rest += line + "\n";
        }
    }
    if (on)
        list += (list.empty() ? "" : ",") + chip;
    write_state(s, "i2c.conf", rest + "silent = " + list + "\n");
}

// "read BUS ADDR REG" -> "ok VALUE" | "nak"; "write BUS ADDR REG VALUE" ->
// "ok" | "nak"; "set ..." writes even a missing chip; "silent BUS ADDR 0|1".
std::string serve_i2c(Board::State &s, const std::string &request)
{
    std::istringstream words(request);
    std::string op, bus, a, g, v;
    words >> op >> bus >> a >> g >> v;
    const unsigned addr = std::strtoul(a.c_str(), nullptr, 0) & 0xff;
    const unsigned reg = std::strtoul(g.c_str(), nullptr, 0) & 0xff;
    const unsigned value = std::strtoul(v.c_str(), nullptr, 0) & 0xff;
    return with_board_lock(s, [&]() -> std::string {
        if (op == "silent") {
            set_silent(s, bus, addr, g == "1");
            return "ok";
        }
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
        if (op != "set" && (!chip || silent(s, bus, addr)))
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
    board.call("i2c", "silent " + bus + " " + hex(addr) + " " + (on ? "1" : "0"));
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
    board.write_file("/.board/i2c.conf", "# chips that do not answer: BUS@ADDR, comma-separated\n"
                                         "silent = \n");
}

VEXA_SIM_ATTACHER(i2c_chips)
{
    std::weak_ptr<Board::State> weak = attached();
    board.serve("i2c", [weak](const std::string &req) -> std::string {
        auto s = weak.lock();
        return s ? serve_i2c(*s, req) : "nak";
    });
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
