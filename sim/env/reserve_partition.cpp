// The reserve partition "/dev/block/mmcblk2p22": an ext4 file system whose
// files live in a directory of the board's state. mount attaches it to its
// mount point (the mount point becomes a link to those files, and what the
// directory held before is set aside until umount); "mkfs.ext4 -F" formats
// it to an empty file system holding lost+found. Also "/cache/recovery" and
// the "reboot" command, recorded as a reboot request.
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/os.h"
#include "sim/board.h"
#include "sim/env/env_image.h"

namespace fs = std::filesystem;
using vexa::sim::CommandResult;
using namespace vexa::sim::env;

namespace {

constexpr int kFailed = 1 << 8;

// Empties the file system of a device and gives it lost+found.
void format(const std::string &dir)
{
    std::error_code ec;
    fs::create_directories(dir, ec);
    for (const auto &entry : fs::directory_iterator(dir, ec))
        fs::remove_all(entry.path(), ec);
    fs::create_directory(fs::path(dir) / "lost+found", ec);
}

std::string set_aside(const std::string &root, const std::string &target)
{
    std::string name = target;
    for (char &c : name)
        if (c == '/')
            c = '_';
    return root + "/.board/fs/hidden" + name;
}

int attach(const std::string &root, const std::string &source, const std::string &target)
{
    const std::string files = fs_dir(root, source);
    std::error_code ec;
    if (!fs::is_directory(files, ec)) {
        errno = EINVAL; // no file system on the device
        return -1;
    }
    const std::string at = root + target;
    const std::string aside = set_aside(root, target);
    fs::remove_all(aside, ec);
    fs::rename(at, aside, ec);
    if (ec) {
        errno = EBUSY;
        return -1;
    }
    fs::create_directory_symlink(files, at, ec);
    if (ec) {
        fs::rename(aside, at, ec);
        errno = EIO;
        return -1;
    }
    return 0;
}

int detach(const std::string &root, const std::string &target)
{
    const std::string at = root + target;
    const std::string aside = set_aside(root, target);
    std::error_code ec;
    if (fs::is_symlink(at, ec))
        fs::remove(at, ec);
    if (fs::exists(aside, ec))
        fs::rename(aside, at, ec);
    else
        fs::create_directory(at, ec);
    return 0;
}

} // namespace

VEXA_SIM_SEEDER(reserve_partition)
{
    // The device node and a file system formatted at the factory.
    board.write_file(kReserveDevice, "");
    format(fs_dir(board.root(), kReserveDevice));
    std::error_code ec;
    fs::create_directories(board.host_path("/cache/recovery"), ec);
}

VEXA_SIM_ATTACHER(reserve_partition)
{
    const std::string root = board.root();
    board.on_command("mkfs.ext4", [root](const std::vector<std::string> &argv,
                                         const std::string &) -> CommandResult {
        std::string device;
        for (size_t i = 1; i < argv.size(); ++i)
            if (argv[i][0] != '-')
                device = argv[i];
        std::error_code ec;
        if (device.empty() || device[0] != '/' || !fs::exists(root + device, ec))
            return {kFailed, "mkfs.ext4: The file " + device +
                                 " does not exist and no size was specified.\n"};
        format(fs_dir(root, device));
        return {};
    });
    board.on_command("reboot", [](const std::vector<std::string> &argv, const std::string &) {
        vexa::os::reboot(argv.size() > 1 ? argv[1].c_str() : nullptr);
        return CommandResult{};
    });
    board.on_mount(kReserveDevice, [root](const std::string &source, const std::string &target,
                                          bool attaching) {
        return attaching ? attach(root, source, target) : detach(root, target);
    });
}
