// usb-device.conf and the state text of the bulk device.
#include "sim/usb/usb_settings.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace vexa::sim {
namespace {

bool number(const std::string &text, long min, long max, long *out)
{
    if (text.empty() || text.size() > 16)
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

std::string hex(const std::string &bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

int nibble(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

bool unhex(const std::string &text, std::string *out)
{
    if (text.size() % 2 != 0)
        return false;
    out->clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        const int hi = nibble(text[i]), lo = nibble(text[i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        out->push_back(static_cast<char>(hi << 4 | lo));
    }
    return true;
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
        else if (key == "speed" && (value == "12" || value == "480"))
            s.speed = value == "12" ? 12 : 480;
        else if (key == "configurations" && number(value, 0, 1, &n))
            s.configurations = static_cast<int>(n);
        else if (key == "driver" && !value.empty() && value.size() < 64 &&
                 value.find_first_of("/ \t") == std::string::npos)
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

std::string usb_state_text(const UsbDeviceState &state)
{
    std::string out = "plugged " + std::to_string(state.plugged ? 1 : 0) + "\nbus " + std::to_string(state.bus) +
                      "\naddress " + std::to_string(state.address) + "\nspeed " + state.speed + "\n";
    for (const auto &[interface, claimer] : state.claimed)
        out += "claimed " + std::to_string(interface) + " " + claimer + "\n";
    for (const auto &[interface, driver] : state.drivers)
        out += "driver " + std::to_string(interface) + " " + driver + "\n";
    for (const auto &[endpoint, bytes] : state.received)
        out += "received " + std::to_string(endpoint) + " " + hex(bytes) + "\n";
    out += "transfers " + std::to_string(state.transfers) + "\n";
    return out;
}

std::optional<UsbDeviceState> parse_usb_state(const std::string &text)
{
    UsbDeviceState state;
    std::istringstream in(text);
    std::string line;
    bool placed = false;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string key, word, rest;
        long n = 0;
        if (!(words >> key >> word))
            return std::nullopt;
        words >> rest;
        std::string extra;
        if (words >> extra)
            return std::nullopt;
        // Three words for what names an interface or endpoint, two for the rest.
        const bool three = key == "claimed" || key == "driver" || key == "received";
        if (three == rest.empty())
            return std::nullopt;
        if (key == "plugged" && (word == "0" || word == "1")) {
            state.plugged = word == "1";
        } else if (key == "bus" && number(word, 0, 127, &n)) {
            state.bus = static_cast<int>(n);
            placed = true;
        } else if (key == "address" && number(word, 0, 127, &n)) {
            state.address = static_cast<int>(n);
        } else if (key == "speed" && word.find_first_not_of("0123456789.") == std::string::npos) {
            state.speed = word;
        } else if ((key == "claimed" || key == "driver") && number(word, 0, 255, &n)) {
            (key == "claimed" ? state.claimed : state.drivers)[static_cast<int>(n)] = rest;
        } else if (key == "received" && number(word, 0, 15, &n)) {
            if (!unhex(rest, &state.received[static_cast<int>(n)]))
                return std::nullopt;
        } else if (key == "transfers" && number(word, 0, 0x7fffffff, &n)) {
            state.transfers = static_cast<int>(n);
        } else {
            return std::nullopt;
        }
    }
    if (!placed)
        return std::nullopt;
    return state;
}

} // namespace vexa::sim
