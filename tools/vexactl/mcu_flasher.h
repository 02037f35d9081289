// vexactl's MCU flasher: the library's bootloader steps in the order
// mcu_tool_isp_task takes them, with a check of the image against the
// detected MCU before the erase, every block's result counted as it comes,
// and a read-back after the write.
#ifndef VEXACTL_MCU_FLASHER_H
#define VEXACTL_MCU_FLASHER_H

#include <cstdint>
#include <functional>
#include <string>

namespace vexactl {

// Whether the bootloader's erase, as the library builds it for an MCU type,
// covers an image of `size` bytes written from the start of the flash. When
// it does not, `why` tells what the erase would do and `need` (a sentence)
// what the image would need instead.
struct EraseCheck {
    bool covered = true;
    std::string why;
    std::string need;
};
EraseCheck check_erase(int type, uint32_t size);

// Where a flash stopped, and what it found.
struct FlashReport {
    enum class Stage {
        done,          // written (and read back equal unless not asked)
        no_line,       // the MCU line did not open
        no_answer,     // the bootloader did not acknowledge the start byte
        refused,       // the erase does not cover the image (see check)
        erase_refused, // the extended-erase command or the erase was not acknowledged
        blocks_failed, // some blocks were not accepted (first_failed)
        read_failed,   // the read-back failed (at first_unread)
        differs,       // the flash does not hold the image (first_difference)
    };
    Stage stage = Stage::done;
    int type = 0;             // the detected MCU type (mcu_type_t)
    EraseCheck check;
    uint32_t blocks = 0;      // 256-byte blocks of the image
    uint32_t failed = 0;      // blocks the bootloader did not accept
    uint32_t first_failed = 0;
    bool verified = false;    // read back and found equal
    uint32_t first_unread = 0;
    uint32_t first_difference = 0;
    uint8_t flash_byte = 0;   // at first_difference
    uint8_t image_byte = 0;
};

// Called after each block of a phase ("write" or "verify") with the blocks
// done so far (failed ones included), the failed ones and the total.
using FlashProgress = std::function<void(const char *phase, uint32_t done, uint32_t failed, uint32_t total)>;

struct FlashRequest {
    std::string uart;          // the MCU line
    std::string image;         // the image's bytes
    bool force = false;        // flash even when the erase does not cover the image
    bool verify = true;        // read the flash back after the write
    FlashProgress progress;    // may be empty
};

// Resets the MCU into its bootloader, greets it (three tries), detects its
// type, checks the image, erases, writes block by block, reads back and
// resets the MCU into its application, whatever happened in between.
FlashReport flash_mcu(const FlashRequest &request);

} // namespace vexactl

#endif
