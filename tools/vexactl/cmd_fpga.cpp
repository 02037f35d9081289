// The display FPGA: fpga status, load, params, update, phy, card, knob.
#include <unistd.h>

#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <cjson/cJSON.h>

#include "platform/fpga_wire.h"
#include "platform/os.h"
#include "sim/fpga/fpga_model.h"
#include "tools/vexactl/command.h"
#include "tools/vexactl/progress.h"
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

uint64_t state_number(std::map<std::string, std::string> &state, const char *key)
{
    return std::strtoull(state[key].c_str(), nullptr, 10);
}

// "key=value" lines, or words: "a b c" as 0=a, 1=b, 2=c.
std::map<std::string, std::string> fields(const std::string &text)
{
    std::map<std::string, std::string> values;
    std::istringstream in(text);
    std::string word;
    int index = 0;
    while (in >> word) {
        const auto eq = word.find('=');
        if (eq == std::string::npos)
            values[std::to_string(index++)] = word;
        else
            values[word.substr(0, eq)] = word.substr(eq + 1);
    }
    return values;
}

// The bar of a long FPGA job, following what the board's FPGA shows of the
// job's work in the board's folder (never asking its host, which may be
// busy with that very work): the flash's blocks and pages, the pieces of an
// SPI update, the configuration, and otherwise the transfers since the job
// began.
class JobProgress {
public:
    JobProgress(Context &ctx, const char *phase) : ctx_(ctx), bar_(ctx, phase, 0, "transfers")
    {
        if (!bar_.shown())
            return;
        transfers_before_ = transfers();
        phase_ = phase;
        thread_ = std::thread([this] { run(); });
    }
    ~JobProgress()
    {
        {
            std::lock_guard<std::mutex> lock(mu_);
            stop_ = true;
        }
        wake_.notify_all();
        if (thread_.joinable())
            thread_.join();
        bar_.finish();
    }
    JobProgress(const JobProgress &) = delete;
    JobProgress &operator=(const JobProgress &) = delete;

private:
    uint64_t transfers()
    {
        auto counts = fields(ctx_.board().read_file("/.board/fpga/transfers"));
        return state_number(counts, "0") + state_number(counts, "1");
    }
    void run()
    {
        std::unique_lock<std::mutex> lock(mu_);
        while (!wake_.wait_for(lock, std::chrono::milliseconds(200), [this] { return stop_; }))
            sample();
    }
    void sample()
    {
        auto flash = fields(ctx_.board().read_file("/.board/fpga/flash"));
        auto state = fields(ctx_.board().read_file("/.board/fpga/state"));
        std::string phase;
        uint64_t total = 0, done = 0;
        std::string unit;
        if (!flash["0"].empty()) {
            phase = flash["0"];
            done = state_number(flash, "1");
            total = state_number(flash, "2");
            unit = phase == "erase" ? "blocks" : "pages";
        } else if (state_number(state, "update_total")) {
            phase = "send";
            total = state_number(state, "update_total");
            done = state_number(state, "update_pieces");
            unit = "pieces";
        } else if (state["configuring"] == "1") {
            phase = "configure";
        } else if (phase_ == "erase" || phase_ == "write" || phase_ == "send" || phase_ == "configure" ||
                   phase_ == "wait") {
            phase = "wait";
        } else {
            phase = phase_;
            unit = "transfers";
            done = transfers() - transfers_before_;
        }
        if (phase != phase_) {
            // A flash operation or the pieces of an update that gave way to
            // the next step ran to their end.
            if (phase_total_ && phase != "wait")
                bar_.set(phase_total_);
            bar_.phase(phase, total, unit);
            phase_ = phase;
        }
        phase_total_ = total;
        bar_.set(done);
    }

    Context &ctx_;
    Progress bar_;
    std::string phase_;
    uint64_t phase_total_ = 0;
    uint64_t transfers_before_ = 0;
    std::mutex mu_;
    std::condition_variable wake_;
    bool stop_ = false;
    std::thread thread_;
};

// ---- fpga status ----

std::string tag_text(const std::string &tag) { return tag.empty() ? "-" : tag; }

// The last load as the board saw it: how, and what came of it.
std::string last_load_text(std::map<std::string, std::string> &state)
{
    const std::string via = state["last_load"];
    const int result = std::atoi(state["last_load_result"].c_str());
    const char *how = via == "hal"         ? "the HAL loader"
                      : via == "fpga_load" ? "/dev/fpga_load"
                      : via == "flash"     ? "from its flash"
                      : via == "update"    ? "from its flash after an SPI update"
                      : via == "power-on"  ? "from its flash at power-on"
                                           : via.c_str();
    if (result == 0)
        return std::string(how) + ", configured";
    return std::string(how) + ", failed: " + std::strerror(-result);
}

std::vector<int> card_counts(std::map<std::string, std::string> &state)
{
    std::vector<int> counts;
    std::istringstream in(state["cards"]);
    std::string count;
    while (std::getline(in, count, ','))
        counts.push_back(std::atoi(count.c_str()));
    return counts;
}

int run_status(Context &ctx, const Family &family)
{
    const int done_pin = bi_product->fpga_done_gpio.gpio_id;
    const int done = done_pin >= 0 ? ctx.board().line(done_pin) : -1;
    auto state = model_state(ctx);
    const bool configured = state["configured"] == "1";
    const bool configuring = state["configuring"] == "1";
    uint8_t mode[5] = {0x43, 0x00, 0x23, 0x00, 0x00};
    const bool mode_read = bi_fpga_spi_write_read(mode, sizeof mode) >= 0;
    uint8_t clock = 0, negotiated = 0;
    readFpgaSgmiiClockState(&clock, 1);
    readFpgaSgmiiNegotiationState(&negotiated, 1);
    const int link = readRtl8211fsPhyLink();
    const long program_bytes = std::atol(state["program_bytes"].c_str());
    const auto cards = card_counts(state);
    if (ctx.json) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "family", family.name);
        cJSON_AddNumberToObject(o, "product_num", family.product_num);
        cJSON_AddStringToObject(o, "last_load", state["last_load"].c_str());
        cJSON_AddNumberToObject(o, "last_load_result", std::atoi(state["last_load_result"].c_str()));
        if (done >= 0)
            cJSON_AddNumberToObject(o, "done", done);
        else
            cJSON_AddNullToObject(o, "done");
        cJSON_AddBoolToObject(o, "configured", configured);
        cJSON_AddBoolToObject(o, "configuring", configuring);
        cJSON_AddNumberToObject(o, "program_bytes", double(program_bytes));
        if (configured)
            cJSON_AddStringToObject(o, "tag", state["tag"].c_str());
        else
            cJSON_AddNullToObject(o, "tag");
        if (mode_read)
            cJSON_AddNumberToObject(o, "source_mode", mode[4]);
        else
            cJSON_AddNullToObject(o, "source_mode");
        cJSON_AddBoolToObject(o, "sgmii_clock", clock == 1);
        cJSON_AddBoolToObject(o, "sgmii_negotiated", negotiated == 1);
        if (link >= 0)
            cJSON_AddBoolToObject(o, "phy_link", link == 1);
        else
            cJSON_AddNullToObject(o, "phy_link");
        cJSON_AddBoolToObject(o, "net_outputs", state["net_outputs"] == "1");
        cJSON *ports = cJSON_AddArrayToObject(o, "cards");
        for (int count : cards)
            cJSON_AddItemToArray(ports, cJSON_CreateNumber(count));
        print_json(ctx, o);
        return 0;
    }
    std::fprintf(ctx.out, "family:        %s (PRODUCT_NUM %d)\n", family.name, family.product_num);
    std::fprintf(ctx.out, "last load:     %s\n", last_load_text(state).c_str());
    std::fprintf(ctx.out, "done pin:      %d %s\n", done_pin, done == 1 ? "high" : done == 0 ? "low" : "-");
    if (configured)
        std::fprintf(ctx.out, "program:       %ld bytes, tag %s\n", program_bytes, tag_text(state["tag"]).c_str());
    else if (configuring)
        std::fprintf(ctx.out, "program:       configuring from its flash\n");
    else
        std::fprintf(ctx.out, "program:       none (not configured)\n");
    if (!state["flash_op"].empty())
        std::fprintf(ctx.out, "flash:         %s, %s of %s %s\n",
                     state["flash_op"] == "erase" ? "erasing" : "writing", state["flash_done"].c_str(),
                     state["flash_total"].c_str(), state["flash_op"] == "erase" ? "blocks" : "pages");
    if (mode_read)
        std::fprintf(ctx.out, "source mode:   0x%02x%s\n", mode[4], mode[4] == 0x58 ? " (no source)" : "");
    else
        std::fprintf(ctx.out, "source mode:   unreadable\n");
    std::fprintf(ctx.out, "SGMII:         clock %s, %s\n", clock == 1 ? "running" : "stopped",
                 negotiated == 1 ? "negotiated" : "not negotiated");
    std::fprintf(ctx.out, "PHY link:      %s\n", link == 1 ? "up" : link == 0 ? "down" : "unreadable");
    std::string counts;
    for (size_t port = 0; port < cards.size(); ++port)
        counts += (port ? ", " : "") + std::to_string(cards[port]);
    std::fprintf(ctx.out, "cards:         %s on ports 0-%zu%s\n", counts.c_str(), cards.size() - 1,
                 state["silent_ports"].empty() ? "" : (" (silent: " + state["silent_ports"] + ")").c_str());
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
        JobProgress progress(ctx, "load");
        result = family.load();
    }
    return report(ctx, "load", family.load_name, result);
}

int run_params(Context &ctx, const Family &family)
{
    int32_t result;
    {
        JobProgress progress(ctx, "params");
        result = family.params();
    }
    return report(ctx, "params", family.params_name, result);
}

// The most a family's update can take from a program file, and where it
// goes, for the check before anything is erased.
struct Room {
    size_t bytes;
    const char *where;
};
Room update_room(int module_id)
{
    if (module_id == 8470 || module_id == 8475 || module_id == 8476 || module_id == 8478)
        return {0xD00000, "the 13 MiB the pz50pro flash update erases"};
    if (PRODUCT_NUM == 2)
        return {vexa::fpga_wire::kProgramHeaderSize + (1u << 20), "a 1 MiB payload the SPI update sends"};
    if (module_id != 4374 && PRODUCT_NUM != 3)
        return {819200, "the 819200 bytes /dev/fpga_load takes"};
    return {SIZE_MAX, ""};
}

int run_update(Context &ctx, const std::string &file)
{
    const FileArg arg = input_file(ctx, file);
    std::string path = arg.board_path;
    std::string bytes;
    if (!read_input(ctx, file, &bytes))
        return 1;
    // The image is checked before anything is erased: a file that is no
    // program would leave the FPGA without one.
    if (!ctx.flag("force")) {
        const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
        auto problem = vexa::fpga_wire::program_problem(data, bytes.size());
        const Room room = update_room(bi_product->mod_id);
        if (!problem && bytes.size() > room.bytes)
            problem = "it is " + std::to_string(bytes.size()) + " bytes, more than " + room.where;
        if (problem)
            return fail("%s is not an FPGA program for this board: %s; nothing was erased or written "
                        "(--force updates with it all the same)",
                        file == "-" ? "standard input" : file.c_str(), problem->c_str());
    }
    // A file outside the board (or standard input, "-") is copied in first.
    if (path.empty()) {
        path = "/data/vexactl/fpga_update.bin";
        ctx.board().write_file(path, bytes);
    }
    int32_t result;
    {
        JobProgress progress(ctx, "update");
        result = bi_fpga_firmware_update(path.c_str());
    }
    return report(ctx, "update", "bi_fpga_firmware_update", result);
}

int run_phy(Context &ctx)
{
    int attempts = 0;
    int32_t result = -1;
    {
        JobProgress progress(ctx, "phy");
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

// The cards' status in the FPGA's window: 0x84 once a card has answered
// the last frame.
bool card_answered()
{
    uint8_t status = 0;
    return bi_fpga_read_0x02000000(vexa::fpga_wire::kWindowBase + vexa::fpga_wire::kCardControl, &status, 1) >= 0 &&
           status == vexa::fpga_wire::kCardReady;
}

int run_card(Context &ctx, const Family &family, const Args &args)
{
    if (args.size() != 4 || (args[1] != "read" && args[1] != "write"))
        throw UsageError("card takes PORT read ADDR LEN or PORT write ADDR HEXBYTES");
    const auto port = int(number_operand(args[0], "PORT", 0, 255));
    const auto address = uint32_t(number_operand(args[2], "ADDR", 0, 0x7FFFFFFF));
    const bool read = args[1] == "read";
    std::vector<uint8_t> data;
    if (read)
        data.assign(size_t(number_operand(args[3], "LEN", 1, 1024)), 0);
    else
        data = hex_bytes(args[3]);
    if (data.size() > 1024)
        throw UsageError("a card write carries at most 1024 bytes");
    if (family.product_num != 2 && family.product_num != 3)
        return fail("the receiving cards answer on the qr5plus and qr-card families; this board is %s "
                    "(see --family)",
                    family.name);
    auto state = model_state(ctx);
    const int ports = std::atoi(state["ports"].c_str());
    if (port >= ports)
        return fail("the FPGA has receiving-card ports 0-%d; there is no port %d", ports - 1, port);
    const int32_t result =
        bi_fpga_receive_card_test(uint8_t(port), read ? 0 : 1, address, data.data(), int32_t(data.size()));
    if (result < 0)
        return fail("card %s failed (%d); see 'vexactl log'", args[1].c_str(), result);
    // The library reads the reply after its polls whether a card answered or
    // not, and a write is not answered at all: the cards' status tells. A
    // card acknowledges a write as it answers a read.
    bool answered = card_answered();
    for (int poll = 0; !read && !answered && poll < 10; ++poll) {
        vexa::os::sleep_us(20000);
        answered = card_answered();
    }
    if (!answered)
        return fail(read ? "no card answered on port %d: the reply was not ready after 10 polls; the bytes "
                           "read are not a card's"
                         : "no card acknowledged the write on port %d within 200 ms",
                    port);
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
        std::fprintf(ctx.out, "wrote %zu bytes to port %d at 0x%08x\n", data.size(), port, address);
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
    if (ctx.flag("force") && action != "update")
        throw UsageError("--force goes with update");
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
        "status   the family, the last load as the board saw it, the done pin, the running\n"
        "         program and its tag, the flash's work under way, the source mode, the SGMII\n"
        "         link, the PHY link and the receiving cards of each port.\n"
        "load     the family's boot-time load process.\n"
        "params   sends the screen parameters by the family's transport (SPI records,\n"
        "         UDP blocks, or SPI packets from the screen partition).\n"
        "update   updates the program from FILE (copied into the board when it lies\n"
        "         outside; '-': standard input; the board's own image is\n"
        "         /vendor/etc/fpga/fpga_fw.bin), by the board's module id. The file is\n"
        "         checked first (its header, size and checksum, and that it fits where\n"
        "         the update puts it): one that is no program erases nothing, unless\n"
        "         --force.\n"
        "phy      brings up the SGMII link to the FPGA and its PHY (up to five tries).\n"
        "card     reads LEN (1-1024) bytes of, or writes HEXBYTES to, the receiving cards\n"
        "         of PORT at register ADDR (qr5plus and qr-card families); fails when the\n"
        "         board has no such port or no card answers.\n"
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
                       "status | load | params | update FILE [--force] | phy | card PORT read ADDR LEN | "
                       "card PORT write ADDR HEXBYTES | knob [KEY=VALUE...] [--family NAME]",
                       "The display FPGA: status, program load, screen parameters, update, PHY, "
                       "receiving cards",
                       fpga_help(), run_fpga,
                       {text("family", "NAME",
                             "the board family: pz50pro, hcu900pro, qr5plus, qr-card, pz2k or qrxx"),
                        flag("force", "update: write a file that is no program for this board all the same")}});

} // namespace
} // namespace vexactl
