// The configurable self-test: twelve device checks, one result line each,
// written to a result file and returned in one reply record.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/log.h"
#include "platform/os.h"
#include "platform/unique.h"
#include "selftest/test_items.h"
#include "vexasdk/fpga.h"
#include "vexasdk/network.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/selftest.h"

namespace {

constexpr const char *kTag = "vexa_system_hidl_service";
constexpr const char *kResultFile = "/sdcard/self_test_results.txt";
constexpr size_t kReplyText = 512;
constexpr size_t kReplyHead = 10;

// Items named in the last item list read by parseAndConfigTestItem.
size_t g_selected = 0;

struct PipeCloser {
    void operator()(FILE *f) const { vexa::os::pclose(f); }
};
using UniquePipe = std::unique_ptr<FILE, PipeCloser>;

int32_t result(const char *name, char *buf, int32_t len, const char *value)
{
    std::snprintf(buf, static_cast<size_t>(len), "%s:%s\r\n", name, value);
    return 0;
}

int32_t verdict(const char *name, char *buf, int32_t len, bool ok)
{
    return result(name, buf, len, ok ? "OK" : "Error");
}

bool args_ok(const char *name, char *buf, int32_t len)
{
    return name && buf && len > 0;
}

// The first output line of command, without its newline; false when it
// could not be run.
bool first_line(const char *command, std::string *line)
{
    char out[256] = {};
    if (getShellRes(command, out, sizeof out) < 0)
        return false;
    *line = out;
    if (!line->empty() && line->back() == '\n')
        line->pop_back();
    return true;
}

} // namespace

extern "C" {

VEXA_API int32_t getShellRes(const char *command, char *out, int32_t len)
{
    if (!command || !out || len <= 0)
        return -1;
    UniquePipe pipe(vexa::os::popen(command, "r"));
    if (!pipe) {
        VEXA_LOGE(kTag, "%s, failed to execute command", __func__);
        return -1;
    }
    out[0] = '\0';
    if (!std::fgets(out, len, pipe.get()))
        out[0] = '\0';
    return 0;
}

VEXA_API int32_t writeToFile(const char *line)
{
    vexa::UniqueFile f(vexa::os::fopen(kResultFile, "a"));
    if (!f) {
        VEXA_LOGE(kTag, "%s Failed to open file", __func__);
        return -1;
    }
    std::fprintf(f.get(), "%s\n", line ? line : "");
    return 0;
}

VEXA_API int32_t checkRtcState(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    return verdict(name, buf, len, bi_i2c_get_rtc_state(0) == 0);
}

VEXA_API int32_t checkES8316State(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    if (!config_info || config_info->audio_num < 1) {
        VEXA_LOGE(kTag, "%s: config_info is NULL or audio_num id %d, please check ini file",
                  __func__, config_info ? config_info->audio_num : -1);
        return result(name, buf, len, "Error");
    }
    // Every configured codec (the board has at most two) must report ready.
    bool ok = true;
    const int32_t codecs = config_info->audio_num > 2 ? 2 : config_info->audio_num;
    for (int32_t i = 0; i < codecs; ++i)
        ok = bi_i2c_get_audio_state(static_cast<uint32_t>(i)) == 0 && ok;
    return verdict(name, buf, len, ok);
}

VEXA_API int32_t checkWifiApState(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    return verdict(name, buf, len, bi_network_get_ap_state() == 0);
}

VEXA_API int32_t checkWifiStaState(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    return verdict(name, buf, len, bi_network_get_sta_state() == 0);
}

VEXA_API int32_t checkIDT6965State(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    return verdict(name, buf, len, bi_i2c_get_clock_chip_state(0) == 0);
}

VEXA_API int32_t getARMTemperature(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    bi_cpu_state_t cpu{};
    if (bi_info_get_cpu_state(&cpu) < 0)
        return result(name, buf, len, "Error");
    std::snprintf(buf, static_cast<size_t>(len), "%s:%.2f\u00b0C\r\n", name, cpu.temperature / 1000.0);
    return 0;
}

VEXA_API int32_t getAvailableMemory(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    std::string kb;
    if (!first_line(" cat /proc/meminfo | grep MemAvailable | awk '{ printf $2 }'", &kb))
        return result(name, buf, len, "Error");
    std::snprintf(buf, static_cast<size_t>(len), "%s:%.2fG\r\n", name,
                  std::atof(kb.c_str()) / 1024 / 1024);
    return 0;
}

VEXA_API int32_t getCpuUsageStatus(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    bi_cpu_state_t cpu{};
    if (bi_info_get_cpu_state(&cpu) < 0)
        return result(name, buf, len, "Error");
    std::snprintf(buf, static_cast<size_t>(len), "%s:%.2f%%\r\n", name, cpu.usage);
    return 0;
}

VEXA_API int32_t getARMResolution(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    std::string mode;
    if (!first_line(" cat /d/dri/0/summary  | grep Display | awk '{print $3}'", &mode))
        return result(name, buf, len, "Error");
    return result(name, buf, len, mode.c_str());
}

VEXA_API int32_t getArmHdmiStatus(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    char out[256] = {};
    if (getShellRes(" cat /d/dri/0/summary | grep Video | awk '{print $3}'", out, sizeof out) < 0)
        return result(name, buf, len, "Error");
    if (std::strcmp(out, "ACTIVE\n") == 0)
        return result(name, buf, len, "enabled");
    out[std::strcspn(out, "\n")] = '\0';
    std::snprintf(buf, static_cast<size_t>(len), "%s:%s<%s>\r\n", name, "disenabled", out);
    return 0;
}

VEXA_API int32_t checktNetworkCardPhy(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    // That the command runs is the check; its output is not inspected.
    UniquePipe pipe(vexa::os::popen(" ifconfig  | grep eth1 -A 7", "r"));
    return verdict(name, buf, len, static_cast<bool>(pipe));
}

VEXA_API int32_t checktFpgaDoneStatus(const char *name, char *buf, int32_t len)
{
    if (!args_ok(name, buf, len))
        return -1;
    const bool ok = bi_fpga_get_fpga_done_status() >= 0;
    return verdict(name, buf, len, ok);
}

VEXA_API bi_test_option_t test_option_table[BI_SELF_TEST_ITEMS] = {
    {1, "RTC-Status", checkRtcState, 0},
    {2, "ES8316", checkES8316State, 0},
    {3, "AP-Status", checkWifiApState, 0},
    {4, "WIFI-Status", checkWifiStaState, 0},
    {5, "IClock-Chip", checkIDT6965State, 0},
    {6, "ARM-Temperature", getARMTemperature, 0},
    {7, "Available-Memory", getAvailableMemory, 0},
    {8, "CPU-Usage-Rate", getCpuUsageStatus, 0},
    {9, "Resolution", getARMResolution, 0},
    {10, "Display-Interface-Switch", getArmHdmiStatus, 0},
    {11, "Network-Card-Phy", checktNetworkCardPhy, 0},
    {12, "FPGA-Done-Status", checktFpgaDoneStatus, 0},
};

VEXA_API int32_t parseAndConfigTestItem(void)
{
    if (!config_info || config_info->self_test_items[0] == '\0') {
        VEXA_LOGE(kTag, "%s: self_test_items not config in ini, please check ini file", __func__);
        return -1;
    }
    const auto items = vexa::selftest::parse_item_list(config_info->self_test_items);
    VEXA_LOGD(kTag, "%s: count = %lu", __func__, static_cast<unsigned long>(items.size()));
    for (long id : items)
        for (bi_test_option_t &entry : test_option_table)
            if (entry.id == id)
                entry.enable = 1; // never cleared
    for (int i = 0; i < BI_SELF_TEST_ITEMS; ++i)
        VEXA_LOGD(kTag, "%s: test_option_table[%d].enable = %d", __func__, i,
                  test_option_table[i].enable);
    g_selected = items.size();
    return static_cast<int32_t>(items.size());
}

VEXA_API int32_t runSelfTestAndGetResult(uint8_t *reply, uint32_t length)
{
    if (!reply) {
        VEXA_LOGE(kTag, "%s: invalid NULL pointer", __func__);
        return -1;
    }
    vexa::os::remove(kResultFile);
    if (g_selected == 0) {
        VEXA_LOGE(kTag, "%s: invalid select_test_items is 0, please check ini file.", __func__);
        return -1;
    }
    std::string text;
    bool failed = false;
    for (bi_test_option_t &entry : test_option_table) {
        if (!entry.enable)
            continue;
        char line[64] = {};
        if (entry.check(entry.name, line, sizeof line) < 0)
            failed = true;
        if (writeToFile(line) < 0)
            return -1;
        text += line;
    }
    if (text.size() > kReplyText)
        text.resize(kReplyText);
    const size_t total = text.size() + kReplyHead;
    if (length < total) {
        VEXA_LOGE(kTag, "%s: reply buffer of %u bytes cannot hold %zu bytes", __func__, length,
                  total);
        return -1;
    }
    std::memset(reply, 0, length);
    const uint8_t magic[4] = {0xF4, 0xFF, 0xFF, 0xFF}; // 0xFFFFFFF4, little-endian
    std::memcpy(reply, magic, sizeof magic);
    const uint16_t size = static_cast<uint16_t>(text.size() + 2);
    reply[6] = static_cast<uint8_t>(size & 0xff);
    reply[7] = static_cast<uint8_t>(size >> 8);
    reply[8] = failed ? 1 : 0;
    reply[9] = static_cast<uint8_t>(g_selected);
    std::memcpy(reply + kReplyHead, text.data(), text.size());
    VEXA_LOGD(kTag, "%s: data_size = %lu", __func__, static_cast<unsigned long>(text.size()));
    VEXA_LOGD(kTag, "%s: total_data_size = %lu", __func__, static_cast<unsigned long>(total));
    return static_cast<int32_t>(total);
}

} // extern "C"
