// The display FPGA: fpga status, load, params, update, phy, card, knob.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <cjson/cJSON.h>

#include "sim/fpga/fpga_model.h"
#include "tools/vexactl/command.h"
#include "vexasdk/fpga.h"
#include "vexasdk/product_config.h"
#include "vexasdk/selftest.h"

namespace vexactl {
namespace {

// ---- board families ----

int32_t params_udp_product()
{
    return bi_fpga_load_screen_params_by_udp(bi_product->fpga_parameter.path, bi_product->hex_parameter.path);
}
int32_t params_udp_config()
{
    return bi_fpga_load_screen_params_by_udp(config_info->fpga_parameter, config_info->hex_parameter);
}

struct Family {
    const char *name;
    int32_t product_num;
    bool needs_update_config; // the load process reads config_info
    const char *load_name;
    int32_t (*load)();
    const char *params_name;
    int32_t (*params)();
};

const Family kFamilies[] = {
    {"pz50pro", 0, true, "fpgaLoadProcessPz50Pro", fpgaLoadProcessPz50Pro, "fpgaLoadScreenParamsBySpi",
     fpgaLoadScreenParamsBySpi},
    {"hcu900pro", 0, true, "fpgaLoadProcessHcu900Pro", fpgaLoadProcessHcu900Pro,
     "bi_fpga_load_screen_params_by_udp", params_udp_config},
    {"qr5plus", 2, false, "fpgaLoadProcessQRxx_t507", fpgaLoadProcessQRxx_t507, "bi_fpga_load_parameter",
     bi_fpga_load_parameter},
    {"qr-card", 3, false, "bi_fpga_load_program", bi_fpga_load_program, "bi_fpga_load_parameter",
     bi_fpga_load_parameter},
    {"pz2k", 0, false, "bi_fpga_load_program_pz2k", bi_fpga_load_program_pz2k,
     "bi_fpga_load_screen_params_by_udp", params_udp_product},
    {"qrxx", 0, false, "bi_fpga_load_program_qrxx_rk3566", bi_fpga_load_program_qrxx_rk3566,
     "bi_fpga_load_parameter", bi_fpga_load_parameter},
};

const Family &family_named(const std::string &name)
{
    std::vector<std::string> names;
    for (const Family &f : kFamilies)
        names.push_back(f.name);
    return kFamilies[one_of(name, "--family", names)];
}

// The board's family, from its module id and product name, as the board's
// start-up service tells them apart.
const Family &detected_family()
{
    const int id = bi_product->mod_id;
    if (id == 8470 || id == 8475 || id == 8476 || id == 8478)
        return family_named("pz50pro");
    if (id == 4374)
        return family_named("hcu900pro");
    std::string product = bi_product->product_name;
    for (char &c : product)
        c = char(std::toupper(static_cast<unsigned char>(c)));
    if (product == "QR3PLUS" || product == "QR5PLUS")
        return family_named("qr5plus");
    if (product == "QR1" || product == "QR2")
        return family_named("qr-card");
    if (product == "PZ2K")
        return family_named("pz2k");
    return family_named("qrxx");
}

// Loads the records and sets PRODUCT_NUM for the family (--family or the
// detected one); the update configuration too where the family's load
// process or the update needs it.
const Family &prepare(Context &ctx, bool update_config)
{
    ctx.load_config();
    const auto named = ctx.text("family");
    const Family &family = named ? family_named(*named) : detected_family();
    if ((update_config || family.needs_update_config) && parseConfigInfo() != 0)
        throw std::runtime_error("the update configuration could not be loaded; see 'vexactl log'");
    PRODUCT_NUM = family.product_num;
    return family;
}

std::map<std::string, std::string> model_state(Context &ctx)
{
    std::map<std::string, std::string> values;
    const auto text = ctx.board().call("fpga.state", "");
    std::istringstream in(text.value_or(""));
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        if (eq != std::string::npos)
            values[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return values;
}

// ---- progress ----

// While a long operation runs, a line on the terminal with the time and
// the transfers so far (after the first second).
class Progress {
public:
    Progress(Context &ctx, std::string what) : ctx_(ctx), what_(std::move(what))
    {
        if (ctx.json || !isatty(fileno(ctx.out)))
            return;
        thread_ = std::thread([this] { run(); });
    }
    ~Progress()
    {
        {
            std::lock_guard<std::mutex> lock(mu_);
            done_ = true;
        }
        wake_.notify_all();
        if (thread_.joinable())
            thread_.join();
        if (shown_)
            std::fprintf(ctx_.out, "\n");
    }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

private:
    void run()
    {
        const auto start = std::chrono::steady_clock::now();
        std::unique_lock<std::mutex> lock(mu_);
        while (!wake_.wait_for(lock, std::chrono::milliseconds(250), [this] { return done_; })) {
            const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (s < 1.0)
                continue;
            auto state = model_state(ctx_);
            std::fprintf(ctx_.out, "\r%s: %.1f s, %s SPI transfers, %s UDP writes ", what_.c_str(), s,
                         state["spi_transfers"].c_str(), state["udp_writes"].c_str());
            std::fflush(ctx_.out);
            shown_ = true;
        }
    }
    Context &ctx_;
    std::string what_;
    std::mutex mu_;
    std::condition_variable wake_;
    bool done_ = false;
    bool shown_ = false;
    std::thread thread_;
};

// ---- fpga status ----

std::string tag_text(const std::string &tag) { return tag.empty() ? "-" : tag; }

int run_status(Context &ctx, const Family &family)
{
    const int done_pin = bi_product->fpga_done_gpio.gpio_id;
    const int done = done_pin >= 0 ? ctx.board().line(done_pin) : -1;
    auto state = model_state(ctx);
    const bool configured = state["configured"] == "1";
    uint8_t mode[5] = {0x43, 0x00, 0x23, 0x00, 0x00};
    const bool mode_read = bi_fpga_spi_write_read(mode, sizeof mode) >= 0;
    uint8_t clock = 0, negotiated = 0;
    readFpgaSgmiiClockState(&clock, 1);
    readFpgaSgmiiNegotiationState(&negotiated, 1);
    const int link = readRtl8211fsPhyLink();
    const long program_bytes = std::atol(state["program_bytes"].c_str());
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "family", family.name);
        cJSON_AddNumberToObject(o, "product_num", family.product_num);
        cJSON_AddNumberToObject(o, "loader_status", PZ_FPGA_LOADER_STATUS);
        cJSON_AddNumberToObject(o, "done", done);
        cJSON_AddBoolToObject(o, "configured", configured);
        cJSON_AddNumberToObject(o, "program_bytes", double(program_bytes));
        cJSON_AddStringToObject(o, "tag", state["tag"].c_str());
        if (mode_read)
            cJSON_AddNumberToObject(o, "source_mode", mode[4]);
        else
            cJSON_AddNullToObject(o, "source_mode");
        cJSON_AddBoolToObject(o, "sgmii_clock", clock == 1);
        cJSON_AddBoolToObject(o, "sgmii_negotiated", negotiated == 1);
        cJSON_AddBoolToObject(o, "phy_link", link == 1);
        cJSON_AddBoolToObject(o, "net_outputs", state["net_outputs"] == "1");
        print_json(ctx, o);
        return 0;
    }
    std::fprintf(ctx.out, "family:        %s (PRODUCT_NUM %d)\n", family.name, family.product_num);
    std::fprintf(ctx.out, "loader status: %d\n", PZ_FPGA_LOADER_STATUS);
    std::fprintf(ctx.out, "done pin:      %d %s\n", done_pin, done == 1 ? "high" : done == 0 ? "low" : "-");
    if (configured)
        std::fprintf(ctx.out, "program:       %ld bytes, tag %s\n", program_bytes, tag_text(state["tag"]).c_str());
    else
        std::fprintf(ctx.out, "program:       none (not configured)\n");
    if (mode_read)
        std::fprintf(ctx.out, "source mode:   0x%02x%s\n", mode[4], mode[4] == 0x58 ? " (no source)" : "");
    else
        std::fprintf(ctx.out, "source mode:   unreadable\n");
    std::fprintf(ctx.out, "SGMII:         clock %s, %s\n", clock == 1 ? "running" : "stopped",
                 negotiated == 1 ? "negotiated" : "not negotiated");
    std::fprintf(ctx.out, "PHY link:      %s\n", link == 1 ? "up" : link == 0 ? "down" : "unreadable");
    return 0;
}

// ---- fpga load, params, update, phy ----

int report(Context &ctx, const char *what, const char *function, int32_t result)
{
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "function", function);
        cJSON_AddNumberToObject(o, "result", result);
        print_json(ctx, o);
    } else {
        std::fprintf(ctx.out, "%s: %s returned %d\n", what, function, result);
    }
    return result < 0 ? fail("%s failed; see 'vexactl log'", what) : 0;
}

int run_load(Context &ctx, const Family &family)
{
    int32_t result;
    {
        Progress progress(ctx, "loading");
        result = family.load();
    }
    return report(ctx, "load", family.load_name, result);
}

int run_params(Context &ctx, const Family &family)
{
    int32_t result;
    {
        Progress progress(ctx, "sending screen parameters");
        result = family.params();
    }
    return report(ctx, "params", family.params_name, result);
}

int run_update(Context &ctx, const std::string &file)
{
    std::string path = input_file(ctx, file).board_path;
    // A file outside the board (or standard input, "-") is copied in first.
    if (path.empty()) {
        std::string bytes;
        if (!read_input(ctx, file, &bytes))
            return 1;
        path = "/data/vexactl/fpga_update.bin";
        ctx.board().write_file(path, bytes);
    }
    int32_t result;
    {
        Progress progress(ctx, "updating");
        result = bi_fpga_firmware_update(path.c_str());
    }
    return report(ctx, "update", "bi_fpga_firmware_update", result);
}

int run_phy(Context &ctx)
{
    int attempts = 0;
    int32_t result = -1;
    {
        Progress progress(ctx, "bringing up the SGMII link");
        while (result != 0 && attempts < 5) {
            ++attempts;
            result = fpgaPhySgmiiConfig();
        }
    }
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddBoolToObject(o, "link", result == 0);
        cJSON_AddNumberToObject(o, "attempts", attempts);
        print_json(ctx, o);
    } else if (result == 0) {
        std::fprintf(ctx.out, "link up after %d attempt%s\n", attempts, attempts == 1 ? "" : "s");
    }
    return result == 0 ? 0 : fail("no link after %d attempts; see 'vexactl log'", attempts);
}

// ---- fpga card ----

std::vector<uint8_t> hex_bytes(const std::string &text)
{
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text)
        if (c != ':' && c != ' ' && c != '-')
            digits += c;
    if (digits.empty() || digits.size() % 2 != 0)
        throw UsageError("HEXBYTES is an even number of hex digits, not '" + text + "'");
    for (size_t i = 0; i < digits.size(); i += 2) {
        long long byte;
        if (!parse_number("0x" + digits.substr(i, 2), 0, 255, &byte))
            throw UsageError("HEXBYTES is an even number of hex digits, not '" + text + "'");
        out.push_back(uint8_t(byte));
    }
    return out;
}

int run_card(Context &ctx, const Family &family, const Args &args)
{
    if (args.size() != 4 || (args[1] != "read" && args[1] != "write"))
        throw UsageError("card takes PORT read ADDR LEN or PORT write ADDR HEXBYTES");
    const auto port = uint8_t(number_operand(args[0], "PORT", 0, 255));
    const auto address = uint32_t(number_operand(args[2], "ADDR", 0, 0x7FFFFFFF));
    const bool read = args[1] == "read";
    std::vector<uint8_t> data;
    if (read)
        data.assign(size_t(number_operand(args[3], "LEN", 0, 1024)), 0);
    else
        data = hex_bytes(args[3]);
    if (data.size() > 1024)
        throw UsageError("a card write carries at most 1024 bytes");
    if (family.product_num != 2 && family.product_num != 3)
        return fail("the receiving cards answer on the qr5plus and qr-card families; this board is %s "
                    "(see --family)",
                    family.name);
    const int32_t result = bi_fpga_receive_card_test(port, read ? 0 : 1, address, data.data(), int32_t(data.size()));
    if (result < 0)
        return fail("card %s failed (%d); see 'vexactl log'", args[1].c_str(), result);
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddNumberToObject(o, "port", port);
        cJSON_AddNumberToObject(o, "address", address);
        cJSON *bytes = cJSON_AddArrayToObject(o, "data");
        for (uint8_t b : data)
            cJSON_AddItemToArray(bytes, cJSON_CreateNumber(b));
        cJSON_AddNumberToObject(o, "transfer", result);
        print_json(ctx, o);
        return 0;
    }
    if (args[1] == "write") {
        std::fprintf(ctx.out, "wrote %zu bytes to port %u at 0x%08x\n", data.size(), port, address);
        return 0;
    }
    for (size_t i = 0; i < data.size(); ++i)
        std::fprintf(ctx.out, "%02x%s", data[i], (i + 1) % 16 == 0 || i + 1 == data.size() ? "\n" : " ");
    return 0;
}

// ---- fpga knob ----

// The FPGA's knobs are the board's "fpga.KEY" knobs (vexactl board fault).
int run_knob(Context &ctx, const Args &args)
{
    auto &board = ctx.board();
    std::vector<std::pair<std::string, std::string>> wanted;
    for (const std::string &arg : args) {
        const auto eq = arg.find('=');
        if (eq == std::string::npos || eq == 0)
            throw UsageError("expected KEY=VALUE with a KEY of 'vexactl fpga --help', not '" + arg + "'");
        wanted.emplace_back("fpga." + arg.substr(0, eq), arg.substr(eq + 1));
    }
    const auto rows = board.knobs();
    if (!wanted.empty()) {
        std::string refused;
        if (board.set_knobs(wanted, &refused) != 0) {
            const int error = errno;
            const std::string name = refused.substr(0, refused.find('='));
            if (error == ENOENT)
                throw UsageError("expected KEY=VALUE with a KEY of 'vexactl fpga --help', not '" +
                                 name.substr(std::min<size_t>(5, name.size())) + "'");
            if (error == EINVAL) {
                for (const auto &row : rows)
                    if (row.name == name)
                        throw UsageError(name.substr(5) + " takes " + row.takes + ", not '" +
                                         refused.substr(name.size() + 1) + "'");
            }
            return fail("the board's host did not take the knobs: %s", std::strerror(error));
        }
        return 0;
    }
    Table table({"knob", "value"});
    for (const auto &row : rows)
        if (row.name.rfind("fpga.", 0) == 0)
            table.row({row.name.substr(5), row.value.empty() ? Cell::none() : Cell(row.value)});
    table.print(ctx);
    return 0;
}

// ---- the command ----

int run_fpga(Context &ctx, const Args &args)
{
    if (args.empty())
        throw UsageError("needs an action");
    const std::string &action = args[0];
    const Args rest(args.begin() + 1, args.end());
    if (action == "knob")
        return run_knob(ctx, rest);
    const size_t wanted = action == "update" ? 1 : action == "card" ? 4 : 0;
    one_of(action, "the action", {"status", "load", "params", "update", "phy", "card", "knob"});
    if (action != "card" && rest.size() != wanted)
        throw UsageError(action + (wanted ? " takes one FILE" : " takes no arguments"));
    try {
        const Family &family = prepare(ctx, action == "update");
        if (action == "status")
            return run_status(ctx, family);
        if (action == "load")
            return run_load(ctx, family);
        if (action == "params")
            return run_params(ctx, family);
        if (action == "update")
            return run_update(ctx, rest[0]);
        if (action == "phy")
            return run_phy(ctx);
        return run_card(ctx, family, rest);
    } catch (const std::runtime_error &e) {
        if (dynamic_cast<const UsageError *>(&e))
            throw;
        return fail("%s", e.what());
    }
}

std::string fpga_help()
{
    std::string help =
        "status   the family, the loader status, the done pin, the running program and its\n"
        "         tag, the source mode, the SGMII link and the PHY link.\n"
        "load     the family's boot-time load process.\n"
        "params   sends the screen parameters by the family's transport (SPI records,\n"
        "         UDP blocks, or SPI packets from the screen partition).\n"
        "update   updates the program from FILE (copied into the board when it lies\n"
        "         outside; '-': standard input; the board's own image is\n"
        "         /vendor/etc/fpga/fpga_fw.bin), by the board's module id.\n"
        "phy      brings up the SGMII link to the FPGA and its PHY (up to five tries).\n"
        "card     reads LEN bytes of, or writes HEXBYTES to, the receiving cards of PORT\n"
        "         at register ADDR (qr5plus and qr-card families).\n"
        "knob     shows, or sets (KEY=VALUE) or clears (KEY=), the FPGA model's knobs, the\n"
        "         board's fpga.KEY knobs of 'vexactl board fault':\n";
    for (auto &k : vexa::sim::fpga_knobs())
        help += "           " + k.key + "=" + k.takes + "\n";
    help += "\nThe family comes from the module id (8470, 8475, 8476, 8478: pz50pro; 4374:\n"
            "hcu900pro) or the product name (QR3PLUS, QR5PLUS: qr5plus; QR1, QR2: qr-card;\n"
            "PZ2K: pz2k; others: qrxx); --family chooses another.";
    return help;
}

VEXACTL_COMMAND(fpga, {"fpga",
                       "status | load | params | update FILE | phy | card PORT read ADDR LEN | "
                       "card PORT write ADDR HEXBYTES | knob [KEY=VALUE...] [--family NAME]",
                       "The display FPGA: status, program load, screen parameters, update, PHY, "
                       "receiving cards",
                       fpga_help(), run_fpga,
                       {text("family", "NAME",
                             "the board family: pz50pro, hcu900pro, qr5plus, qr-card, pz2k or qrxx")}});

} // namespace
} // namespace vexactl
