// The loaded product record and the board's log: config, log.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "tools/vexactl/command.h"
#include "tools/vexactl/log_filter.h"
#include "vexasdk/product_config.h"

namespace vexactl {
namespace {

Cell hex(unsigned v) { return Cell::hex(v, 2); }

int run_config(Context &ctx, const Args &args)
{
    if (!args.empty())
        return usage_error(command_named("config"), "takes no arguments");
    ctx.load_config();
    const bi_product_config_t *p = bi_product;
    if (p == nullptr)
        return fail("the product record could not be loaded; see 'vexactl log'");
    Table t({"field", "value"});
    t.row({"mod_id", p->mod_id});
    t.row({"product_name", p->product_name});
    const std::pair<const char *, const bi_path_entry_t *> paths[] = {
        {"serial_485_1", &p->serial_485_1}, {"serial_485_2", &p->serial_485_2},
        {"serial_232_1", &p->serial_232_1}, {"serial_232_2", &p->serial_232_2},
        {"serial_hdmi_1", &p->serial_hdmi_1}, {"serial_lora_1", &p->serial_lora_1},
        {"serial_ttl_1", &p->serial_ttl_1},   {"serial_ttl_2", &p->serial_ttl_2},
        {"hdmi_edid", &p->hdmi_edid},         {"fpga_drv", &p->fpga_drv},
        {"fpga_fw", &p->fpga_fw},             {"fpga_program", &p->fpga_program},
        {"fpga_parameter", &p->fpga_parameter}, {"hex_parameter", &p->hex_parameter},
        {"spi_fpga", &p->spi_fpga},           {"rtc_device", &p->rtc_device},
    };
    for (auto &[name, entry] : paths)
        t.row({name, entry->path});
    t.row({"watchdog.wdt_dev", p->watchdog.wdt_dev});
    t.row({"watchdog.wdt_timeout", p->watchdog.wdt_timeout});
    t.row({"watchdog.wdt_interval", p->watchdog.wdt_interval});
    t.row({"fpga_drv_id", p->fpga_drv_id});
    t.row({"fpga_protocol_type", p->fpga_protocol.protocol_type});
    for (const auto *a : {&p->audio_0, &p->audio_1}) {
        const std::string n = a == &p->audio_0 ? "audio_0" : "audio_1";
        t.row({n + ".path", a->path});
        t.row({n + ".device_addr", hex(a->device_addr)});
        t.row({n + ".enable_addr", hex(a->enable_addr)});
        t.row({n + ".channel_addr", hex(a->channel_addr)});
        t.row({n + ".volume_addr", hex(a->volume_addr)});
        t.row({n + ".status_addr", hex(a->status_addr)});
        t.row({n + ".enable", hex(a->enable)});
        t.row({n + ".disable", hex(a->disable)});
    }
    for (const auto *c : {&p->rtc_0, &p->clock_0}) {
        const std::string n = c == &p->rtc_0 ? "rtc_0" : "clock_0";
        t.row({n + ".path", c->path});
        t.row({n + ".device_addr", hex(c->device_addr)});
        t.row({n + ".status_addr", hex(c->status_addr)});
    }
    const std::pair<const char *, const bi_gpio_entry_t *> gpios[] = {
        {"led_network", &p->led_network},       {"led_sys", &p->led_sys},
        {"led_4gwork", &p->led_4gwork},         {"led_position", &p->led_position},
        {"led_switch", &p->led_switch},         {"led_running", &p->led_running},
        {"led_tri_red", &p->led_tri_red},       {"led_tri_green", &p->led_tri_green},
        {"led_tri_blue", &p->led_tri_blue},     {"led_cloud", &p->led_cloud},
        {"simple_fan_1", &p->simple_fan_1},     {"usb_select_0", &p->usb_select_0},
        {"usb_select_1", &p->usb_select_1},     {"factory_tools", &p->factory_tools},
        {"interior_relay", &p->interior_relay}, {"peripheral_relay_1", &p->peripheral_relay_1},
        {"peripheral_relay_2", &p->peripheral_relay_2}, {"peripheral_relay_3", &p->peripheral_relay_3},
        {"peripheral_relay_4", &p->peripheral_relay_4}, {"pc_ctrl", &p->pc_ctrl},
        {"sub_card_led", &p->sub_card_led},     {"headphone_power", &p->headphone_power},
        {"ops_usb", &p->ops_usb},               {"ops_switch", &p->ops_switch},
        {"ops_on", &p->ops_on},                 {"ops_control", &p->ops_control},
        {"ops_detect", &p->ops_detect},         {"otg_mode", &p->otg_mode},
        {"mcu_wdt_switch", &p->mcu_wdt_switch}, {"mcu_wdt_pulse", &p->mcu_wdt_pulse},
        {"mcu_wdt_startup_type", &p->mcu_wdt_startup_type}, {"lora_check", &p->lora_check},
        {"4g_reset", &p->reset_4g},             {"4g_power", &p->power_4g},
        {"fpga_control_gpio", &p->fpga_control_gpio}, {"fpga_config_gpio", &p->fpga_config_gpio},
        {"fpga_done_gpio", &p->fpga_done_gpio},
    };
    for (auto &[name, entry] : gpios)
        t.row({name, entry->gpio_id});
    t.row({"adc_board_id.path", p->adc_board_id.path});
    t.row({"adc_board_id.vref", Cell::real(p->adc_board_id.vref, 3)});
    t.row({"adc_board_id.n", p->adc_board_id.n});
    t.row({"adc_board_voltage.path", p->adc_board_voltage.path});
    t.row({"adc_board_voltage.r1", p->adc_board_voltage.r1});
    t.row({"adc_board_voltage.r2", p->adc_board_voltage.r2});
    t.row({"adc_board_temperature.path", p->adc_board_temperature.path});
    t.row({"adc_board_temperature.vin", Cell::real(p->adc_board_temperature.vin, 3)});
    t.row({"adc_board_temperature.r1", p->adc_board_temperature.r1});
    for (int i = 0; i < 4; ++i)
        t.row({"usb" + std::to_string(i + 1) + "_path", p->usb_path[i]});
    t.row({"screen_mode", p->screen_mode});
    for (int i = 0; i < 4; ++i)
        t.row({"hdmi_in_" + std::to_string(i + 1) + "_path", p->hdmi_in_path[i]});
    for (int i = 0; i < 4; ++i)
        t.row({"hdmi_out_" + std::to_string(i + 1) + "_path", p->hdmi_out_path[i]});
    t.row({"phy_num", p->phy_num});
    for (int i = 0; i < 4; ++i)
        t.row({"phy" + std::to_string(i + 1) + "_state_cmd", p->phy_state_cmd[i]});
    t.row({"external_relay_num", p->external_relay_num});
    t.print(ctx);
    return 0;
}

VEXACTL_COMMAND(config, {"config", "", "Show the loaded product record",
                         "Loads the product INI file as bi_init_product_config does and prints every\n"
                         "field of the record. Missing keys read -1 (numbers), 0xff (8-bit fields)\n"
                         "and UNDEF (paths).",
                         run_config});

volatile std::sig_atomic_t g_log_stop = 0;

// "MM-DD HH:MM:SS.mmm" in local time, as logcat prints it.
std::string log_time(int64_t time_ns)
{
    if (time_ns <= 0)
        return "--/-- --:--:--.---";
    const time_t seconds = static_cast<time_t>(time_ns / 1000000000);
    struct tm tm;
    localtime_r(&seconds, &tm);
    char text[32];
    std::snprintf(text, sizeof text, "%02d-%02d %02d:%02d:%02d.%03d", tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                  tm.tm_min, tm.tm_sec, static_cast<int>(time_ns / 1000000 % 1000));
    return text;
}

const char kPriorityLetters[] = "??VDIWEF";

// A record as one JSON object: the wall-clock time in seconds since the
// epoch (to the millisecond; null when not known), the process and thread
// (null when not known), the priority letter, the tag and the text.
cJSON *record_json(const vexa::sim::LogRecord &r)
{
    cJSON *o = cJSON_CreateObject();
    if (r.time_ns > 0)
        cJSON_AddNumberToObject(o, "time_s", static_cast<double>(r.time_ns / 1000000) / 1000.0);
    else
        cJSON_AddNullToObject(o, "time_s");
    auto id = [&](const char *key, int value) {
        if (value > 0)
            cJSON_AddNumberToObject(o, key, value);
        else
            cJSON_AddNullToObject(o, key);
    };
    id("pid", r.pid);
    id("tid", r.tid);
    const int p = r.priority < 2 ? 2 : r.priority > 7 ? 7 : r.priority;
    cJSON_AddStringToObject(o, "priority", std::string(1, kPriorityLetters[p]).c_str());
    cJSON_AddStringToObject(o, "tag", r.tag.c_str());
    std::string text = r.text;
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    cJSON_AddStringToObject(o, "text", text.c_str());
    return o;
}

int run_log(Context &ctx, const Args &args)
{
    auto &board = ctx.board();
    const bool follow = ctx.flag("follow");
    if (ctx.flag("clear")) {
        if (!args.empty() || follow || ctx.flag("dump"))
            return usage_error(*ctx.command, "--clear takes nothing else");
        board.clear_log();
        return 0;
    }
    if (follow && ctx.flag("dump"))
        return usage_error(*ctx.command, "-d prints the log and leaves; -f follows it");
    LogFilter filter;
    if (ctx.flag("silent"))
        filter.silence();
    for (const std::string &spec : args)
        if (!filter.add(spec))
            return usage_error(*ctx.command, "'" + spec + "' is not a filter spec TAG:P (P one of V, D, I, W, E, F, S)");
    int min_priority = 0;
    if (auto p = ctx.text("priority")) {
        const auto level = LogFilter::priority(*p);
        if (!level || *p == "S")
            return usage_error(*ctx.command, "the priority is one of V, D, I, W, E or F, not '" + *p + "'");
        min_priority = *level;
    }
    const std::vector<std::string> tags = ctx.texts("tag");
    auto wanted = [&](const vexa::sim::LogRecord &r) {
        return r.priority >= min_priority && filter.passes(r.tag, r.priority) &&
               (tags.empty() || std::find(tags.begin(), tags.end(), r.tag) != tags.end());
    };
    if (ctx.json && !follow) {
        cJSON *array = cJSON_CreateArray();
        for (auto &record : board.log())
            if (wanted(record))
                cJSON_AddItemToArray(array, record_json(record));
        print_json(ctx, array);
        return 0;
    }
    // Each record as it is printed; false when standard output fails.
    auto print = [&](const std::vector<vexa::sim::LogRecord> &records) {
        for (auto &r : records) {
            if (!wanted(r))
                continue;
            if (ctx.json) {
                // -f --json: JSON lines, one record a line.
                cJSON *o = record_json(r);
                char *line = cJSON_PrintUnformatted(o);
                std::fprintf(ctx.out, "%s\n", line ? line : "null");
                cJSON_free(line);
                cJSON_Delete(o);
            } else {
                std::fprintf(ctx.out, "%s %5d %5d %s\n", log_time(r.time_ns).c_str(), r.pid, r.tid,
                             r.line().c_str());
            }
        }
        return std::fflush(ctx.out) == 0 && !std::ferror(ctx.out);
    };
    if (!follow) {
        print(board.log());
        return 0;
    }
    // Follows the log until interrupted, as logcat does, or until standard
    // output goes away.
    std::signal(SIGINT, [](int) { g_log_stop = 1; });
    std::signal(SIGTERM, [](int) { g_log_stop = 1; });
    while (!g_log_stop) {
        if (!print(board.new_log()))
            return fail("cannot write standard output: %s", std::strerror(errno));
        ::usleep(100000);
    }
    return 0;
}

VEXACTL_COMMAND(log, {"log", "[-d | -f] [-s] [FILTERSPEC...] [--tag TAG]... [--priority P] | --clear",
                      "Show the board's log as logcat does: time, process, thread, P/TAG: TEXT",
                      "Each record: MM-DD HH:MM:SS.mmm PID TID P/TAG: TEXT, P being D, I, W or E\n"
                      "(debug, info, warning, error). The board keeps the newest records when its\n"
                      "log passes 1 MiB.\n"
                      "FILTERSPEC is logcat's TAG:P: the records of TAG at priority P and above, P\n"
                      "one of V, D, I, W, E, F or S (verbose ... fatal, silent); TAG alone is TAG:V;\n"
                      "'*:P' is the priority of every tag not named (V, or S with -s). So\n"
                      "'vexactl log -s vexa_system_bi_led:E' prints only that tag's errors, and\n"
                      "'vexactl log \"*:W\"' every warning and error. --tag and --priority narrow\n"
                      "the records further. --json: an array of records (time_s, pid, tid,\n"
                      "priority, tag, text); with -f one record a line (JSON lines).",
                      run_log,
                      {flag("clear", "empty the log").letter('c'),
                       flag("dump", "print the log and leave (what log does without -f)").letter('d'),
                       flag("follow", "print records as they come, until interrupted").letter('f'),
                       flag("silent", "the default filter is *:S: only the tags named pass").letter('s'),
                       text("tag", "TAG", "only records of this tag (repeatable)").letter('t'),
                       text("priority", "P", "only records of priority P (V, D, I, W, E, F) and above").letter('p')}});

} // namespace
} // namespace vexactl
