// The board's sysfs and proc files, laid out with the values of a running
// board, and the attributes among them that take a whole value per write.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "sim/shell_filters.h"
#include "sim/state.h"
#include "sim/sysinfo/sysinfo.h"

namespace vexa::sim {

const std::vector<std::string> &sysfs_attributes()
{
    static const std::vector<std::string> paths = {
        "/sys/class/thermal/cooling_device0/cur_state",
        "/sys/class/irblaster/irblaster0/carrier_freq",
        "/sys/class/irblaster/irblaster0/duty_cycle",
        "/sys/class/irblaster/irblaster0/send",
        "/sys/class/low_power_ctrl/low_power_ctrl/status",
    };
    return paths;
}

namespace {

// A sysfs attribute: each write() replaces the value, from its start.
class SysfsAttribute : public DeviceModel {
public:
    ssize_t write(int fd, const void *buf, size_t count) override
    {
        if (::ftruncate(fd, 0) != 0)
            return -1;
        return ::pwrite(fd, buf, count, 0);
    }
};

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
    board.write_file("/.board/fstab", "/dev/block/by-name/system / ext4 ro,seclabel,relatime 0 0\n"
                                      "/dev/block/by-name/vendor /vendor ext4 ro,seclabel,relatime 0 0\n"
                                      "/dev/block/by-name/userdata /data f2fs rw,seclabel,nosuid,nodev,noatime 0 0\n"
                                      "/data/media /sdcard sdcardfs rw,nosuid,nodev,noexec,noatime 0 0\n");
    board.write_file("/.board/processes", "1 0 0 S 10240 init\n"
                                          "210 1 1036 S 6144 logd\n"
                                          "398 1 1000 S 182272 system_server\n"
                                          "455 1 1000 S 9216 vexa_hidl_service\n"
                                          "612 1 1000 S 24576 vexa_player\n"
                                          "613 1 1000 S 24576 vexa_player\n");
    board.write_file("/.board/usb_list", "001:001 1d6b:0002 Linux Foundation 2.0 root hub\n"
                                         "001:002 0bda:8179 Realtek RTL8188EUS 802.11n Wireless\n");
    board.write_file("/.board/sysinfo.conf", "cpu_usage=12.5\n");
}

VEXA_SIM_ATTACHER(system_files)
{
    auto attribute = std::make_shared<SysfsAttribute>();
    for (const auto &path : sysfs_attributes())
        board.add_model(path, attribute);

    // "cat FILE... [| filters]": the board's files, never the host's.
    std::weak_ptr<Board::State> weak = attached();
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
