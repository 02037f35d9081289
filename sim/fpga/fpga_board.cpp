// The FPGA on the board: its files on a new board, and on attaching, its
// device nodes, services, commands and the lines and files it follows.
#include <fcntl.h>
#include <iniparser.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>

#include "platform/fpga_wire.h"
#include "sim/board.h"
#include "sim/fpga/fpga_model.h"
#include "sim/state.h"

namespace fs = std::filesystem;

namespace vexa::sim {

namespace {

std::mutex g_mu;
std::map<std::string, std::weak_ptr<FpgaModel>> g_models; // by board root

class SpiNode : public DeviceModel {
public:
    SpiNode(std::shared_ptr<FpgaModel> model, std::string path)
        : model_(std::move(model)), path_(std::move(path))
    {
    }
    int open(const Folder &, const std::string &, int, mode_t) override
    {
        return ::open("/dev/null", O_RDWR | O_CLOEXEC);
    }
    // A read takes its request from the buffer (0B, the address) and fills
    // in the data, as the FPGA's SPI driver does.
    ssize_t read(int, void *buf, size_t count) override
    {
        return done(model_->spi(path_, 'r', static_cast<uint8_t *>(buf), count), count);
    }
    ssize_t write(int, const void *buf, size_t count) override
    {
        std::vector<uint8_t> bytes(static_cast<const uint8_t *>(buf), static_cast<const uint8_t *>(buf) + count);
        return done(model_->spi(path_, 'w', bytes.data(), count), count);
    }
    ssize_t pread(int fd, void *buf, size_t count, off_t) override { return read(fd, buf, count); }
    ssize_t pwrite(int fd, const void *buf, size_t count, off_t) override { return write(fd, buf, count); }
    bool read_takes_buffer() const override { return true; }

private:
    static ssize_t done(int result, size_t count)
    {
        if (result < 0) {
            errno = -result;
            return -1;
        }
        return ssize_t(count);
    }
    std::shared_ptr<FpgaModel> model_;
    std::string path_;
};

class LoadNode : public DeviceModel {
public:
    explicit LoadNode(std::shared_ptr<FpgaModel> model) : model_(std::move(model)) {}
    int open(const Folder &, const std::string &, int flags, mode_t) override
    {
        if ((flags & O_ACCMODE) != O_RDONLY)
            model_->load_node_open();
        return ::open("/dev/null", O_RDWR | O_CLOEXEC);
    }
    ssize_t read(int, void *, size_t) override { return 0; }
    ssize_t write(int, const void *buf, size_t count) override
    {
        const long n = model_->load_node_write(static_cast<const uint8_t *>(buf), count);
        if (n < 0) {
            errno = int(-n);
            return -1;
        }
        return n;
    }
    ssize_t pwrite(int fd, const void *buf, size_t count, off_t) override { return write(fd, buf, count); }

private:
    std::shared_ptr<FpgaModel> model_;
};

// "/dev/mtd0" as the MTD character device of a NOR flash: an erase and a
// write take the flash's time.
class NorNode : public DeviceModel {
public:
    explicit NorNode(std::shared_ptr<FpgaModel> model) : model_(std::move(model)) {}
    int open(const Folder &folder, const std::string &board_path, int flags, mode_t) override
    {
        (void)board_path;
        return folder.open(model_->flash_file(), flags & ~(O_CREAT | O_TRUNC));
    }
    ssize_t write(int fd, const void *buf, size_t count) override
    {
        const off_t at = ::lseek(fd, 0, SEEK_CUR);
        const ssize_t n = program(buf, count, at);
        if (n > 0)
            ::lseek(fd, at + n, SEEK_SET);
        return n;
    }
    ssize_t pwrite(int, const void *buf, size_t count, off_t offset) override
    {
        return program(buf, count, offset);
    }
    int ioctl(int, unsigned long request, void *arg) override
    {
        if (request == MEMGETINFO) {
            auto *info = static_cast<mtd_info_user *>(arg);
            std::memset(info, 0, sizeof *info);
            info->type = MTD_NORFLASH;
            info->flags = MTD_CAP_NORFLASH;
            info->size = uint32_t(FpgaModel::kFlashSize);
            info->erasesize = uint32_t(FpgaModel::kEraseSize);
            info->writesize = 1;
            return 0;
        }
        if (request == MEMERASE) {
            const auto *erase = static_cast<const erase_info_user *>(arg);
            if (!model_->nor_erase(erase->start, erase->length)) {
                errno = EINVAL;
                return -1;
            }
            return 0;
        }
        errno = ENOTTY;
        return -1;
    }

private:
    // A write can only clear bits; it stops at the end of the device.
    ssize_t program(const void *buf, size_t count, off_t at)
    {
        if (at < 0 || size_t(at) >= FpgaModel::kFlashSize) {
            errno = ENOSPC;
            return count ? -1 : 0;
        }
        const size_t n = std::min(count, FpgaModel::kFlashSize - size_t(at));
        if (!model_->nor_program(size_t(at), static_cast<const uint8_t *>(buf), n)) {
            errno = EIO;
            return -1;
        }
        return ssize_t(n);
    }
    std::shared_ptr<FpgaModel> model_;
};

struct DictDeleter {
    void operator()(dictionary *d) const { iniparser_freedict(d); }
};

bool usable(const char *path) { return path && path[0] == '/' && !std::strstr(path, "UNDEF"); }

// A board file laid down without truncating what is there (a partition).
void write_at(Board &board, const std::string &path, const std::string &bytes)
{
    const Folder folder = board.folder();
    const std::string at = Folder::normal(path);
    folder.make_dirs(at.substr(0, at.rfind('/')));
    const Descriptor fd(folder.open(path, O_WRONLY | O_CREAT, 0644));
    if (fd && ::pwrite(fd.get(), bytes.data(), bytes.size(), 0) != ssize_t(bytes.size())) {
        // left as it is; the partition then holds no program
    }
}

std::string pattern(size_t n, uint8_t seed)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i)
        s[i] = char(uint8_t(seed + i * 7));
    return s;
}


} // namespace

std::string make_fpga_block_file(const std::vector<std::pair<uint32_t, std::string>> &blocks)
{
    std::string file(4, '\0');
    fpga_wire::put_be32(reinterpret_cast<uint8_t *>(&file[0]), uint32_t(blocks.size()));
    for (const auto &[address, data] : blocks) {
        std::string head(8, '\0');
        fpga_wire::put_be32(reinterpret_cast<uint8_t *>(&head[0]), address);
        fpga_wire::put_be32(reinterpret_cast<uint8_t *>(&head[4]), uint32_t(data.size()));
        file += head + data;
    }
    return file;
}

std::string default_led_screen_hex()
{
    std::string topology(5120, '\0');
    topology[3] = 4; // four lines in the first topology block
    return make_fpga_block_file({
        {0x10000100, pattern(32, 1)},
        {0x10018000, topology},
        {0x10B00000, pattern(64, 2)},
        {0x10300000, pattern(4096, 3)},
        {0x10A43000, pattern(512, 4)},
        {0x10400000, pattern(0x20800, 5)},
        {0x10810000, pattern(4096, 6)},
    });
}

std::shared_ptr<FpgaModel> fpga_model(const Board &board)
{
    std::lock_guard<std::mutex> lock(g_mu);
    auto it = g_models.find(board.root());
    return it == g_models.end() ? nullptr : it->second.lock();
}

} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_SEEDER(fpga)
{
    board.write_file("/vendor/etc/fpga/fpga_fw.bin", default_fpga_program(2));
    board.write_file("/vendor/etc/fpga.bin", default_fpga_program(2));
    board.write_file("/vendor/etc/fpga/hex_parameter.bin",
                     make_fpga_block_file({{0x00200000, pattern(2048, 7)},
                                           {0x00300000, pattern(512, 8)},
                                           {0x00100060, std::string(1, '\1')}}));
    board.write_file("/system/etc/led_screen.hex", default_led_screen_hex());
    write_at(board, "/dev/block/by-name/fpga_program", default_fpga_program(1));
    board.write_file("/vendor/bin/mtd_debug", "#!/system/bin/sh\n# carried out by the virtual board\n");
    board.write_file("/vendor_dlkm/lib/modules/dwmac-meson8b.ko", "dwmac-meson8b (virtual board)\n");
    board.write_file("/sys/class/vexagpios/RTL8211FS_RSTN/value", "1\n");
    board.write_file("/sys/class/ethernet/vexaphyreg", "0x902\n");
    board.write_file("/sys/class/ethernet/phyreg", "");
    if (!board.exists("/proc/modules"))
        board.write_file("/proc/modules", "");
    // The FPGA booted from its flash, which holds program 1.
    board.write_file("/.board/fpga/program.bin", default_fpga_program(1));
    board.write_file("/.board/fpga/state", "configured=1\nddr=1\n");
}

VEXA_SIM_ATTACHER(fpga)
{
    FpgaModel::Pins pins;
    std::set<std::string> spi_nodes = {"/dev/fpga_spi"}, load_nodes = {"/dev/fpga_load"};
    if (board.exists("/vendor/etc/product.ini")) {
        const Descriptor ini(board.folder().open("/vendor/etc/product.ini", O_RDONLY));
        std::unique_ptr<dictionary, DictDeleter> dict(
            ini ? iniparser_load(descriptor_path(ini.get()).c_str()) : nullptr);
        if (dict) {
            pins.control = iniparser_getint(dict.get(), "fpga:fpga_control_gpio", -1);
            pins.config = iniparser_getint(dict.get(), "fpga:fpga_config_gpio", -1);
            pins.done = iniparser_getint(dict.get(), "fpga:fpga_done_gpio", -1);
            if (const char *spi = iniparser_getstring(dict.get(), "spi:spi_fpga", nullptr); usable(spi))
                spi_nodes.insert(spi);
            if (const char *drv = iniparser_getstring(dict.get(), "fpga:fpga_drv_path", nullptr); usable(drv))
                load_nodes.insert(drv);
        }
    }
    if (board.exists("/.board"))
        board.folder().make_dirs("/.board/fpga");
    auto model = std::make_shared<FpgaModel>(attached(), board.root(), pins, spi_nodes, load_nodes);
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_models[board.root()] = model;
    }
    for (const std::string &node : spi_nodes)
        board.add_model(node, std::make_shared<SpiNode>(model, node));
    for (const std::string &node : load_nodes)
        board.add_model(node, std::make_shared<LoadNode>(model));
    board.add_model("/dev/mtd0", std::make_shared<NorNode>(model));

    // Services of the HAL's SPI, loader and UDP calls, and of vexactl.
    board.serve("fpga.spi", [model](const std::string &request) -> std::string {
        const auto nul = request.find('\0');
        if (request.empty() || nul == std::string::npos)
            return std::string(1, char(EINVAL));
        const std::string node = request.substr(1, nul - 1);
        if (!model->spi_node(node))
            return std::string(1, char(ENODEV));
        std::vector<uint8_t> bytes(request.begin() + long(nul) + 1, request.end());
        const int result = model->spi(node, request[0], bytes.data(), bytes.size());
        if (result < 0)
            return std::string(1, char(-result));
        return std::string(1, '\0') + std::string(bytes.begin(), bytes.end());
    });
    board.serve("fpga.load", [model](const std::string &request) -> std::string {
        std::string drv;
        size_t at = 1;
        if (!request.empty() && request[0] == 'T') {
            const auto nul = request.find('\0');
            if (nul == std::string::npos)
                return std::to_string(-EINVAL);
            drv = request.substr(1, nul - 1);
            at = nul + 1;
        }
        const std::vector<uint8_t> file(request.begin() + long(std::min(at, request.size())), request.end());
        return std::to_string(model->hal_load(drv, file));
    });
    board.serve("fpga.udp", [model](const std::string &) { return std::to_string(model->udp_port()); });
    board.serve("fpga.gmac", [model](const std::string &) {
        model->switch_gmac();
        return std::string("0");
    });
    board.serve("fpga.state", [model](const std::string &) { return model->state_text(); });

    board.on_command("mtd_debug", [model](const std::vector<std::string> &argv, const std::string &) {
        return model->mtd_debug(argv);
    });
    board.on_command("insmod", [model](const std::vector<std::string> &argv, const std::string &) {
        return model->insmod(argv);
    });
    board.watch_file("/sys/class/vexagpios/RTL8211FS_RSTN/value",
                     [model](const std::string &, const std::string &contents) {
                         model->phy_reset_written(contents);
                     });
    board.watch_file("/sys/class/ethernet/phyreg", [model](const std::string &, const std::string &contents) {
        model->phyreg_written(contents);
    });
    board.watch_lines([model](int id, int level, uint64_t) { model->observe_line(id, level); });
    model->power_on(board);
}
