// The board's sysfs and proc files, laid out with the values of a running
// board, and the attributes among them that take a whole value per write.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <fstream>
#include <sstream>

#include "sim/shell_filters.h"
#include "sim/state.h"
#include "sim/sysinfo/sysinfo.h"

namespace vexa::sim {

namespace {

// The text of one value as the kernel parses it: without one trailing newline.
std::string value_of(const void *buf, size_t count)
{
    std::string text(static_cast<const char *>(buf), count);
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

// A whole decimal number from min to max, as kstrtouint takes it.
bool number_in(const std::string &text, unsigned long min, unsigned long max)
{
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const unsigned long n = std::stoul(text);
    return n >= min && n <= max;
}

// The IR blaster's pattern: mark and space durations in microseconds, each
// followed by 's', at most 512 of them.
bool ir_pattern(const std::string &text)
{
    size_t count = 0, digits = 0;
    for (char c : text) {
        if (c >= '0' && c <= '9') {
            if (++digits > 6)
                return false;
        } else if (c == 's' && digits > 0) {
            digits = 0;
            ++count;
        } else {
            return false;
        }
    }
    return digits == 0 && count > 0 && count <= 512;
}

} // namespace

const std::vector<SysfsAttributeRule> &sysfs_attributes()
{
    using Check = std::function<bool(const Board::State &, const std::string &)>;
    static const std::vector<SysfsAttributeRule> rules = {
        // The cooling state takes 0 to the device's max_state.
        {"/sys/class/thermal/cooling_device0/cur_state",
         Check([](const Board::State &s, const std::string &v) {
             std::istringstream in(s.folder().read("/sys/class/thermal/cooling_device0/max_state").value_or(""));
             unsigned long max = 0;
             return (in >> max) && number_in(v, 0, max);
         })},
        {"/sys/class/irblaster/irblaster0/carrier_freq",
         Check([](const Board::State &, const std::string &v) { return number_in(v, 10000, 60000); })},
        {"/sys/class/irblaster/irblaster0/duty_cycle",
         Check([](const Board::State &, const std::string &v) { return number_in(v, 1, 99); })},
        {"/sys/class/irblaster/irblaster0/send",
         Check([](const Board::State &, const std::string &v) { return ir_pattern(v); })},
        {"/sys/class/low_power_ctrl/low_power_ctrl/status",
         Check([](const Board::State &, const std::string &v) { return v == "enable" || v == "disable"; })},
    };
    return rules;
}

namespace {

// A sysfs attribute: each write() replaces the value, from its start, and a
// value the attribute does not take is refused with EINVAL, the file kept.
class SysfsAttribute : public DeviceModel {
public:
    SysfsAttribute(std::weak_ptr<Board::State> state, SysfsAttributeRule rule)
        : state_(std::move(state)), rule_(std::move(rule))
    {
    }

    // An attribute is not truncated or created by its opener: only a write
    // that is taken replaces its value.
    int open(const Folder &folder, const std::string &board_path, int flags, mode_t mode) override
    {
        return folder.open(board_path, (flags & ~(O_TRUNC | O_CREAT | O_APPEND)) | O_CLOEXEC, mode);
    }

    ssize_t write(int fd, const void *buf, size_t count) override
    {
        auto s = state_.lock();
        if (!s || !rule_.takes(*s, value_of(buf, count))) {
            errno = EINVAL;
            return -1;
        }
        if (::ftruncate(fd, 0) != 0)
            return -1;
        return ::pwrite(fd, buf, count, 0);
    }
    ssize_t pwrite(int fd, const void *buf, size_t count, off_t) override { return write(fd, buf, count); }

private:
    std::weak_ptr<Board::State> state_;
    SysfsAttributeRule rule_;
};

// The processes of a board that has just booted.
constexpr const char *kBootProcesses = "1 0 0 S 10240 init\n"
                                       "210 1 1036 S 6144 logd\n"
                                       "398 1 1000 S 182272 system_server\n"
                                       "455 1 1000 S 9216 vexa_hidl_service\n"
                                       "612 1 1000 S 24576 vexa_player\n"
                                       "613 1 1000 S 24576 vexa_player\n";

constexpr const char *kMeminfo = R"(MemTotal:        3970668 kB
MemFree:          812424 kB
MemAvailable:    2306092 kB
Buffers:           61224 kB
Cached:          1531760 kB
SwapCached:            0 kB
Active:          1205732 kB
Inactive:        1198456 kB
SwapTotal:       1985332 kB
SwapFree:        1985332 kB
Shmem:             10772 kB
)";

constexpr const char *kDriSummary = R"(Video Port0: ACTIVE
    Connector: HDMI-A-1
	bus_format[100a]: RGB888_1X24
	overlay_mode[0] output_mode[f] color_space[0]
    Display mode: 1920x1080p60
	clk[148500] real_clk[148500] type[48] flag[5]
	H: 1920 2008 2052 2200
	V: 1080 1084 1089 1125
    Esmart0-win0: ACTIVE
	win_id: 0
Video Port1: DISABLED
)";

} // namespace
} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_SEEDER(system_files)
{
    board.write_file("/sys/class/thermal/cooling_device0/cur_state", "0\n");
    board.write_file("/sys/class/thermal/cooling_device0/max_state", "10\n");
    board.write_file("/sys/class/thermal/thermal_zone0/temp", "45000\n");
    board.write_file("/proc/fan_arm", "0\n");
    board.write_file("/sys/bus/iio/devices/iio:device0/in_voltage1_raw", "3\n");
    board.write_file("/sys/bus/iio/devices/iio:device0/in_voltage2_raw", "620\n");
    board.write_file("/sys/bus/iio/devices/iio:device0/in_voltage3_raw", "512\n");
    board.write_file("/sys/class/irblaster/irblaster0/carrier_freq", "38000\n");
    board.write_file("/sys/class/irblaster/irblaster0/duty_cycle", "50\n");
    board.write_file("/sys/class/irblaster/irblaster0/send", "");
    board.write_file("/sys/class/low_power_ctrl/low_power_ctrl/status", "enable\n");
    board.write_file("/sys/block/mmcblk2/size", "15269888\n");
    board.write_file("/proc/meminfo", kMeminfo);
    board.write_file("/d/dri/0/summary", kDriSummary);
    board.write_file("/sdcard/.keep", "");
    // The eMMC's partitions: their size and what their files take, in KiB.
    board.write_file("/.board/fstab",
                     "/dev/block/by-name/system / ext4 ro,seclabel,relatime 0 0 2097152 1672804\n"
                     "/dev/block/by-name/vendor /vendor ext4 ro,seclabel,relatime 0 0 524288 389120\n"
                     "/dev/block/by-name/userdata /data f2fs rw,seclabel,nosuid,nodev,noatime 0 0 4718592 1258291\n"
                     "/data/media /sdcard sdcardfs rw,nosuid,nodev,noexec,noatime 0 0 4718592 1258291\n");
    board.write_file("/proc/loadavg", "0.52 0.58 0.59 1/612 4242\n");
    board.write_file("/.board/processes", kBootProcesses);
    board.write_file("/.board/usb_list", "001:001 1d6b:0002 Linux Foundation 2.0 root hub\n"
                                         "001:002 0bda:8179 Realtek RTL8188EUS 802.11n Wireless\n");
    board.write_file("/.board/sysinfo.conf", "cpu_usage=12.5\n");
}

VEXA_SIM_ATTACHER(system_files)
{
    std::weak_ptr<Board::State> weak = attached();
    // After a reset the board's processes are those it boots with.
    board.on_reset([weak](const std::string &) {
        if (auto s = weak.lock())
            with_board_lock(*s, [&] { write_state(*s, "processes", kBootProcesses); });
    });
    for (const auto &rule : sysfs_attributes())
        board.add_model(rule.path, std::make_shared<SysfsAttribute>(weak, rule));

    // "cat FILE... [| filters]": the board's files, never the host's.
    board.on_command("cat", [weak](const std::vector<std::string> &,
                                   const std::string &command) -> CommandResult {
        auto s = weak.lock();
        const auto stages = split_pipeline(command);
        if (!s || stages.empty())
            return {1 << 8, ""};
        std::string text;
        int status = 0;
        for (size_t i = 1; i < stages[0].size(); ++i) {
            const std::string &path = stages[0][i];
            if (path.empty() || path[0] != '/') {
                status = 1 << 8;
                continue;
            }
            const auto contents = s->folder().read(path);
            if (!contents) {
                status = 1 << 8;
                continue;
            }
            text += *contents;
        }
        const auto out = run_filters(text, stages);
        if (!out)
            return {127 << 8, ""};
        return {status, *out};
    });
}
