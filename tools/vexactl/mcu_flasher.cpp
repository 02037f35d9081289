// vexactl's MCU flasher over the library's bootloader calls.
#include "tools/vexactl/mcu_flasher.h"

#include <vector>

#include "platform/os.h"
#include "vexasdk/mcu.h"

namespace vexactl {

namespace {

constexpr uint32_t kBlock = 256;
// The erase command carries its page list with a byte count kept to 8 bits:
// 2 + 2 * pages bytes must stay below 256.
constexpr uint32_t kMaxPages = 126;

std::string kib(uint32_t bytes) { return std::to_string(bytes / 1024) + " KiB"; }

EraseCheck refuse(std::string why, std::string need) { return {false, std::move(why), std::move(need)}; }

std::string too_many(uint32_t pages)
{
    return "the erase needs " + std::to_string(pages) + " pages, but the flasher sends the page list with an "
           "8-bit byte count, which holds at most " + std::to_string(kMaxPages) + " pages: the erase command "
           "would be cut short";
}

std::string tail(uint32_t pages, uint32_t page_size, uint32_t covered, uint32_t size)
{
    return "the erase covers " + std::to_string(pages) + " whole pages of " + kib(page_size) + " (" +
           std::to_string(covered) + " bytes; the page count is rounded down), so the last " +
           std::to_string(size - covered) + " bytes would be written over unerased flash";
}

} // namespace

EraseCheck check_erase(int type, uint32_t size)
{
    const std::string mass = "which the bootloader takes as a mass erase of the whole flash";
    switch (type) {
    case MCU_GD32F303: {
        // 2 KiB pages below 512 KiB, 4 KiB pages above.
        if (size < 2048)
            return refuse("the erase covers " + std::to_string(size) + " / 2048 = 0 pages and sends a page "
                          "count of 0, " + mass,
                          "the image would need at least one whole page of 2 KiB: pad it with 0xff to 2048 bytes");
        const uint32_t pages = size < 0x80000u ? size / 2048u : 256u + (size - 0x80000u) / 4096u;
        const std::string most = "the image would need at most " + std::to_string(kMaxPages * 2048u) + " bytes (" +
                                 std::to_string(kMaxPages) + " whole pages of 2 KiB)";
        if (pages > kMaxPages)
            return refuse(too_many(pages), most);
        const uint32_t covered = pages * 2048u;
        if (covered < size) {
            const uint32_t padded = (pages + 1) * 2048u;
            return refuse(tail(pages, 2048, covered, size),
                          pages + 1 > kMaxPages
                              ? most
                              : "the image would need a whole number of pages: pad it with 0xff to " + std::to_string(padded) + " bytes");
        }
        return {};
    }
    case MCU_GD32E503:
    case MCU_GD32F470: {
        // One page more than the image's whole pages: always covered, while
        // the page list fits its count.
        const uint32_t page_size = type == MCU_GD32E503 ? 8192u : 4096u;
        const uint32_t pages = 1u + size / page_size;
        if (pages > kMaxPages)
            return refuse(too_many(pages), "the image would need at most " + std::to_string(kMaxPages * page_size - 1) + " bytes (" +
                                               std::to_string(kMaxPages) + " pages of " + kib(page_size) + ")");
        return {};
    }
    case MCU_STM32H750: {
        const uint32_t covered = 2u * 131072u;
        if (size > covered)
            return refuse("the erase always covers two sectors of 128 KiB (" + std::to_string(covered) +
                              " bytes), so the last " + std::to_string(size - covered) +
                              " bytes would be written over unerased flash",
                          "the image would need at most " + std::to_string(covered) + " bytes");
        return {};
    }
    default:
        return refuse("the MCU type is not known, so the erase sends a page count of 0, " + mass,
                      "no image fits: only the MCU types the flasher detects (GD32F303, GD32F470, "
                      "STM32H750) get a page erase");
    }
}

FlashReport flash_mcu(const FlashRequest &request)
{
    FlashReport report;
    const auto size = static_cast<uint32_t>(request.image.size());
    const auto *data = reinterpret_cast<const uint8_t *>(request.image.data());
    report.blocks = (size + kBlock - 1) / kBlock;
    auto progress = [&](const char *phase, uint32_t done, uint32_t failed) {
        if (request.progress)
            request.progress(phase, done, failed, report.blocks);
    };

    // The line at 115200 baud, 8 data bits, odd parity, as the update flow
    // opens it; a pty refuses the parity, which the flow does not check.
    mcu_serial_init(request.uart.c_str(), 115200, 8, 1, 'O');
    mcu_isp_init();
    vexa::os::sleep_us(500000);
    auto finish = [&](FlashReport::Stage stage) {
        mcu_serial_close();
        mcu_isp_close();
        report.stage = stage;
        return report;
    };

    int answer = 1;
    for (int left = 3; left > 0 && answer != 0; --left)
        answer = ack_startisp();
    if (answer == 1)
        return finish(FlashReport::Stage::no_line);
    if (answer != 0)
        return finish(FlashReport::Stage::no_answer);

    mcu_type_detect();
    report.type = mcu_get_type();
    report.check = check_erase(report.type, size);
    if (!report.check.covered && !request.force)
        return finish(FlashReport::Stage::refused);
    if (ack_sendcmd(0x44) != 0 || erasememory_extend(MCU_ISP_FLASH_BASE, size) != 0)
        return finish(FlashReport::Stage::erase_refused);

    // Block by block, so that a block the bootloader does not accept is
    // counted (and shown) at once.
    uint32_t done = 0;
    for (uint32_t at = 0; at < size; at += kBlock, ++done) {
        const uint32_t length = size - at < kBlock ? size - at : kBlock;
        if (writememory_2mcu(MCU_ISP_FLASH_BASE + at, data + at, length) != 0 && report.failed++ == 0)
            report.first_failed = MCU_ISP_FLASH_BASE + at;
        progress("write", done + 1, report.failed);
    }
    if (report.failed)
        return finish(FlashReport::Stage::blocks_failed);
    if (!request.verify)
        return finish(FlashReport::Stage::done);

    std::vector<uint8_t> back(kBlock);
    done = 0;
    for (uint32_t at = 0; at < size; at += kBlock, ++done) {
        const uint32_t length = size - at < kBlock ? size - at : kBlock;
        if (readmemory_4mcu(MCU_ISP_FLASH_BASE + at, back.data(), length) != 0) {
            report.first_unread = MCU_ISP_FLASH_BASE + at;
            return finish(FlashReport::Stage::read_failed);
        }
        for (uint32_t i = 0; i < length; ++i) {
            if (back[i] != data[at + i]) {
                report.first_difference = MCU_ISP_FLASH_BASE + at + i;
                report.flash_byte = back[i];
                report.image_byte = data[at + i];
                return finish(FlashReport::Stage::differs);
            }
        }
        progress("verify", done + 1, 0);
    }
    report.verified = true;
    return finish(FlashReport::Stage::done);
}

} // namespace vexactl
