// The reserve partition "/dev/block/mmcblk2p22": an ext4 file system whose
// files live in a directory of the board's state. mount attaches it to its
// mount point (the mount point becomes a link to those files, and what the
// directory held before is set aside until umount); "mkfs.ext4 -F" formats
// it to an empty file system holding lost+found. Also "/cache/recovery" and
// the "reboot" command, recorded as a reboot request.
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/os.h"
#include "sim/board.h"
#include "sim/env/env_image.h"

using vexa::sim::CommandResult;
using namespace vexa::sim::env;

namespace {

constexpr int kFailed = 1 << 8;

// Empties the file system of a device and gives it lost+found.
void format(const vexa::sim::Folder &folder, const std::string &dir)
{
    folder.make_dirs(dir);
    for (const auto &name : folder.list(dir).value_or(std::vector<std::string>()))
        folder.remove_all(dir + "/" + name);
    folder.mkdir(dir + "/lost+found");
}

// Where the mount point's own files wait while the file system is mounted.
std::string set_aside(const std::string &target)
{
    std::string name = target;
    for (char &c : name)
        if (c == '/')
            c = '_';
    return "/.board/fs/hidden" + name;
}

// target is the mount point as the device reads it ("/a/../b" is "/b"):
// the folder that stands there is set aside, and a link to the file
// system's files takes its place. Both stay inside the board: a mount point
// reached through a link that leads out is refused.
int attach(const vexa::sim::Folder &folder, const std::string &source, const std::string &target)
{
    const std::string files = fs_dir(source);
    if (!folder.is_directory(files)) {
        errno = EINVAL; // no file system on the device
        return -1;
    }
    const std::string aside = set_aside(target);
    folder.remove_all(aside);
    if (folder.rename(target, aside) != 0) {
        if (errno != EXDEV)
            errno = EBUSY;
        return -1;
    }
    if (folder.symlink(folder.root() + files, target) != 0) {
        folder.rename(aside, target);
        errno = EIO;
        return -1;
    }
    return 0;
}

int detach(const vexa::sim::Folder &folder, const std::string &target)
{
    const std::string aside = set_aside(target);
    struct stat st;
    if (folder.stat(target, &st, false) == 0 && S_ISLNK(st.st_mode))
        folder.remove(target);
    if (folder.exists(aside))
        folder.rename(aside, target);
    else
        folder.mkdir(target);
    return 0;
}

} // namespace

VEXA_SIM_SEEDER(reserve_partition)
{
    // The device node and a file system formatted at the factory.
    board.write_file(kReserveDevice, "");
    format(board.folder(), fs_dir(kReserveDevice));
    board.folder().make_dirs("/cache/recovery");
}

VEXA_SIM_ATTACHER(reserve_partition)
{
    const vexa::sim::Folder folder = board.folder();
    board.on_command("mkfs.ext4", [folder](const std::vector<std::string> &argv,
                                           const std::string &) -> CommandResult {
        std::string device;
        for (size_t i = 1; i < argv.size(); ++i)
            if (argv[i][0] != '-')
                device = argv[i];
        if (device.empty() || device[0] != '/' || !folder.exists(device))
            return {kFailed, "mkfs.ext4: The file " + device +
                                 " does not exist and no size was specified.\n"};
        format(folder, fs_dir(device));
        return {};
    });
    board.on_command("reboot", [](const std::vector<std::string> &argv, const std::string &) {
        vexa::os::reboot(argv.size() > 1 ? argv[1].c_str() : nullptr);
        return CommandResult{};
    });
    board.on_mount(kReserveDevice, [folder](const std::string &source, const std::string &target,
                                            bool attaching) {
        return attaching ? attach(folder, source, target) : detach(folder, target);
    });
}
