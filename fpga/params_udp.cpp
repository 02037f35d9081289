// Screen parameters as register blocks over the FPGA's UDP link (the
// hcu900pro board).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <new>
#include <vector>

#include "fpga/fpga_internal.h"
#include "fpga/param_codec.h"
#include "platform/fpga_wire.h"
#include "platform/hal.h"
#include "platform/log.h"
#include "platform/unique.h"
#include "vexasdk/fpga.h"

using namespace vexa::fpga;
namespace wire = vexa::fpga_wire;

namespace {

constexpr int kLink = 1;
constexpr int kStableReadings = 7;
constexpr uint64_t kSourceWaitSeconds = 3;
constexpr size_t kPathKept = 64;

int write_byte(uint32_t address, uint8_t value)
{
    return WriteFPGABlock(kLink, address, 1, &value);
}

uint8_t read_byte(uint32_t address)
{
    uint8_t value = 0;
    if (ReadFPGABlock(kLink, address, 1, &value) < 0)
        return 0;
    return value;
}

// The wait for a stable picture source after the blocks are in.
void wait_for_source(const char *func)
{
    const uint64_t start = vexa::os::monotonic_ns();
    int stable = 0;
    for (;;) {
        const uint8_t hdmi = read_byte(wire::kUdpHdmiStable);
        const uint8_t dvi = read_byte(wire::kUdpDviStable);
        VEXA_LOGD(kTagFw, "%s: recvfrom_fpga_hdmi: %d, recvfrom_fpga_dvi: %d", func, hdmi, dvi);
        if (hdmi == 1 || dvi == 1) {
            VEXA_LOGD(kTagFw, "%s: HDMI or DVI source is stable", func);
            if (++stable >= kStableReadings)
                return;
        }
        if ((vexa::os::monotonic_ns() - start) / 1000000000u >= kSourceWaitSeconds) {
            VEXA_LOGI(kTagFw, "%s: More than 2 second passed, continuing...", func);
            return;
        }
        sleep_ms(100);
    }
}

bool count_valid(uint32_t blocknum) { return verify_param(blocknum) == 0 && blocknum <= 0x7FFFFFFFu; }

} // namespace

extern "C" {

VEXA_API uint32_t int_to_little_endian_bytes(uint32_t value)
{
    VEXA_LOGD(kTagFw, "bytes: %02X %02X %02X %02X", value & 0xFF, (value >> 8) & 0xFF,
              (value >> 16) & 0xFF, value >> 24);
    return __builtin_bswap32(value);
}

VEXA_API int32_t verify_param(uint32_t blocknum)
{
    if (blocknum == 0 || blocknum == 0xFFFFFFFFu) {
        VEXA_LOGE(kTagFw, "%s invalid blocknum = %d, set blocknum as 0", __func__, int(blocknum));
        return -1;
    }
    return 0;
}

VEXA_API int32_t cal_block_para_length(int32_t fd, uint32_t blocknum, uint32_t *length)
{
    if (length == nullptr)
        return -1;
    uint64_t total = *length;
    for (uint32_t i = 0; i < blocknum; ++i) {
        uint8_t raw[4];
        if (vexa::os::lseek(fd, 4, SEEK_CUR) < 0 || vexa::os::read_full(fd, raw, sizeof raw) != 4)
            break; // the end of the file ends the walk
        const uint32_t data_len = wire::be32(raw);
        VEXA_LOGD(kTagFw, "dataLen = %x", data_len);
        if (data_len == 0) {
            VEXA_LOGE(kTagFw, "%s invalid dataLen = %x", __func__, data_len);
            return -1;
        }
        if (vexa::os::lseek(fd, off_t(data_len), SEEK_CUR) < 0)
            break;
        total += 8 + uint64_t(data_len);
    }
    *length = total > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(total);
    return 0;
}

VEXA_API int32_t read_para_blcoknum_offest(const char *path, uint32_t *blocknum, uint32_t *length)
{
    if (path == nullptr || vexa::os::access(path, F_OK) != 0) {
        VEXA_LOGE(kTagFw, "the para(%s) doesn't exist.", path ? path : "(null)");
        return -1;
    }
    if (blocknum == nullptr || length == nullptr)
        return -1;
    vexa::UniqueFd fd(vexa::os::open(path, O_RDONLY));
    if (!fd) {
        VEXA_LOGE(kTagFw, "%s: open %s failed !!!", __func__, path);
        return -1;
    }
    uint8_t raw[4];
    if (vexa::os::read_full(fd.get(), raw, sizeof raw) != 4) {
        VEXA_LOGE(kTagFw, "%s Error reading file", __func__);
        return -1;
    }
    *blocknum = int_to_little_endian_bytes(wire::le32(raw));
    VEXA_LOGD(kTagFw, "blocknum = %x", *blocknum);
    *length = 4;
    if (cal_block_para_length(fd.get(), *blocknum, length) != 0)
        return -1;
    VEXA_LOGD(kTagFw, "offest = %x", *length);
    return 0;
}

VEXA_API int32_t read_hcu900_paramter(const char *path, uint8_t *buf, uint32_t count)
{
    if (path == nullptr || (buf == nullptr && count > 0))
        return -1;
    vexa::UniqueFd fd(vexa::os::open(path, O_RDONLY));
    if (!fd) {
        VEXA_LOGE(kTagFw, "%s: open %s failed !!!", __func__, path);
        return -1;
    }
    const ssize_t n = vexa::os::read_full(fd.get(), buf, count);
    if (n < 0) {
        VEXA_LOGE(kTagFw, "%s: read %s failed !!!", __func__, path);
        return -1;
    }
    return int32_t(n);
}

VEXA_API int32_t send_emmc_block_param(const uint8_t *image, uint32_t blocknum, uint32_t length)
{
    if (image == nullptr)
        return -1;
    const char *func = __func__;
    bool failed = false;
    uint8_t chunk[1024];
    const BlockEnd end = walk_blocks(image, length, blocknum, [&](const Block &b) {
        VEXA_LOGD(kTagFw, "fpga_baseaddr:0x%x / offset:0x%x / n_length:0x%x, count: %d", b.address,
                  unsigned(b.data_offset), b.length, int(b.index));
        if (b.index + 1 == blocknum) {
            // The last block is the input-source enable: it is left to the
            // source wait that follows.
            VEXA_LOGI(kTagFw, "Enable the input source once it has stabilized");
            return true;
        }
        for (const Chunk &c : udp_chunks(b.length)) {
            // The tail write reads past the block; what lies past the
            // image goes as zeros.
            std::memset(chunk, 0, sizeof chunk);
            const uint64_t from = b.data_offset + c.data_offset;
            if (from < length)
                std::memcpy(chunk, image + from, size_t(std::min<uint64_t>(c.n, length - from)));
            const int ret = WriteFPGABlock(kLink, b.address + c.address_offset, c.n, chunk);
            if (ret < 0) {
                VEXA_LOGE(kTagFw, "%s: WriteFPGABlock failed, ret = %d", func, ret);
                failed = true;
                return false;
            }
        }
        return true;
    });
    if (end == BlockEnd::zero_length) {
        VEXA_LOGE(kTagFw, "%s invalid datalen.", __func__);
        return -1;
    }
    if (end == BlockEnd::overrun) {
        VEXA_LOGE(kTagFw, "%s: a block runs past the %u-byte image", __func__, length);
        return -1;
    }
    return failed ? -1 : 0;
}

VEXA_API int32_t fpgaSendParaDatabyUdp(const uint8_t *image, uint32_t blocknum, uint32_t length)
{
    int ret = FPGA_UDP_Init(0, 90);
    if (ret < 0) {
        VEXA_LOGE(kTagFw, "%s: fpga init socket failed, ret = %d", __func__, ret);
        return -1;
    }
    ret = write_byte(wire::kUdpBlack, 0x02);
    VEXA_LOGD(kTagFw, "%s: WriteFPGABlock_setblack ret = %d", __func__, ret);
    if (ret < 0) {
        FPGA_UDP_Close();
        return -1;
    }
    ret = send_emmc_block_param(image, blocknum, length);
    if (ret != 0) {
        VEXA_LOGE(kTagFw, "%s: send_emmc_block_param_error, ret = %d", __func__, ret);
        FPGA_UDP_Close();
        return -1;
    }
    wait_for_source(__func__);
    // A failed enable leaves the link open, as the boards always have.
    ret = write_byte(wire::kUdpNetEnable, 0x5A);
    VEXA_LOGD(kTagFw, "%s: WriteFPGABlock_netenable ret = %d", __func__, ret);
    if (ret < 0)
        return -1;
    ret = write_byte(wire::kUdpBlack, 0x00);
    VEXA_LOGD(kTagFw, "%s: WriteFPGABlock_fixblack ret = %d", __func__, ret);
    if (ret < 0)
        return -1;
    FPGA_UDP_Close();
    return 0;
}

VEXA_API int32_t bi_fpga_load_screen_params_by_udp(const char *screen_path, const char *hex_path)
{
    VEXA_LOGD(kTagFw, "screen_path = %s, hex_path = %s", screen_path ? screen_path : "(null)",
              hex_path ? hex_path : "(null)");
    if (screen_path == nullptr || hex_path == nullptr) {
        VEXA_LOGE(kTagFw, "screen_path or hex_path is NULL");
        return -1;
    }
    uint32_t blocknum = 0, length = 0;
    if (read_para_blcoknum_offest(screen_path, &blocknum, &length) != 0) {
        VEXA_LOGE(kTagFw, "read_para_blcoknum_offest error");
        return -1;
    }
    const char *chosen = screen_path;
    if (!count_valid(blocknum)) {
        VEXA_LOGE(kTagFw, "%s: verify_screen failed !!!", __func__);
        if (read_para_blcoknum_offest(hex_path, &blocknum, &length) != 0) {
            VEXA_LOGE(kTagFw, "read_para_blcoknum_offest error");
            return -1;
        }
        if (!count_valid(blocknum))
            return -1;
        chosen = hex_path;
    } else {
        VEXA_LOGD(kTagFw, "%s: verify_screen success !!!", __func__);
    }
    // The path is kept in 64 characters: a longer one would name another file.
    if (std::strlen(chosen) >= kPathKept) {
        VEXA_LOGE(kTagFw, "%s: %s is longer than %zu bytes", __func__, chosen, kPathKept - 1);
        return -1;
    }
    char path[kPathKept];
    std::strcpy(path, chosen);
    struct stat st {};
    if (vexa::os::stat(path, &st) != 0 || uint64_t(length) > uint64_t(st.st_size)) {
        VEXA_LOGE(kTagFw, "%s: the blocks of %s run past its end (%u > %lld bytes)", __func__, path,
                  length, (long long)st.st_size);
        return -1;
    }
    std::vector<uint8_t> image;
    try {
        image.assign(length, 0);
    } catch (const std::bad_alloc &) {
        VEXA_LOGE(kTagFw, "%s: could not allocate %u bytes", __func__, length);
        return -1;
    }
    if (read_hcu900_paramter(path, image.data(), length) < 0)
        return -1;
    return fpgaSendParaDatabyUdp(image.data(), blocknum, length) == 0 ? 0 : -1;
}

} // extern "C"
