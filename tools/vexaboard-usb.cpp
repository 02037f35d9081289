// vexaboard-usb: holds a virtual board's USB bus, a umockdev testbed, for
// the board's host. The host starts it, with umockdev's preload library,
// when the bus is first needed, and talks to it over descriptor 3; it
// removes its testbed and leaves when that descriptor closes (or on
// SIGTERM).
//
//   vexaboard-usb SETTINGS_FILE
//
// Each request and each reply is a 4-byte length (in the host's byte
// order) and that many bytes. The requests are those of the board's "usb"
// service: "testbed", "state", "plug", "unplug" (sim/usb/usb_settings.h).
#include <dlfcn.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "sim/usb/bus/usb_bus.h"

namespace {

constexpr int kControl = 3;
constexpr uint32_t kMaxRequest = 4096;

void on_term(int) { ::shutdown(kControl, SHUT_RDWR); }

bool read_all(void *data, size_t len)
{
    auto *p = static_cast<char *>(data);
    while (len > 0) {
        const ssize_t n = ::read(kControl, p, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool write_all(const void *data, size_t len)
{
    const auto *p = static_cast<const char *>(data);
    while (len > 0) {
        const ssize_t n = ::send(kControl, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

std::string answer(vexa::sim::UsbBus &bus, const std::string &request)
{
    if (request == "testbed")
        return bus.root();
    if (request == "state") {
        const auto state = bus.state();
        return state ? vexa::sim::usb_state_text(*state) : "none";
    }
    if (request == "plug" || request == "unplug")
        return bus.set_plugged(request == "plug") ? "ok" : "none";
    return "unknown request";
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: vexaboard-usb SETTINGS_FILE (started by the board's host)\n");
        return 2;
    }
    if (void *preload = ::dlopen("libumockdev-preload.so.0", RTLD_LAZY | RTLD_NOLOAD)) {
        ::dlclose(preload);
    } else {
        std::fprintf(stderr, "vexaboard-usb: umockdev's preload library (libumockdev-preload.so.0) is not loaded\n");
        return 1;
    }
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGINT, SIG_IGN); // the host leaves on ^C, and that ends this
    std::signal(SIGHUP, SIG_IGN);
    struct sigaction term = {};
    term.sa_handler = on_term;
    ::sigaction(SIGTERM, &term, nullptr);

    std::ostringstream text;
    text << std::ifstream(argv[1]).rdbuf();
    vexa::sim::UsbBus bus(vexa::sim::parse_usb_settings(text.str()));
    for (;;) {
        uint32_t length = 0;
        if (!read_all(&length, sizeof length) || length > kMaxRequest)
            break;
        std::string request(length, '\0');
        if (!read_all(request.data(), length))
            break;
        const std::string reply = answer(bus, request);
        const uint32_t size = static_cast<uint32_t>(reply.size());
        if (!write_all(&size, sizeof size) || !write_all(reply.data(), reply.size()))
            break;
    }
    return 0;
}
