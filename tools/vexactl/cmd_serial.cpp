// The named serial ports: serial PORT send TEXT, serial PORT listen.
#include <cstring>
#include <string>

#include <cjson/cJSON.h>

#include "platform/os.h"
#include "tools/vexactl/command.h"
#include "vexasdk/peripherals.h"

namespace vexactl {
namespace {

struct Port {
    const char *name;
    int32_t (*open)(int32_t, uint32_t, uint32_t, char);
    int32_t (*write)(const void *, int32_t);
    int32_t (*read)(void *, int32_t, int32_t);
    int32_t (*close)(void);
};

#define PORT(n)                                                                                    \
    {#n, bi_serial_##n##_open, bi_serial_##n##_write, bi_serial_##n##_blocking_read,             \
     bi_serial_##n##_close}
const Port kPorts[] = {PORT(485), PORT(485_2), PORT(232), PORT(hdmi), PORT(lora), PORT(ttl), PORT(ttl_2)};
#undef PORT

const Port *port_named(const std::string &name)
{
    for (const Port &port : kPorts)
        if (name == port.name)
            return &port;
    return nullptr;
}

int run_serial(Context &ctx, const Args &args)
{
    const Command &command = command_named("serial");
    const long long baud = ctx.number("baud").value_or(115200);
    const long long seconds = ctx.number("seconds").value_or(5);
    if (args.size() < 2)
        return usage_error(command, "needs a port and an action");
    const Port *port = port_named(args[0]);
    if (!port)
        return usage_error(command, "the port is one of 485, 485_2, 232, hdmi, lora, ttl, ttl_2");
    const std::string &action = args[1];
    if (action == "send" && args.size() != 3)
        return usage_error(command, "send takes one TEXT argument");
    if (action == "listen" && args.size() != 2)
        return usage_error(command, "listen takes no further arguments");
    if (action != "send" && action != "listen")
        return usage_error(command, "the action is send or listen");

    ctx.load_config();
    if (port->open(static_cast<int32_t>(baud), 8, 1, 'N') != 0)
        return fail("cannot open serial port %s; see 'vexactl log'", port->name);
    int rc = 0;
    if (action == "send") {
        const std::string &text = args[2];
        const int32_t n = port->write(text.data(), static_cast<int32_t>(text.size()));
        if (n < 0) {
            rc = fail("writing to serial port %s failed (%d)", port->name, n);
        } else if (ctx.json) {
            cJSON *o = cJSON_CreateObject();
            cJSON_AddStringToObject(o, "port", port->name);
            cJSON_AddNumberToObject(o, "sent_bytes", n);
            print_json(ctx, o);
        } else {
            std::fprintf(ctx.out, "sent %d bytes to %s\n", n, port->name);
        }
    } else {
        // Prints what arrives until the time is up.
        std::string received;
        const uint64_t end = vexa::os::monotonic_ns() + static_cast<uint64_t>(seconds) * 1000000000u;
        while (vexa::os::monotonic_ns() < end) {
            const uint64_t left_ms = (end - vexa::os::monotonic_ns()) / 1000000u;
            char buf[256];
            const int32_t n = port->read(buf, sizeof(buf), static_cast<int32_t>(left_ms < 200 ? left_ms : 200));
            if (n < 0) {
                rc = fail("reading from serial port %s failed (%d)", port->name, n);
                break;
            }
            if (n > 0 && !ctx.json) {
                std::fwrite(buf, 1, static_cast<size_t>(n), ctx.out);
                std::fflush(ctx.out);
            }
            received.append(buf, static_cast<size_t>(n));
        }
        if (rc == 0 && ctx.json) {
            cJSON *o = cJSON_CreateObject();
            cJSON_AddStringToObject(o, "port", port->name);
            cJSON_AddStringToObject(o, "received", received.c_str());
            print_json(ctx, o);
        }
    }
    port->close();
    return rc;
}

VEXACTL_COMMAND(serial, {"serial", "PORT send TEXT | PORT listen [--seconds N] [--baud N]",
                         "Write to or listen on a named serial port",
                         "PORT is 485, 485_2, 232, hdmi, lora, ttl or ttl_2 (paths from the product\n"
                         "INI). The port opens at 115200 8N1 unless --baud says otherwise. listen\n"
                         "prints what arrives for --seconds (default 5).",
                         run_serial,
                         {number("baud", "N", 50, 4000000, "the line's speed"),
                          number("seconds", "N", 0, 86400, "listen: how long to listen")}});

} // namespace
} // namespace vexactl
