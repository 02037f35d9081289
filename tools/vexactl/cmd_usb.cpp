// usb: the four USB ports, the OTG role, the devices on the communication
// buses and an echo through the bulk channel.
#include <unistd.h>

#include <cstring>
#include <string>

#include "sim/usb/usb.h"
#include "tools/vexactl/command.h"
#include "vexasdk/product_config.h"
#include "vexasdk/system.h"

namespace vexactl {
namespace {

int ports(Context &ctx)
{
    ctx.load_config();
    Table table({"port", "power", "path"});
    for (int index = 1; index <= 4; ++index) {
        const int32_t state = bi_get_usb_state(index);
        table.row({index, state < 0 ? Cell::none() : Cell::truth(state != 0, "on", "off"),
                   bi_product ? Cell(bi_product->usb_path[index - 1]) : Cell::none()});
    }
    table.print(ctx);
    return 0;
}

int port(Context &ctx, const std::string &number, const std::string &state)
{
    const auto index = static_cast<int32_t>(number_operand(number, "the port", 1, 4));
    const bool on = one_of(state, "the state", {"off", "on"}) == 1;
    ctx.load_config();
    if (bi_set_usb_state(index, on) != 0)
        return fail("switching port %d failed; see 'vexactl log'", static_cast<int>(index));
    const int32_t now = bi_get_usb_state(index);
    if (now < 0 || (now != 0) != on)
        return fail("port %d is still %s after switching it %s; see 'vexactl log'", static_cast<int>(index),
                    now < 0 ? "unreadable" : now ? "on" : "off", state.c_str());
    return ports(ctx);
}

int otg(Context &ctx, const Args &roles)
{
    ctx.board();
    int32_t wanted = -1;
    if (!roles.empty()) {
        wanted = static_cast<int32_t>(one_of(roles[0], "the OTG role", {"host", "peripheral"}));
        if (bi_otg_set_mode(wanted) < 0)
            return fail("setting the OTG role failed; see 'vexactl log'");
    }
    const int32_t mode = bi_otg_get_mode();
    if (mode < 0)
        return fail("the OTG role cannot be read; see 'vexactl log'");
    if (wanted >= 0 && mode != wanted)
        return fail("the OTG role is still %s; see 'vexactl log'", mode == 0 ? "host" : "peripheral");
    const char *role = mode == 0 ? "host" : "peripheral";
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "otg", role);
        print_json(ctx, item);
    } else {
        std::fprintf(ctx.out, "%s\n", role);
    }
    return 0;
}

std::string hex(unsigned value, int digits)
{
    char text[16];
    std::snprintf(text, sizeof text, "%0*x", digits, value);
    return text;
}

int devices(Context &ctx)
{
    ctx.board();
    vexa_usb_devices_t list;
    const int32_t count = bi_usb_get_vexa_devices(&list);
    if (count < 0)
        return fail("listing the USB devices failed (%d); see 'vexactl log'", count);
    Table table({"bus", "address", "id", "interface", "class"});
    for (int32_t i = 0; i < list.count; ++i) {
        const vexa_usb_device_info_t &d = list.devices[i];
        table.row({d.bus, d.address, hex(d.vendor_id, 4) + ":" + hex(d.product_id, 4), d.interface_number,
                   Cell::hex(d.interface_class, 2)});
    }
    table.print(ctx);
    return 0;
}

int echo(Context &ctx, const std::string &text)
{
    if (text.empty() || text.size() > 4096)
        throw UsageError("echo takes 1 to 4096 bytes of text");
    const auto vendor = static_cast<uint16_t>(ctx.number("vendor").value_or(0x1209));
    const auto product = static_cast<uint16_t>(ctx.number("product").value_or(0x0001));
    const auto cls = static_cast<uint8_t>(ctx.number("class").value_or(0xff));
    const auto timeout = static_cast<uint32_t>(ctx.number("timeout").value_or(1000));
    ctx.board();
    vexa_usb_port_t port{};
    const int32_t rc = bi_usb_open(vendor, product, cls, 0, 2, &port);
    if (rc != 0)
        return fail("opening %04x:%04x failed (%d); see 'vexactl log'", vendor, product, static_cast<int>(rc));
    std::string back;
    const int32_t sent = bi_usb_blocking_write(reinterpret_cast<const uint8_t *>(text.data()),
                                               static_cast<int32_t>(text.size()), timeout);
    while (sent > 0 && back.size() < static_cast<size_t>(sent)) {
        uint8_t buf[512];
        const int32_t n = bi_usb_blocking_read(buf, sizeof buf, timeout);
        if (n <= 0)
            break;
        back.append(reinterpret_cast<char *>(buf), static_cast<size_t>(n));
    }
    bi_usb_close();
    if (sent < 0)
        return fail("writing to endpoint 0x%02x failed; see 'vexactl log'", port.endpoint_out);
    if (back.size() < static_cast<size_t>(sent))
        return fail("%zu of %d bytes came back from endpoint 0x%02x; see 'vexactl log'", back.size(), sent,
                    port.endpoint_in);
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "sent", text.c_str());
        cJSON_AddStringToObject(item, "received", back.c_str());
        print_json(ctx, item);
    } else {
        std::fprintf(ctx.out, "%s\n", back.c_str());
    }
    return 0;
}

// libusb reaches the board's USB only with umockdev's preload library in the
// process: the command runs itself again with it, standard output restored.
bool with_board_usb(Context &ctx)
{
    if (vexa::sim::usb_preloaded())
        return true;
    std::fflush(ctx.out);
    restore_standard_streams();
    return vexa::sim::preload_usb();
}

int run_usb(Context &ctx, const Args &args)
{
    if (args.empty())
        throw UsageError("expected ports, port N on|off, otg [host|peripheral], devices or echo TEXT");
    const size_t action = one_of(args[0], "the action", {"ports", "port", "otg", "devices", "echo"});
    const size_t operands = args.size() - 1;
    const size_t wanted[] = {0, 2, operands <= 1 ? operands : 1, 0, 1};
    if (operands != wanted[action])
        throw UsageError("expected ports, port N on|off, otg [host|peripheral], devices or echo TEXT");
    switch (action) {
    case 0:
        return ports(ctx);
    case 1:
        return port(ctx, args[1], args[2]);
    case 2:
        return otg(ctx, Args(args.begin() + 1, args.end()));
    default:
        if (!with_board_usb(ctx))
            return fail("the virtual board's USB bus is not available");
        return action == 3 ? devices(ctx) : echo(ctx, args[1]);
    }
}

VEXACTL_COMMAND(usb, {"usb", "ports | port N on|off | otg [host|peripheral] | devices | echo [--vendor ID] [--product ID] [--class CLASS] [--timeout MS] TEXT",
                      "Switch USB ports, the OTG role; list and talk to USB devices",
                      "ports lists the four ports' states; port N on|off switches one.\n"
                      "otg shows or sets the OTG role of the USB 2 PHY.\n"
                      "devices lists the devices on the communication buses (1 and 5) that the\n"
                      "bulk channel may talk to. echo TEXT opens the bulk channel to the board's\n"
                      "device, writes TEXT, reads the answer and prints it (text that starts\n"
                      "with '-' goes after --).\n"
                      "On the virtual board, libusb reaches the board's USB through umockdev:\n"
                      "devices and echo run themselves again with its preload library.",
                      run_usb,
                      {number("vendor", "ID", 0, 0xffff, "echo: the device's vendor id (default 0x1209)"),
                       number("product", "ID", 0, 0xffff, "echo: the device's product id (default 0x0001)"),
                       number("class", "CLASS", 0, 0xff, "echo: the interface class (default 0xff)"),
                       number("timeout", "MS", 1, 600000, "echo: the wait of each transfer (default 1000)")}});

} // namespace
} // namespace vexactl
