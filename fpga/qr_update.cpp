// The qr3plus/qr5plus program update: the file goes to the FPGA over SPI in
// 512-byte pieces, the FPGA writes it to its flash and restarts, and the
// version tags before and after tell whether it took.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fpga/fpga_internal.h"
#include "platform/android.h"
#include "platform/fpga_wire.h"
#include "platform/log.h"
#include "platform/unique.h"
#include "vexasdk/fpga.h"

using namespace vexa::fpga;
namespace wire = vexa::fpga_wire;

namespace {

constexpr const char *kRunningProperty = "persist.vexa.system.fpga.is.update";
constexpr uint32_t kTagAddress = wire::kWindowBase + wire::kProgramTag;
constexpr size_t kPayloadMax = 1u << 20;

// "persist.vexa.system.fpga.is.update" is "1" for as long as the update runs.
class RunningFlag {
public:
    RunningFlag() { property_set(kRunningProperty, "1"); }
    ~RunningFlag() { property_set(kRunningProperty, "0"); }
    RunningFlag(const RunningFlag &) = delete;
    RunningFlag &operator=(const RunningFlag &) = delete;
};

void log_tag(const char *format, const char *func, const uint8_t *t)
{
    VEXA_LOGI(kTagBi, format, func, t[0], t[1], t[2], t[3], t[4], t[5], t[6]);
}

// The running program's tag, with one retry after 1 s.
bool read_tag(uint8_t *tag)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (attempt)
            sleep_ms(1000);
        if (bi_fpga_read_0x02000000(kTagAddress, tag, int32_t(wire::kTagSize)) >= 0)
            return true;
    }
    return false;
}

bool write_all(const std::vector<uint8_t> &packet)
{
    return bi_fpga_spi_write(packet.data(), uint32_t(packet.size())) >= 0;
}

bool write_all(const uint8_t *packet, size_t n) { return bi_fpga_spi_write(packet, uint32_t(n)) >= 0; }

// Steps 4 and 5 with the file open: the program's transfer, the restart and
// the new tag. 0 or the code of the failed step.
int32_t send_program(const char *func, int fd, uint32_t payload_size, const uint8_t *file_tag,
                     uint16_t checksum, const char *path)
{
    const auto info = wire::update_info_packet(payload_size, checksum, file_tag);
    VEXA_LOGI(kTagBi, "<%s> count(256):%d, last_byte:%d, file_checksum:%04x", func,
              int(payload_size / 256), int(payload_size % 256), checksum);
    if (!write_all(info)) {
        VEXA_LOGE(kTagBi, "<%s> write info fail", func);
        return -4;
    }
    const uint32_t count = payload_size / wire::kUpdatePieceData;
    const uint32_t last_size = payload_size % wire::kUpdatePieceData;
    VEXA_LOGI(kTagBi, "<%s> count:%d, last_size:%d", func, int(count), int(last_size));
    uint8_t piece[wire::kUpdatePieceData];
    for (uint32_t k = 0; k < count + (last_size ? 1 : 0); ++k) {
        const uint32_t n = k < count ? uint32_t(wire::kUpdatePieceData) : last_size;
        if (vexa::os::lseek(fd, off_t(wire::kProgramHeaderSize + size_t(k) * wire::kUpdatePieceData),
                            SEEK_SET) < 0) {
            VEXA_LOGE(kTagBi, "<%s> lseek fail", func);
            return -5;
        }
        if (vexa::os::read_full(fd, piece, n) != ssize_t(n)) {
            VEXA_LOGE(kTagBi, "<%s> read fail", func);
            return -5;
        }
        if (!write_all(wire::update_piece_packet(uint16_t(k), piece, uint16_t(n)))) {
            VEXA_LOGE(kTagBi, "<%s> write_bag fail", func);
            return -5;
        }
    }
    if (!write_all(wire::kUpdateFlashCommand, sizeof wire::kUpdateFlashCommand)) {
        VEXA_LOGE(kTagBi, "<%s> write_fpga_to_flash fail", func);
        return -6;
    }
    sleep_ms(13000);
    if (!write_all(wire::kUpdateResetHold, sizeof wire::kUpdateResetHold)) {
        VEXA_LOGE(kTagBi, "<%s> write_mcu_reset fail", func);
        return -7;
    }
    sleep_ms(5000);
    if (!write_all(wire::kUpdateResetRelease, sizeof wire::kUpdateResetRelease)) {
        VEXA_LOGE(kTagBi, "<%s> write_mcu_reset fail", func);
        return -7;
    }
    sleep_ms(5000);
    sleep_ms(1000);
    uint8_t now[wire::kTagSize] = {};
    if (!read_tag(now)) {
        VEXA_LOGE(kTagBi, "<%s> get new fpga tag fail", func);
        return -8;
    }
    if (std::memcmp(now, file_tag, wire::kTagSize) != 0) {
        VEXA_LOGE(kTagBi, "<%s> tag error, not equal, update fpga fail", func);
        return -9;
    }
    VEXA_LOGI(kTagBi, "<%s> tag is equal, update fpga succeed", func);
    if (fpga_update_program_to_emmc(path) != 0) {
        VEXA_LOGE(kTagBi, "<%s> to emmc fail", func);
        return -10;
    }
    VEXA_LOGI(kTagBi, "<%s>, update succeed", func);
    return 0;
}

} // namespace

extern "C" VEXA_API int32_t fpga_update_program_qr3plus_qr5plus(const char *path)
{
    const char *func = __func__;
    VEXA_LOGD(kTagBi, "<%s>", func);
    RunningFlag running;
    vexa::UniqueFd fd(path ? vexa::os::open(path, O_RDONLY) : -1);
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) {
        VEXA_LOGE(kTagBi, "<%s>, open %s failed", func, path ? path : "(null)");
        return -1;
    }
    const uint64_t file_size = uint64_t(st.st_size);
    const uint32_t payload_size = uint32_t(
        std::min<uint64_t>(file_size > wire::kProgramHeaderSize ? file_size - wire::kProgramHeaderSize : 0,
                           kPayloadMax));
    VEXA_LOGI(kTagBi, "<%s> fpga size:%d Byte", func, int(payload_size));

    uint8_t header[wire::kProgramHeaderSize] = {};
    if (vexa::os::read_full(fd.get(), header, sizeof header) != ssize_t(sizeof header)) {
        VEXA_LOGE(kTagBi, "<%s> read fail", func);
        return -1;
    }
    uint8_t file_tag[wire::kTagSize] = {};
    std::string tags;
    switch (wire::parse_tags(header, sizeof header, file_tag, &tags)) {
    case wire::TagsResult::missing:
        VEXA_LOGE(kTagBi, "<%s> fpga tags is null/not find", func);
        return -1;
    case wire::TagsResult::empty:
        VEXA_LOGE(kTagBi, "<%s>, error: fpga bin, time is null", func);
        return -1;
    case wire::TagsResult::time_not_int:
        VEXA_LOGE(kTagBi, "<%s>, is not int string", func);
        return -1;
    case wire::TagsResult::time2_not_int:
        VEXA_LOGE(kTagBi, "<%s>, time2 is not int string", func);
        return -1;
    case wire::TagsResult::ok:
        break;
    }
    VEXA_LOGI(kTagBi, "<%s> update fpga tags: %s", func, tags.c_str());
    log_tag("<%s> bin tag is %02x %02x %02x %02x %02x %02x %02x ", func, file_tag);

    uint8_t old_tag[wire::kTagSize] = {};
    if (!read_tag(old_tag)) {
        VEXA_LOGE(kTagBi, "<%s> get old fpga tag fail", func);
        return -2;
    }
    log_tag("<%s> old tag is %02x %02x %02x %02x %02x %02x %02x ", func, old_tag);
    VEXA_LOGI(kTagBi, "<%s> check tag", func);
    if (std::memcmp(old_tag, file_tag, wire::kTagSize) == 0) {
        VEXA_LOGI(kTagBi, "<%s> fpga is equle, exit update", func);
        if (fpga_update_program_to_emmc(path) != 0) {
            VEXA_LOGE(kTagBi, "<%s> to emmc fail", func);
            return -10;
        }
        return 0;
    }
    VEXA_LOGI(kTagBi, "<%s> check tag is end, start update", func);

    std::vector<uint8_t> payload(payload_size);
    const auto checksum = wire::header_number(header, sizeof header, "checksum");
    if (vexa::os::read_full(fd.get(), payload.data(), payload.size()) != ssize_t(payload.size()) || !checksum ||
        wire::sum16(payload.data(), payload.size()) != *checksum) {
        VEXA_LOGE(kTagBi, "<%s> check sum fail", func);
        return -3;
    }
    return send_program(func, fd.get(), payload_size, file_tag, uint16_t(*checksum), path);
}
