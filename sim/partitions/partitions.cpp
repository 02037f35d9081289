// The default board's raw partitions (sparse files at realistic sizes), the
// baseparameter partition with its connector table and display blocks, the
// product resolution JSON and the display and picture-quality files; and the
// HAL's block access.
#include "sim/partitions/partitions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/hal.h"
#include "sim/board.h"
#include "sim/state.h"

namespace fs = std::filesystem;

namespace vexa::sim::partitions {

const char kDefined[] = "/dev/block/by-name/defined";
const char kScreen[] = "/dev/block/by-name/screen";
const char kFpgaProgram[] = "/dev/block/by-name/fpga_program";
const char kBaseparameter[] = "/dev/block/by-name/baseparameter";
const char kResolutionJson[] = "/vendor/etc/vexa_product_resolution.json";

namespace {
void put32(std::string &s, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        s[at + i] = char((v >> (8 * i)) & 0xff);
}

const std::vector<uint32_t> kDefaultTiming = {148500, 1920, 2008, 2052, 2200,
                                              1080,   1084, 1089, 1125, 60};

// A sparse file of size bytes.
void make_sparse(Board &board, const char *path, off_t size)
{
    const Folder folder = board.folder();
    const std::string at = Folder::normal(path);
    folder.make_dirs(at.substr(0, at.rfind('/')));
    const Descriptor fd(folder.open(path, O_CREAT | O_WRONLY, 0644));
    if (fd && ::ftruncate(fd.get(), size) != 0) {
        // left as created; the partition then reads short
    }
}

const char kResolutionJsonText[] = R"JSON({
    "products": [
        {
            "calculate_type": "cvtrb",
            "modID": 38432,
            "min_hdisplay": 480,
            "max_hdisplay": 4096,
            "min_vidsplay": 480,
            "max_vidsplay": 4096,
            "bandwidth": 8847360,
            "pclock": 594
        },
        {
            "calculate_type": "cvtrb",
            "modID": 38448,
            "min_hdisplay": 512,
            "max_hdisplay": 4096,
            "min_vidsplay": 512,
            "max_vidsplay": 4096,
            "bandwidth": 8847360,
            "pclock": 594
        },
        {
            "calculate_type": "cvtrb",
            "modID": 38467,
            "min_hdisplay": 480,
            "max_hdisplay": 2048,
            "min_vidsplay": 480,
            "max_vidsplay": 2048,
            "bandwidth": 2300000,
            "pclock": 164
        }
    ]
}
)JSON";
} // namespace

std::string make_display_block(const std::vector<uint32_t> &timing)
{
    std::string block(kDisplayBlockSize, '\0');
    for (size_t i = 0; i < timing.size() && i < 10; ++i)
        put32(block, 16 + 4 * i, timing[i]);
    const uLong crc = crc32(0L, reinterpret_cast<const Bytef *>(block.data()),
                            uInt(kDisplayBlockSize - 4));
    put32(block, kDisplayBlockSize - 4, uint32_t(crc));
    return block;
}

std::vector<Connector> default_connectors()
{
    return {{kConnectorHdmiA, 0, 4096}, {kConnectorDp, 0, 45056}};
}

std::string make_baseparameter(const std::vector<Connector> &connectors, size_t size)
{
    std::string image(size, '\0');
    image.replace(0, 4, "BASP");
    put32(image, 4, 2); // layout version
    const std::string block = make_display_block(kDefaultTiming);
    for (size_t i = 0; i < connectors.size() && i < 8; ++i) {
        const Connector &c = connectors[i];
        put32(image, 8 + 12 * i, c.type);
        put32(image, 12 + 12 * i, c.id);
        put32(image, 16 + 12 * i, c.offset);
        if (c.offset + block.size() <= size)
            image.replace(c.offset, block.size(), block);
    }
    return image;
}

std::string vendor_item_path(int item)
{
    return "/.board/vendor_storage/" + std::to_string(item);
}

VEXA_SIM_SEEDER(partitions)
{
    make_sparse(board, kDefined, 4 << 20);
    make_sparse(board, kScreen, 4 << 20);
    make_sparse(board, kFpgaProgram, 16 << 20);
    board.write_file(kBaseparameter, make_baseparameter(default_connectors(), 1 << 20));
    board.write_file(kResolutionJson, kResolutionJsonText);
    board.folder().make_dirs("/sdcard");
}

// The display section of the default product INI and the picture-quality
// switches of the video pipeline.
VEXA_SIM_SEEDER(display_files)
{
    board.write_file("/sys/class/display/mode", "0\n");
    board.write_file("/sys/class/hdmirx/hdmi_in_1/status", "1\n");
    board.write_file("/sys/class/hdmirx/hdmi_in_2/status", "0\n");
    board.write_file("/sys/class/drm/card0-HDMI-A-1/status", "1\n");
    board.write_file("/sys/class/drm/card0-HDMI-A-2/status", "0\n");
    board.write_file("/sys/class/amvecm/debug", "");
    board.write_file("/sys/module/decoder_common/parameters/debug_vdetect", "0\n");
    board.write_file("/sys/module/aml_media/parameters/uvm_open_aipq", "0\n");
}

} // namespace vexa::sim::partitions

namespace {

// Partitions under /dev/block have a fixed size, like the device.
bool fixed_size(const std::string &path)
{
    return vexa::sim::Folder::normal(path).rfind("/dev/block/", 0) == 0;
}

} // namespace

extern "C" int hal_block_read(const char *path, uint32_t offset, void *buf, uint32_t len)
{
    VEXA_SIM_ATTACHED_OR(-1);
    if (path == nullptr || (buf == nullptr && len != 0)) {
        errno = EINVAL;
        return -1;
    }
    VEXA_SIM_FAULT("hal_block_read", path, int);
    const vexa::sim::Descriptor fd(s.folder().open(path, O_RDONLY));
    if (!fd)
        return -1;
    const ssize_t n = ::pread(fd.get(), buf, len, offset);
    return n < 0 ? -1 : int(n);
}

extern "C" int hal_block_write(const char *path, uint32_t offset, const void *buf, uint32_t len)
{
    VEXA_SIM_ATTACHED_OR(-1);
    if (path == nullptr || (buf == nullptr && len != 0)) {
        errno = EINVAL;
        return -1;
    }
    VEXA_SIM_FAULT("hal_block_write", path, int);
    if (vexa::sim::partition_write_fails(s, path)) {
        errno = EIO; // the eMMC's answer to a write it could not program
        return -1;
    }
    const bool fixed = fixed_size(path);
    const vexa::sim::Descriptor fd(s.folder().open(path, fixed ? O_WRONLY : O_WRONLY | O_CREAT, 0644));
    if (!fd)
        return -1;
    struct stat st {};
    if (fixed && (::fstat(fd.get(), &st) != 0 || uint64_t(offset) + len > uint64_t(st.st_size))) {
        errno = ENOSPC;
        return -1;
    }
    const ssize_t n = ::pwrite(fd.get(), buf, len, offset);
    return n < 0 ? -1 : int(n);
}

VEXA_SIM_ATTACHER(partition_knobs)
{
    board.add_knob({"partitions.fail_writes", "NAME,...",
                    "writes to these partitions fail (EIO), as a worn eMMC's do: by-name names or node paths", "",
                    vexa::sim::Knob::list_of([](const std::string &item) {
                        return !item.empty() && item.find_first_of(" \t") == std::string::npos &&
                               (item[0] == '/' ? item.compare(0, 5, "/dev/") == 0
                                               : item.find('/') == std::string::npos);
                    })});
}
