// The board's hal_rtc_* calls and the RTC behind them.
#include "sim/rtc/rtc_watchdog.h"

#include <linux/rtc.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>

#include "platform/hal.h"
#include "platform/os.h"
#include "sim/state.h"

namespace vexa::sim {
namespace {

using Values = std::map<std::string, std::string>; // "DEV KEY" -> value

Values load(const Board::State &s, const char *file)
{
    Values v;
    std::istringstream in(read_state(s, file));
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        if (eq != std::string::npos)
            v[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return v;
}

void save(const Board::State &s, const char *file, const Values &v)
{
    std::string text;
    for (const auto &[key, value] : v)
        text += key + "=" + value + "\n";
    write_state(s, file, text);
}

bool node_exists(const Board::State &s, const std::string &dev)
{
    return !dev.empty() && dev[0] == '/' && dev.find("..") == std::string::npos &&
           s.folder().access(dev, F_OK) == 0;
}

// What the kernel's RTC core and the chip make of an alarm time: 0, EINVAL
// for a date the calendar does not have (rtc_valid_tm), ERANGE for one
// outside the chip's years (the HYM8563 counts 2000 to 2099).
int alarm_time_error(const std::string &text)
{
    int y, mo, d, h, mi, sec;
    char end;
    if (std::sscanf(text.c_str(), "%d-%d-%d %d:%d:%d%c", &y, &mo, &d, &h, &mi, &sec, &end) != 6)
        return EINVAL;
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    if (y < 1970 || mo < 1 || mo > 12 || d < 1 || d > kDays[mo - 1] + (mo == 2 && leap) || h < 0 ||
        h > 23 || mi < 0 || mi > 59 || sec < 0 || sec > 59)
        return EINVAL;
    return y < 2000 || y > 2099 ? ERANGE : 0;
}

// "set DEV KEY VALUE" -> "ok"; "get DEV KEY" -> "ok VALUE"; "add DEV KEY N";
// "err ERRNO" for a device that does not exist, a time it does not take or
// a chip that does not answer.
std::string serve(Board::State &s, const char *file, const std::string &request)
{
    std::istringstream words(request);
    std::string op, dev, key, value;
    words >> op >> dev >> key;
    std::getline(words, value);
    if (!value.empty() && value[0] == ' ')
        value.erase(0, 1);
    if (!node_exists(s, dev))
        return "err " + std::to_string(ENOENT);
    if (knob_value(s, "rtc.chip") == "silent")
        return "err " + std::to_string(ENXIO); // the bus driver's answer to a NAK
    if (op == "set" && (key == "boot_time" || key == "wake_time"))
        if (const int error = alarm_time_error(value))
            return "err " + std::to_string(error);
    return with_board_lock(s, [&]() -> std::string {
        Values v = load(s, file);
        const std::string k = dev + " " + key;
        if (op == "get")
            return "ok " + v[k];
        if (op == "set")
            v[k] = value;
        else if (op == "add")
            v[k] = std::to_string(std::atol(v[k].c_str()) + std::atol(value.c_str()));
        else
            return "err " + std::to_string(EINVAL);
        save(s, file, v);
        return "ok";
    });
}

std::string format_time(const struct rtc_time *t)
{
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", t->tm_year + 1900,
                  t->tm_mon + 1, t->tm_mday, t->tm_hour, t->tm_min, t->tm_sec);
    return text;
}

bool parse_time(const std::string &text, struct rtc_time *t)
{
    int y, mo, d, h, mi, sec;
    if (std::sscanf(text.c_str(), "%d-%d-%d %d:%d:%d", &y, &mo, &d, &h, &mi, &sec) != 6)
        return false;
    std::memset(t, 0, sizeof *t);
    t->tm_year = y - 1900;
    t->tm_mon = mo - 1;
    t->tm_mday = d;
    t->tm_hour = h;
    t->tm_min = mi;
    t->tm_sec = sec;
    return true;
}

std::string value_of(const Board &board, const char *service, const std::string &dev,
                     const std::string &key)
{
    const auto reply = board.call(service, "get " + dev + " " + key);
    return reply && reply->rfind("ok ", 0) == 0 ? reply->substr(3) : "";
}

} // namespace

std::string rtc_state(const Board &board, const std::string &dev, const std::string &key)
{
    return value_of(board, "rtc", dev, key);
}

} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_SEEDER(rtc_watchdog)
{
    board.write_file("/dev/rtc0", "");
}

VEXA_SIM_ATTACHER(rtc_watchdog)
{
    std::weak_ptr<Board::State> weak = attached();
    board.serve("rtc", [weak](const std::string &req) -> std::string {
        auto s = weak.lock();
        return s ? serve(*s, "rtc", req) : "err " + std::to_string(ENODEV);
    });
    board.add_knob({"rtc.chip", "ok|silent",
                    "silent: the RTC chip never answers: its alarms fail (ENXIO), and so do I2C reads of it",
                    "ok"});
}

namespace {

// Sends a request to the rtc service: 0, or -1 with the model's errno.
int ask(Board::State &s, const char *service, const std::string &request, std::string *value = nullptr)
{
    const auto reply = call_service(s, service, request);
    if (!reply) {
        errno = ENODEV;
        return -1;
    }
    if (reply->rfind("ok", 0) != 0) {
        errno = reply->rfind("err ", 0) == 0 ? std::atoi(reply->c_str() + 4) : EIO;
        return -1;
    }
    if (value)
        *value = reply->size() > 3 ? reply->substr(3) : "";
    return 0;
}

std::string dev_of(const char *dev) { return dev ? dev : ""; }

} // namespace

#define RTC_CALL(name)                                                                             \
    VEXA_SIM_ATTACHED_OR(-1);                                                                      \
    VEXA_SIM_FAULT(name, dev_of(dev), int)

extern "C" int hal_rtc_set_alarm1_enable(const char *dev, int enable)
{
    RTC_CALL("hal_rtc_set_alarm1_enable");
    return ask(s, "rtc", "set " + dev_of(dev) + " alarm1_enable " + (enable ? "1" : "0"));
}

extern "C" int hal_rtc_set_alarm2_enable(const char *dev, int enable)
{
    RTC_CALL("hal_rtc_set_alarm2_enable");
    return ask(s, "rtc", "set " + dev_of(dev) + " alarm2_enable " + (enable ? "1" : "0"));
}

extern "C" int hal_rtc_set_boot_time(const char *dev, const struct rtc_time *time)
{
    RTC_CALL("hal_rtc_set_boot_time");
    if (!time) {
        errno = EINVAL;
        return -1;
    }
    return ask(s, "rtc", "set " + dev_of(dev) + " boot_time " + format_time(time));
}

extern "C" int hal_rtc_set_wake_time(const char *dev, const struct rtc_time *time)
{
    RTC_CALL("hal_rtc_set_wake_time");
    if (!time) {
        errno = EINVAL;
        return -1;
    }
    return ask(s, "rtc", "set " + dev_of(dev) + " wake_time " + format_time(time));
}

static int get_time(Board::State &s, const char *dev, const char *key, struct rtc_time *time)
{
    if (!time) {
        errno = EINVAL;
        return -1;
    }
    std::string text;
    if (ask(s, "rtc", "get " + dev_of(dev) + " " + key, &text) < 0)
        return -1;
    if (!parse_time(text, time)) {
        errno = ENOENT; // no alarm set
        return -1;
    }
    return 0;
}

extern "C" int hal_rtc_get_boot_time(const char *dev, struct rtc_time *time)
{
    RTC_CALL("hal_rtc_get_boot_time");
    return get_time(s, dev, "boot_time", time);
}

extern "C" int hal_rtc_get_wake_time(const char *dev, struct rtc_time *time)
{
    RTC_CALL("hal_rtc_get_wake_time");
    return get_time(s, dev, "wake_time", time);
}
