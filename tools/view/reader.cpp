#include "tools/view/reader.h"

#include <linux/rtc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cjson/cJSON.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <sstream>

#include "sim/rtc/rtc_watchdog.h"
#include "sim/serial/serial_line.h"
#include "tools/vexactl/controls.h"
#include "tools/view/knobs.h"
#include "tools/view/quiet_log.h"
#include "vexasdk/Ubootenv.h"
#include "vexasdk/display.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"
#include "vexasdk/storage.h"

namespace vexa::view {
namespace {

// Prints item as one line of JSON and deletes it.
std::string text_of(cJSON *item)
{
    char *printed = cJSON_PrintUnformatted(item);
    std::string text = printed ? printed : "null";
    cJSON_free(printed);
    cJSON_Delete(item);
    return text;
}

void add_number_or_null(cJSON *object, const char *name, bool known, double value)
{
    if (known)
        cJSON_AddNumberToObject(object, name, value);
    else
        cJSON_AddNullToObject(object, name);
}

bool path_set(const bi_path_entry_t &entry)
{
    return entry.path[0] == '/' && std::strstr(entry.path, "UNDEF") == nullptr;
}

int64_t wall_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string rtc_text(const struct rtc_time &t)
{
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                  t.tm_hour, t.tm_min, t.tm_sec);
    return text;
}

// "key=value" lines into a map.
std::map<std::string, std::string> key_values(const std::string &text)
{
    std::map<std::string, std::string> values;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        if (eq != std::string::npos)
            values[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return values;
}

// The names the environment holds, in its order, from the store's dump
// ("[ubootenv] key: [K], value: [V]" a line).
std::vector<std::string> env_names(Ubootenv &store)
{
    std::vector<std::string> names;
    const int fd = ::memfd_create("vexa-view-env", MFD_CLOEXEC);
    if (fd < 0)
        return names;
    store.dump(fd);
    std::string text;
    char buf[4096];
    ssize_t n;
    ::lseek(fd, 0, SEEK_SET);
    while ((n = ::read(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<size_t>(n));
    ::close(fd);
    static const std::string head = "[ubootenv] key: [", middle = "], value: [";
    for (size_t at = text.find(head); at != std::string::npos; at = text.find("\n" + head, at + 1)) {
        const size_t start = text.compare(at, head.size(), head) == 0 ? at + head.size() : at + 1 + head.size();
        const size_t end = text.find(middle, start);
        if (end == std::string::npos)
            break;
        if (end > start)
            names.push_back(text.substr(start, end - start));
    }
    return names;
}

} // namespace

Reader::Reader(vexa::sim::Board &board) : board_(board)
{
    QuietLog quiet;
    reload_config();
}

void Reader::reload_config()
{
    bi_init_product_config();
}

std::map<std::string, std::string> Reader::sections()
{
    return {
        {"product", product()}, {"lines", lines()}, {"fan", fan()},         {"adc", adc()},
        {"rtc", rtc()},         {"watchdog", watchdog()}, {"mcu", mcu()},   {"fpga", fpga()},
        {"serial", serial()},   {"display", display()}, {"env", env()},     {"knobs", knobs()},
    };
}

std::string Reader::product()
{
    cJSON *o = cJSON_CreateObject();
    cJSON_AddStringToObject(o, "board", board_.root().c_str());
    cJSON_AddStringToObject(o, "name", bi_product ? bi_product->product_name : "");
    add_number_or_null(o, "module_id", bi_product != nullptr, bi_product ? bi_product->mod_id : 0);
    return text_of(o);
}

// As 'vexactl status' lists them: name, kind, line, level (null for a line
// that is unset or 0), note.
std::string Reader::lines()
{
    cJSON *list = cJSON_CreateArray();
    if (!bi_product)
        return text_of(list);
    for (const vexactl::Control &control : vexactl::controls()) {
        const int32_t id = vexactl::line_id(control);
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "name", control.name);
        cJSON_AddStringToObject(o, "kind", vexactl::kind_name(control.kind));
        cJSON_AddNumberToObject(o, "line", id);
        const bool usable = id > 0;
        add_number_or_null(o, "level", usable, usable ? board_.line(id) : 0);
        cJSON_AddStringToObject(o, "note", id < 0 ? "unset" : id == 0 ? "invalid" : "");
        cJSON_AddItemToArray(list, o);
    }
    return text_of(list);
}

std::string Reader::fan()
{
    cJSON *o = cJSON_CreateObject();
    const int32_t level = bi_fan_level_get_state();
    add_number_or_null(o, "level", level >= 0, level);
    cJSON_AddNumberToObject(o, "max", 10);
    return text_of(o);
}

std::string Reader::adc()
{
    cJSON *o = cJSON_CreateObject();
    const int32_t id = bi_adc_get_board_id();
    const float volts = bi_adc_get_board_voltage();
    const float degrees = bi_adc_get_board_temperature();
    add_number_or_null(o, "board_id", id >= 0, id);
    // Rounded as the ADC's resolution allows, as 'vexactl adc' gives them.
    add_number_or_null(o, "voltage_v", volts >= 0, std::round(static_cast<double>(volts) * 100) / 100);
    add_number_or_null(o, "temperature_c", degrees > -273.0f, std::round(static_cast<double>(degrees) * 10) / 10);
    return text_of(o);
}

std::string Reader::rtc()
{
    cJSON *o = cJSON_CreateObject();
    const std::string dev = bi_product && path_set(bi_product->rtc_device) ? bi_product->rtc_device.path : "";
    cJSON_AddStringToObject(o, "device", dev.c_str());
    struct Alarm {
        const char *name;
        int32_t (*get)(struct rtc_time *);
        const char *enable_key;
    };
    for (const Alarm &alarm : {Alarm{"boot", bi_rtc_get_boot_time, "alarm1_enable"},
                               Alarm{"wake", bi_rtc_get_wake_time, "alarm2_enable"}}) {
        cJSON *a = cJSON_AddObjectToObject(o, alarm.name);
        struct rtc_time t {};
        if (!dev.empty() && alarm.get(&t) == 0)
            cJSON_AddStringToObject(a, "time", rtc_text(t).c_str());
        else
            cJSON_AddNullToObject(a, "time");
        cJSON_AddBoolToObject(a, "enabled", !dev.empty() && vexa::sim::rtc_state(board_, dev, alarm.enable_key) == "1");
    }
    return text_of(o);
}

std::string Reader::watchdog()
{
    cJSON *o = cJSON_CreateObject();
    bi_watchdog_t w{};
    w.fd = -1;
    if (bi_product)
        bi_watchdog_parse(&w);
    const std::string dev = w.dev;
    const bool armed = !dev.empty() && vexa::sim::watchdog_state(board_, dev, "open") == "1";
    const long timeout = std::atol(vexa::sim::watchdog_state(board_, dev, "timeout").c_str());
    const std::string feeds = vexa::sim::watchdog_state(board_, dev, "feeds");
    // The deadline runs from the last feed (or arming) this view saw.
    if (feeds != watchdog_feeds_ || !armed || watchdog_fed_ms_ == 0) {
        watchdog_feeds_ = feeds;
        watchdog_fed_ms_ = wall_ms();
    }
    cJSON_AddStringToObject(o, "device", dev.c_str());
    cJSON_AddBoolToObject(o, "armed", armed);
    add_number_or_null(o, "timeout_s", timeout > 0, static_cast<double>(timeout));
    cJSON_AddNumberToObject(o, "feeds", std::atol(feeds.c_str()));
    cJSON_AddBoolToObject(o, "expired", vexa::sim::watchdog_state(board_, dev, "expired") == "1");
    add_number_or_null(o, "deadline_ms", armed && timeout > 0,
                       static_cast<double>(watchdog_fed_ms_ + int64_t(timeout) * 1000));
    return text_of(o);
}

std::string Reader::mcu()
{
    cJSON *o = cJSON_CreateObject();
    const auto state = vexa::sim::mcu_state(board_);
    cJSON_AddBoolToObject(o, "present", state.has_value());
    if (state) {
        cJSON_AddStringToObject(o, "mode", state->mode.c_str());
        if (state->version.empty())
            cJSON_AddNullToObject(o, "version");
        else
            cJSON_AddStringToObject(o, "version", state->version.c_str());
        cJSON_AddNumberToObject(o, "written_bytes", static_cast<double>(state->written));
        cJSON_AddNumberToObject(o, "erased_pages", state->erased_pages);
        cJSON_AddBoolToObject(o, "mass_erased", state->mass_erased);
    }
    return text_of(o);
}

std::string Reader::fpga()
{
    cJSON *o = cJSON_CreateObject();
    const auto reply = board_.call("fpga.state", "");
    cJSON_AddBoolToObject(o, "present", reply.has_value());
    const int done_pin = bi_product ? bi_product->fpga_done_gpio.gpio_id : -1;
    cJSON_AddNumberToObject(o, "done_pin", done_pin);
    add_number_or_null(o, "done", done_pin > 0, done_pin > 0 ? board_.line(done_pin) : 0);
    if (reply) {
        auto state = key_values(*reply);
        cJSON_AddBoolToObject(o, "configured", state["configured"] == "1");
        cJSON_AddNumberToObject(o, "program_bytes", std::atof(state["program_bytes"].c_str()));
        cJSON_AddStringToObject(o, "tag", state["tag"].c_str());
        cJSON_AddBoolToObject(o, "sgmii_negotiated", state["negotiated"] == "1");
        cJSON_AddBoolToObject(o, "phy_link", state["phy_link"] == "1");
        cJSON_AddBoolToObject(o, "net_outputs", state["net_outputs"] == "1");
    }
    return text_of(o);
}

std::string Reader::serial()
{
    // The port names of 'vexactl serial', by their paths in the record.
    std::map<std::string, std::string> names;
    if (bi_product) {
        const std::pair<const char *, const bi_path_entry_t *> ports[] = {
            {"485", &bi_product->serial_485_1},  {"485_2", &bi_product->serial_485_2},
            {"232", &bi_product->serial_232_1},  {"232_2", &bi_product->serial_232_2},
            {"hdmi", &bi_product->serial_hdmi_1}, {"lora", &bi_product->serial_lora_1},
            {"ttl", &bi_product->serial_ttl_1},  {"ttl_2", &bi_product->serial_ttl_2},
        };
        for (auto &[name, entry] : ports)
            if (path_set(*entry))
                names.emplace(entry->path, name);
    }
    cJSON *list = cJSON_CreateArray();
    for (const auto &line : vexa::sim::serial_line_list(board_)) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "path", line.board_path.c_str());
        const std::string name = line.mcu ? "mcu" : names.count(line.board_path) ? names[line.board_path] : "";
        cJSON_AddStringToObject(o, "name", name.c_str());
        cJSON_AddStringToObject(o, "board_pty", line.board_pty.c_str());
        cJSON_AddStringToObject(o, "outside_pty", line.outside_pty.c_str());
        cJSON_AddBoolToObject(o, "mcu", line.mcu);
        cJSON_AddItemToArray(list, o);
    }
    return text_of(list);
}

std::string Reader::display()
{
    cJSON *o = cJSON_CreateObject();
    ResolutionRecord record{};
    getSaveParameterInfo(&record);
    const ResolutionTiming &t = record.timing;
    cJSON_AddStringToObject(o, "mode", getDisplayMode() == 1 ? "fixed" : "automatic");
    if (t.hdisplay && t.htotal >= t.hsync_end && t.hsync_end >= t.hsync_start && t.hsync_start >= t.hdisplay &&
        t.vdisplay && t.vtotal >= t.vsync_end && t.vsync_end >= t.vsync_start && t.vsync_start >= t.vdisplay) {
        cJSON *timing = cJSON_AddObjectToObject(o, "timing");
        cJSON_AddNumberToObject(timing, "clock_khz", t.clock);
        cJSON_AddNumberToObject(timing, "refresh_hz", t.vrefresh);
        const std::pair<const char *, uint32_t> words[] = {
            {"hdisplay", t.hdisplay}, {"hsync_start", t.hsync_start}, {"hsync_end", t.hsync_end},
            {"htotal", t.htotal},     {"vdisplay", t.vdisplay},       {"vsync_start", t.vsync_start},
            {"vsync_end", t.vsync_end}, {"vtotal", t.vtotal},
        };
        for (auto &[name, value] : words)
            cJSON_AddNumberToObject(timing, name, value);
    } else {
        cJSON_AddNullToObject(o, "timing");
    }
    // The board's EDID, as the HDMI input offers it: the head of the
    // partition the record names.
    cJSON *edid = nullptr;
    uint8_t block[128] = {};
    if (bi_product && path_set(bi_product->hdmi_edid) && bi_block_read_defined(0, block, sizeof block) >= 0) {
        EdidInfo info{};
        if (edid_parse_block0(block, &info) == 1) {
            edid = cJSON_CreateObject();
            cJSON_AddStringToObject(edid, "manufacturer", std::string(info.manufacturer, strnlen(info.manufacturer, 3)).c_str());
            cJSON_AddNumberToObject(edid, "product_code", info.product_code);
            cJSON_AddNumberToObject(edid, "serial", info.serial);
            add_number_or_null(edid, "year", info.year != 0, info.year);
            cJSON_AddStringToObject(edid, "version", (std::to_string(info.version) + "." + std::to_string(info.revision)).c_str());
            // The monitor name descriptor (tag 0xFC): up to 13 characters,
            // ended by a line feed.
            std::string name;
            for (int d = 0; d < 4; ++d) {
                const uint8_t *desc = info.descriptors + 18 * d;
                if (desc[0] == 0 && desc[1] == 0 && desc[3] == 0xFC)
                    for (int i = 5; i < 18 && desc[i] != '\n'; ++i)
                        name += desc[i] >= 0x20 && desc[i] < 0x7f ? char(desc[i]) : '?';
            }
            cJSON_AddStringToObject(edid, "name", name.c_str());
        }
    }
    if (edid)
        cJSON_AddItemToObject(o, "edid", edid);
    else
        cJSON_AddNullToObject(o, "edid");
    return text_of(o);
}

std::string Reader::env()
{
    cJSON *list = cJSON_CreateArray();
    Ubootenv store;
    if (store.init() != 0)
        return text_of(list);
    // The store's list of names comes with its dump; each value is read back
    // by name.
    for (const std::string &name : env_names(store)) {
        const char *value = store.get(name.c_str());
        if (!value || !*value)
            continue;
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "name", name.c_str());
        cJSON_AddStringToObject(o, "value", value);
        cJSON_AddItemToArray(list, o);
    }
    return text_of(list);
}

std::string Reader::knobs()
{
    cJSON *list = cJSON_CreateArray();
    for (const Knob &knob : read_knobs(board_)) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddStringToObject(o, "name", knob.name.c_str());
        cJSON_AddStringToObject(o, "value", knob.value.c_str());
        cJSON_AddBoolToObject(o, "set", knob.set);
        cJSON_AddStringToObject(o, "takes", knob.takes.c_str());
        cJSON_AddStringToObject(o, "help", knob.help.c_str());
        cJSON *choices = cJSON_AddArrayToObject(o, "choices");
        for (const std::string &choice : knob.choices)
            cJSON_AddItemToArray(choices, cJSON_CreateString(choice.c_str()));
        cJSON_AddItemToArray(list, o);
    }
    return text_of(list);
}

std::vector<std::string> Reader::new_log(size_t first)
{
    std::vector<vexa::sim::LogRecord> records = board_.new_log();
    if (!log_started_ && records.size() > first)
        records.erase(records.begin(), records.end() - static_cast<long>(first));
    log_started_ = true;
    std::vector<std::string> out;
    for (const auto &r : records) {
        cJSON *o = cJSON_CreateObject();
        cJSON_AddNumberToObject(o, "time_ms", static_cast<double>(r.time_ns / 1000000));
        cJSON_AddNumberToObject(o, "pid", r.pid);
        cJSON_AddNumberToObject(o, "tid", r.tid);
        cJSON_AddNumberToObject(o, "priority", r.priority);
        cJSON_AddStringToObject(o, "tag", r.tag.c_str());
        std::string text = r.text;
        if (!text.empty() && text.back() == '\n')
            text.pop_back();
        cJSON_AddStringToObject(o, "text", text.c_str());
        out.push_back(text_of(o));
    }
    return out;
}

std::vector<Reader::Output> Reader::new_output()
{
    std::vector<Output> out;
    for (const auto &line : vexa::sim::serial_line_list(board_)) {
        if (line.mcu)
            continue;
        const std::string file = vexa::sim::serial_output_path(line.board_path);
        const std::string now = board_.exists(file) ? board_.read_file(file) : "";
        std::string &before = output_[line.board_path];
        if (now == before)
            continue;
        Output o;
        o.path = line.board_path;
        if (now.size() > before.size() && now.compare(0, before.size(), before) == 0) {
            o.bytes = now.substr(before.size());
        } else {
            o.reset = true;
            o.bytes = now;
        }
        before = now;
        out.push_back(std::move(o));
    }
    return out;
}

} // namespace vexa::view
