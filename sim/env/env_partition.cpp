// The environment partition: a plain file at one of the store's device paths
// (a block device), and for "/dev/block/by-name/ubootenv" a memory-technology
// device that answers MEMGETINFO and MEMERASE like the kernel's MTD character
// device.
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "sim/board.h"
#include "sim/env/env_image.h"

namespace vexa::sim::env {

const char *const kEnvDevices[4] = {"/dev/nand_env", "/dev/block/env", "/dev/block/by-name/env",
                                    "/dev/block/by-name/ubootenv"};
const char kDefaultEnvDevice[] = "/dev/block/by-name/env";
const char kReserveDevice[] = "/dev/block/mmcblk2p22";
const char kReserveMountPoint[] = "/Reserve0";

std::string make_env_image(const std::vector<std::string> &entries, size_t size)
{
    std::string image(size, '\0');
    size_t at = 4;
    for (const auto &entry : entries) {
        if (at + entry.size() + 2 > size)
            break;
        image.replace(at, entry.size(), entry);
        at += entry.size() + 1;
    }
    const uLong crc = crc32(0L, reinterpret_cast<const Bytef *>(image.data() + 4),
                            static_cast<uInt>(size - 4));
    for (int i = 0; i < 4; ++i)
        image[i] = static_cast<char>((crc >> (8 * i)) & 0xff);
    return image;
}

std::string make_env_partition(const std::vector<std::string> &entries, size_t image_size)
{
    const std::string image = make_env_image(entries, image_size);
    std::string part(65536 + image_size, '\0');
    part.replace(0, image.size(), image);
    part.replace(65536, image.size(), image);
    return part;
}

bool read_env_image(const std::string &partition, size_t offset, std::vector<std::string> *entries,
                    size_t size)
{
    if (partition.size() < offset + size || size < 8)
        return false;
    const char *image = partition.data() + offset;
    uint32_t stored = 0;
    for (int i = 0; i < 4; ++i)
        stored |= static_cast<uint32_t>(static_cast<unsigned char>(image[i])) << (8 * i);
    const uLong crc = crc32(0L, reinterpret_cast<const Bytef *>(image + 4), static_cast<uInt>(size - 4));
    if (crc != stored)
        return false;
    entries->clear();
    size_t at = 4;
    while (at < size && image[at] != '\0') {
        const size_t len = strnlen(image + at, size - at);
        entries->emplace_back(image + at, len);
        at += len + 1;
    }
    return true;
}

std::vector<std::string> default_env_entries()
{
    return {"arch=arm",
            "baudrate=1500000",
            "board=evb_rk3568",
            "bootdelay=0",
            "bootcmd=boot_android ${devtype} ${devnum};boot_fit;bootrkp;run distro_bootcmd;",
            "cpu=armv8",
            "devnum=0",
            "devtype=mmc",
            "soc=rockchip",
            "vendor=rockchip"};
}

std::string fs_dir(const std::string &device)
{
    std::string name = Folder::normal(device);
    for (char &c : name)
        if (c == '/')
            c = '_';
    return "/.board/fs/" + name;
}

namespace {

// Erase blocks of the modelled flash.
constexpr uint32_t kEraseSize = 4096;

class MtdModel : public DeviceModel {
public:
    // Like the kernel's MTD character device, a write stops at the end of the
    // device and one that starts there fails with ENOSPC.
    ssize_t write(int fd, const void *buf, size_t count) override
    {
        const off_t at = ::lseek(fd, 0, SEEK_CUR);
        return pwrite_within(fd, buf, count, at, true);
    }
    ssize_t pwrite(int fd, const void *buf, size_t count, off_t offset) override
    {
        return pwrite_within(fd, buf, count, offset, false);
    }

    int ioctl(int fd, unsigned long request, void *arg) override
    {
        struct stat st;
        if (::fstat(fd, &st) != 0)
            return -1;
        const uint64_t size = static_cast<uint64_t>(st.st_size);
        if (request == MEMGETINFO) {
            auto *info = static_cast<mtd_info_user *>(arg);
            std::memset(info, 0, sizeof *info);
            info->type = MTD_NORFLASH;
            info->flags = MTD_CAP_NORFLASH;
            info->size = static_cast<uint32_t>(size);
            info->erasesize = kEraseSize;
            info->writesize = 1;
            return 0;
        }
        if (request == MEMERASE) {
            const auto *erase = static_cast<const erase_info_user *>(arg);
            // Like the kernel: the range must lie inside the device and start
            // and end on erase-block boundaries.
            if (static_cast<uint64_t>(erase->start) + erase->length > size ||
                erase->start % kEraseSize != 0 || erase->length % kEraseSize != 0) {
                errno = EINVAL;
                return -1;
            }
            const std::vector<char> erased(erase->length, static_cast<char>(0xff));
            if (::pwrite(fd, erased.data(), erased.size(), erase->start) !=
                static_cast<ssize_t>(erased.size()))
                return -1;
            return 0;
        }
        errno = ENOTTY;
        return -1;
    }

private:
    static ssize_t pwrite_within(int fd, const void *buf, size_t count, off_t at, bool advance)
    {
        struct stat st;
        if (at < 0 || ::fstat(fd, &st) != 0)
            return -1;
        if (count == 0)
            return 0;
        if (at >= st.st_size) {
            errno = ENOSPC;
            return -1;
        }
        const size_t room = static_cast<size_t>(st.st_size - at);
        const ssize_t n = ::pwrite(fd, buf, count < room ? count : room, at);
        if (advance && n > 0)
            ::lseek(fd, at + n, SEEK_SET);
        return n;
    }
};

} // namespace

} // namespace vexa::sim::env

using namespace vexa::sim::env;

VEXA_SIM_SEEDER(env_partition)
{
    board.write_file(kDefaultEnvDevice, make_env_partition(default_env_entries()));
}

VEXA_SIM_ATTACHER(env_partition)
{
    // The modelled node exists only where its file does, so that the store's
    // device choice sees the board as it is laid out.
    const char *mtd = kEnvDevices[3];
    if (board.exists(mtd))
        board.add_model(mtd, std::make_shared<MtdModel>());
}
