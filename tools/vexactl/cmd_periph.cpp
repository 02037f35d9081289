// Board peripherals: fan, adc, rtc, watchdog, ir, audio, volume, chips.
#include <linux/rtc.h>

#include <cstring>
#include <string>

#include "tools/vexactl/command.h"
#include "vexasdk/peripherals.h"

namespace vexactl {
namespace {

// Prints one value, or {"NAME": value} with --json.
int print_number(Context &ctx, const char *name, double value, bool integer = true)
{
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddNumberToObject(item, name, value);
        print_json(ctx, item);
    } else if (integer) {
        std::fprintf(ctx.out, "%ld\n", static_cast<long>(value));
    } else {
        std::fprintf(ctx.out, "%.2f\n", value);
    }
    return 0;
}

int run_fan(Context &ctx, const Args &args)
{
    const Command &command = command_named("fan");
    ctx.load_config();
    if (args.empty() || args[0] == "get") {
        const int32_t gear = bi_fan_level_get_state();
        return gear < 0 ? fail("cannot read the fan level (%d); see 'vexactl log'", gear)
                        : print_number(ctx, "gear", gear);
    }
    if (args[0] == "prm" && args.size() == 1) {
        const int32_t value = bi_fan_level_get_prm();
        return value < 0 ? fail("cannot read /proc/fan_arm (%d); see 'vexactl log'", value)
                         : print_number(ctx, "fan_arm", value);
    }
    if (args[0] != "set" || args.size() != 2)
        return usage_error(command, "expected get, set N or prm");
    const long long gear = number_operand(args[1], "the fan level", 0, 10);
    const int32_t rc = bi_fan_level_set_state(static_cast<uint32_t>(gear));
    return rc != 0 ? fail("setting the fan level failed (%d); see 'vexactl log'", rc) : 0;
}

VEXACTL_COMMAND(fan, {"fan", "[get | set N | prm]", "Read or set the fan level (0-10)",
                      "The cooling state of /sys/class/thermal/cooling_device0/cur_state;\n"
                      "prm reads /proc/fan_arm.",
                      run_fan});

int run_adc(Context &ctx, const Args &args)
{
    if (!args.empty())
        return usage_error(command_named("adc"), "takes no arguments");
    ctx.load_config();
    // Each reading is -1 when its channel cannot be read (the temperature's
    // -1.0 is taken as that too).
    const int32_t id = bi_adc_get_board_id();
    const float volts = bi_adc_get_board_voltage();
    const float degrees = bi_adc_get_board_temperature();
    const bool have_id = id >= 0, have_volts = volts >= 0, have_degrees = degrees != -1.0f;
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        auto add = [&](const char *key, bool have, double value) {
            cJSON_AddItemToObject(item, key, have ? cJSON_CreateNumber(value) : cJSON_CreateNull());
        };
        add("board_id", have_id, id);
        add("voltage_v", have_volts, rounded(volts, 2));
        add("temperature_c", have_degrees, rounded(degrees, 1));
        print_json(ctx, item);
    } else {
        auto shown = [](bool have, const char *format, double value) {
            char text[32] = "-";
            if (have)
                std::snprintf(text, sizeof text, format, value);
            return std::string(text);
        };
        std::fprintf(ctx.out, "board id:    %s\nvoltage:     %s\ntemperature: %s\n",
                     shown(have_id, "%.0f", id).c_str(), shown(have_volts, "%.2f V", volts).c_str(),
                     shown(have_degrees, "%.1f C", degrees).c_str());
    }
    std::string missing;
    for (auto [have, name] : {std::pair{have_id, "the board id"}, std::pair{have_volts, "the voltage"},
                              std::pair{have_degrees, "the temperature"}})
        if (!have)
            missing += (missing.empty() ? "" : ", ") + std::string(name);
    if (!missing.empty())
        return fail("cannot read %s; see 'vexactl log'", missing.c_str());
    return 0;
}

VEXACTL_COMMAND(adc, {"adc", "", "Show the board id, input voltage and temperature from the ADC",
                      "A reading that cannot be taken shows '-' (null with --json) and makes the\n"
                      "exit status 1.",
                      run_adc});

// The whole number of 1 to `most` digits that text is, or -1.
int digits(const std::string &text, size_t most)
{
    if (text.empty() || text.size() > most)
        return -1;
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return -1;
        value = value * 10 + (c - '0');
    }
    return value;
}

// The three numbers of "A<sep>B<sep>C", each of at most `most[i]` digits
// (exactly `exact` for the first when it is not 0), or false.
bool three(const std::string &text, char sep, const size_t (&most)[3], size_t exact, int (&out)[3])
{
    const size_t first = text.find(sep), second = text.find(sep, first + 1);
    if (first == std::string::npos || second == std::string::npos || text.find(sep, second + 1) != std::string::npos)
        return false;
    const std::string parts[3] = {text.substr(0, first), text.substr(first + 1, second - first - 1),
                                  text.substr(second + 1)};
    for (int i = 0; i < 3; ++i)
        if ((out[i] = digits(parts[i], most[i])) < 0)
            return false;
    return exact == 0 || parts[0].size() == exact;
}

// "YYYY-MM-DD HH:MM:SS", a real date and time from 1970 on, into a struct
// rtc_time; anything else throws UsageError saying what is wrong.
struct rtc_time parse_time(const std::string &date, const std::string &clock)
{
    int d[3], c[3];
    if (!three(date, '-', {4, 2, 2}, 4, d) || !three(clock, ':', {2, 2, 2}, 0, c))
        throw UsageError("a time is YYYY-MM-DD HH:MM:SS, not '" + date + " " + clock + "'");
    static const char *const kMonths[] = {"January", "February", "March",     "April",   "May",      "June",
                                          "July",    "August",   "September", "October", "November", "December"};
    const int year = d[0], month = d[1], day = d[2];
    if (year < 1970)
        throw UsageError(date + ": the RTC counts from 1970");
    if (month < 1 || month > 12)
        throw UsageError(date + ": the month is 1 to 12");
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    const int days[] = {31, leap ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (day < 1 || day > days[month - 1])
        throw UsageError(date + ": " + kMonths[month - 1] + " " + std::to_string(year) + " has days 1 to " +
                         std::to_string(days[month - 1]));
    if (c[0] > 23 || c[1] > 59 || c[2] > 59)
        throw UsageError(clock + ": the hour is 0 to 23, minutes and seconds 0 to 59");
    struct rtc_time t {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = c[0];
    t.tm_min = c[1];
    t.tm_sec = c[2];
    return t;
}

std::string format_time(const struct rtc_time &t)
{
    char text[80];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1,
                  t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    return text;
}

int run_rtc(Context &ctx, const Args &args)
{
    const Command &command = command_named("rtc");
    ctx.load_config();
    if (args.empty()) {
        Table t({"alarm", "time"});
        struct rtc_time boot {}, wake {};
        t.row({"boot", bi_rtc_get_boot_time(&boot) == 0 ? Cell(format_time(boot)) : Cell::none()});
        t.row({"wake", bi_rtc_get_wake_time(&wake) == 0 ? Cell(format_time(wake)) : Cell::none()});
        t.print(ctx);
        return 0;
    }
    if (args.size() < 2 || (args[0] != "boot" && args[0] != "wake"))
        return usage_error(command, "expected boot|wake on|off|YYYY-MM-DD HH:MM:SS");
    const bool boot = args[0] == "boot";
    int32_t rc;
    if (args.size() == 2 && (args[1] == "on" || args[1] == "off")) {
        rc = boot ? bi_rtc_set_boot_enable(args[1] == "on") : bi_rtc_set_wake_enable(args[1] == "on");
    } else {
        if (args.size() != 3)
            return usage_error(command, "a time is YYYY-MM-DD HH:MM:SS");
        struct rtc_time t = parse_time(args[1], args[2]);
        rc = boot ? bi_rtc_set_boot_time(&t) : bi_rtc_set_wake_time(&t);
    }
    return rc != 0 ? fail("the RTC refused (%d); see 'vexactl log'", rc) : 0;
}

VEXACTL_COMMAND(rtc, {"rtc", "[boot|wake on|off | boot|wake YYYY-MM-DD HH:MM:SS]",
                      "Show or set the RTC's boot and wake alarms",
                      "A time is a real date and time from 1970 on: 2024-02-29 is one, 2023-02-29\n"
                      "and 2024-04-31 are not.",
                      run_rtc});

int run_watchdog(Context &ctx, const Args &args)
{
    const Command &command = command_named("watchdog");
    ctx.load_config();
    bi_watchdog_t w{};
    w.fd = -1;
    bi_watchdog_parse(&w);
    int32_t rc;
    if (args.size() == 1 && args[0] == "open")
        rc = bi_watchdog_open(&w, w.timeout);
    else if (args.size() == 1 && args[0] == "feed")
        rc = bi_watchdog_feed();
    else if (args.size() == 1 && args[0] == "close")
        rc = bi_watchdog_close(w.dev);
    else
        return usage_error(command, "expected open, feed or close");
    if (rc != 0)
        return fail("watchdog %s on %s failed (%d); see 'vexactl log'", args[0].c_str(), w.dev, rc);
    return 0;
}

VEXACTL_COMMAND(watchdog, {"watchdog", "open|feed|close",
                           "Arm, feed or disarm the kernel watchdog of the product record", "", run_watchdog});

int run_ir(Context &ctx, const Args &args)
{
    const Command &command = command_named("ir");
    ctx.load_config();
    if (args.size() == 1 && args[0] == "send") {
        const int32_t rc = bi_infrared_write();
        return rc != 0 ? fail("sending the infrared code failed; see 'vexactl log'") : 0;
    }
    if (args.empty() || args[0] != "status" || args.size() > 2)
        return usage_error(command, "expected send or status [enable|disable]");
    if (args.size() == 2) {
        if (args[1] != "enable" && args[1] != "disable")
            return usage_error(command, "the wake switch is enable or disable");
        if (bi_set_irstatus_pz2k(args[1] == "disable") != 0)
            return fail("cannot set the infrared wake switch; see 'vexactl log'");
        return 0;
    }
    const int32_t state = bi_get_irstatus_pz2k();
    if (state < 0)
        return fail("cannot read the infrared wake switch; see 'vexactl log'");
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddBoolToObject(item, "enabled", state == 0);
        print_json(ctx, item);
    } else {
        std::fprintf(ctx.out, "%s\n", state == 0 ? "enable" : "disable");
    }
    return 0;
}

VEXACTL_COMMAND(ir, {"ir", "send | status [enable|disable]",
                     "Send the infrared code, or read or set the infrared wake switch", "", run_ir});

bool parse_codec(const std::string &text, uint32_t *index)
{
    *index = static_cast<uint32_t>(number_operand(text, "the codec", 0, 1));
    return true;
}

int run_audio(Context &ctx, const Args &args)
{
    const Command &command = command_named("audio");
    uint32_t index = 0;
    if (args.size() != 2 || !parse_codec(args[0], &index))
        return usage_error(command, "expected N (0 or 1) enable|disable|get");
    ctx.load_config();
    if (args[1] == "enable" || args[1] == "disable") {
        const int32_t rc = bi_i2c_set_audio_enable(index, args[1] == "enable");
        return rc != 0 ? fail("codec %u did not take it (%d); see 'vexactl log'", index, rc) : 0;
    }
    if (args[1] != "get")
        return usage_error(command, "expected enable, disable or get");
    const int32_t on = bi_i2c_get_audio_enable(index);
    if (on < 0)
        return fail("cannot read codec %u; see 'vexactl log'", index);
    if (ctx.json) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddNumberToObject(item, "codec", index);
        cJSON_AddBoolToObject(item, "enabled", on == 1);
        print_json(ctx, item);
    } else {
        std::fprintf(ctx.out, "%s\n", on ? "enabled" : "disabled");
    }
    return 0;
}

VEXACTL_COMMAND(audio, {"audio", "N enable|disable|get", "Switch or read audio codec N's output", "",
                        run_audio});

int run_volume(Context &ctx, const Args &args)
{
    const Command &command = command_named("volume");
    uint32_t index = 0;
    if (args.empty() || !parse_codec(args[0], &index))
        return usage_error(command, "expected N (0 or 1) [set PERCENT]");
    ctx.load_config();
    if (args.size() == 1) {
        const int32_t reg = bi_i2c_get_video_inputsrc_volume(index);
        return reg < 0 ? fail("cannot read codec %u's volume; see 'vexactl log'", index)
                       : print_number(ctx, "register", reg);
    }
    if (args.size() != 3 || args[1] != "set")
        return usage_error(command, "expected N set PERCENT");
    const long long percent = number_operand(args[2], "the volume", 0, 100);
    const int32_t rc = bi_i2c_set_video_inputsrc_volume(index, static_cast<int32_t>(percent));
    return rc != 0 ? fail("setting codec %u's volume failed (%d); see 'vexactl log'", index, rc) : 0;
}

VEXACTL_COMMAND(volume, {"volume", "N [set PERCENT]",
                         "Read codec N's volume register, or set the video input's volume",
                         "The register is the codec's attenuation: 0 is loudest, 0xff mutes.", run_volume});

int run_chips(Context &ctx, const Args &args)
{
    if (!args.empty())
        return usage_error(command_named("chips"), "takes no arguments");
    ctx.load_config();
    // Each chip is ok or faulty, however the library tells it: a codec's
    // status other than ready, the RTC's oscillator-stop bit (1), a clock
    // chip status other than 0x81, or a chip that cannot be read (-1).
    const std::pair<const char *, bool> chips[] = {
        {"codec 0", bi_i2c_get_audio_state(0) == 0},
        {"codec 1", bi_i2c_get_audio_state(1) == 0},
        {"rtc", bi_i2c_get_rtc_state(0) == 0},
        {"clock", bi_i2c_get_clock_chip_state(0) == 0},
    };
    Table t({"chip", "ok"});
    std::string faulty;
    for (auto &[chip, ok] : chips) {
        t.row({chip, Cell::truth(ok, "ok", "fault")});
        if (!ok)
            faulty += (faulty.empty() ? "" : ", ") + std::string(chip);
    }
    t.print(ctx);
    if (!faulty.empty())
        return fail("faulty: %s; see 'vexactl log'", faulty.c_str());
    return 0;
}

VEXACTL_COMMAND(chips, {"chips", "", "Show the states of the audio codecs, the RTC chip and the clock chip",
                        "Each chip reads ok or fault (with --json: \"ok\": true or false). A fault is a\n"
                        "codec that does not report ready, an RTC whose oscillator stopped, a clock\n"
                        "chip whose status is not 0x81, or a chip that does not answer. Exit status 1\n"
                        "when any chip is faulty.",
                        run_chips});

} // namespace
} // namespace vexactl
