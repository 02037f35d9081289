// Wi-Fi access point and station, the access point's client isolation, and
// interface addresses, through the board's network commands.
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "network/command_output.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/shell.h"
#include "vexasdk/network.h"

namespace {

constexpr const char *kTag = "vexa_system_bi_network";
constexpr const char *kListForward = "/system/bin/iptables -nL FORWARD --line-number";
constexpr size_t kLineBuffer = 2048;

struct PipeCloser {
    void operator()(FILE *f) const { vexa::os::pclose(f); }
};
using UniquePipe = std::unique_ptr<FILE, PipeCloser>;

// Scans the FORWARD chain for the isolation rule. 1 on, 0 off; -1 when no
// line buffer could be had, -2 when iptables could not be run.
int isolation_state()
{
    std::unique_ptr<char[]> line(new (std::nothrow) char[kLineBuffer]);
    if (!line) {
        VEXA_LOGE(kTag, "malloc op failed!!!");
        return -1;
    }
    UniquePipe pipe(vexa::os::popen(kListForward, "r"));
    if (!pipe) {
        VEXA_LOGE(kTag, "popen error!");
        return -2;
    }
    int on = 0;
    while (std::fgets(line.get(), kLineBuffer, pipe.get())) {
        VEXA_LOGD(kTag, "%s", line.get());
        if (vexa::net::isolation_rule(line.get()))
            on = 1;
    }
    return on;
}

// 0 when an interface's line is in the output of command.
int32_t interface_present(const char *func, const char *command, const char *iface)
{
    UniquePipe pipe(vexa::os::popen(command, "r"));
    if (!pipe) {
        VEXA_LOGE(kTag, "%s: Failed to run command", func);
        return -1;
    }
    int32_t result = -1;
    char line[256];
    while (std::fgets(line, sizeof line, pipe.get())) {
        if (std::strstr(line, iface)) {
            VEXA_LOGD(kTag, "%s: %s found", func, iface);
            result = 0;
        } else {
            VEXA_LOGD(kTag, "%s: %s not found", func, iface);
        }
    }
    return result;
}

// At most 15 characters of text, terminated.
void copy15(char (&dst)[16], const char *text)
{
    const size_t len = strnlen(text, sizeof dst - 1);
    std::memcpy(dst, text, len);
    dst[len] = '\0';
}

} // namespace

extern "C" VEXA_API int32_t bi_network_set_ap_insulation(int32_t on)
{
    if (static_cast<uint32_t>(on) > 1)
        return -1;
    const int state = isolation_state();
    if (state < 0)
        return state - 1; // -2 no buffer, -3 no iptables
    if (state == on)
        return 0;
    const char *command = on ? "/system/bin/iptables -A FORWARD -s 192.168.41.0/24 -j DROP"
                             : "/system/bin/iptables -D FORWARD -s 192.168.41.0/24 -j DROP";
    const int status = vexa::os::system(command);
    if (status != -1 && WIFEXITED(status)) {
        // iptables ran to its end: 0, as the access point's tools have
        // always taken it. An exit status other than 0 (a rule it would not
        // add, none to delete) means the rule is not changed, and says so.
        if (WEXITSTATUS(status) != 0)
            VEXA_LOGW(kTag, "%s: %s exited with %d: the isolation is not changed", __func__, command,
                      WEXITSTATUS(status));
        return 0;
    }
    VEXA_LOGE(kTag, "iptables operation failed!!!!!!!!!!!!!!!!!!!!!!!!!");
    return 252;
}

extern "C" VEXA_API int32_t bi_network_get_ap_insulation(void)
{
    return isolation_state();
}

extern "C" VEXA_API int32_t bi_network_get_ap_channel(void)
{
    UniquePipe pipe(
        vexa::os::popen("/system/bin/iw dev wlan1 info | grep channel | awk '{print $2}'", "r"));
    if (!pipe) {
        VEXA_LOGE(kTag, "%s: Failed to run command", __func__);
        return -1;
    }
    char line[256] = {};
    char last[256] = {};
    while (std::fgets(line, sizeof line, pipe.get())) {
        VEXA_LOGD(kTag, "%s: %s", __func__, line);
        std::memcpy(last, line, sizeof last);
    }
    const int channel = std::atoi(last);
    VEXA_LOGD(kTag, "%s: ch = %d", __func__, channel);
    return channel;
}

extern "C" VEXA_API int32_t bi_network_get_ap_state(void)
{
    return interface_present(__func__, "ifconfig -a | grep wlan1 | awk '{print $1}'", "wlan1");
}

extern "C" VEXA_API int32_t bi_network_get_sta_state(void)
{
    return interface_present(__func__, "ifconfig -a | grep wlan0 | awk '{print $1}'", "wlan0");
}

extern "C" VEXA_API int32_t bi_network_get_ip_address(const char *name, bi_ip_address_t *record)
{
    if (!name || !record) {
        VEXA_LOGE(kTag, "%s: invalid parameters", __func__);
        return -1;
    }
    if (!vexa::shell_args_safe(kTag, __func__, {name}) || !vexa::shell_not_option(kTag, __func__, name))
        return -1;
    copy15(record->name, name);
    char command[256];
    const int len = std::snprintf(
        command, sizeof command,
        "/system/bin/ip addr show %s | grep 'inet ' | awk '{print $2}' | cut -d/ -f1", name);
    if (len < 0 || len >= static_cast<int>(sizeof command)) {
        VEXA_LOGE(kTag, "%s: interface name too long: %s", __func__, name);
        return -1;
    }
    UniquePipe pipe(vexa::os::popen(command, "r"));
    if (!pipe) {
        VEXA_LOGE(kTag, "%s: popen failed", __func__);
        return -1;
    }
    char line[256];
    if (!std::fgets(line, sizeof line, pipe.get()) || line[0] == '\n' || line[0] == '\0') {
        VEXA_LOGE(kTag, "%s: no IP address found for interface %s", __func__, name);
        return -1;
    }
    line[std::strcspn(line, "\n")] = '\0';
    copy15(record->ip, line);
    return 0;
}
