// vexactl's MCU flasher against the board's MCU model: its erase check agrees
// with what the library's erase does, failed blocks are counted as they come,
// and the read-back finds what the flash does not hold.
#include "tools/vexactl/mcu_flasher.h"

#include <string>
#include <vector>

#include "sim/serial/mcu_model.h"
#include "support/board_fixture.h"
#include "vexasdk/mcu.h"
#include "vexasdk/selftest.h"

namespace vexa::test {
namespace {

using vexactl::FlashReport;
using Stage = vexactl::FlashReport::Stage;

class McuFlasherTest : public BoardTest {
protected:
    void SetUp() override
    {
        BoardTest::SetUp();
        ASSERT_EQ(parseConfigInfo(), 0);
        ASSERT_TRUE(sim::mcu_model(board()));
    }
    sim::McuModel &mcu() { return *sim::mcu_model(board()); }

    static std::string image(uint32_t size, uint8_t seed = 1)
    {
        std::string bytes(size, '\0');
        for (uint32_t i = 0; i < size; ++i)
            bytes[i] = static_cast<char>((i * 131u + seed) | 1u); // never 0: bits a zeroed flash lacks
        return bytes;
    }

    FlashReport flash(const std::string &bytes, bool force = false, bool verify = true)
    {
        vexactl::FlashRequest request;
        request.uart = config_info->mcu_uart_path;
        request.image = bytes;
        request.force = force;
        request.verify = verify;
        request.progress = [this](const char *phase, uint32_t done, uint32_t failed, uint32_t total) {
            calls.push_back({phase, done, failed, total});
        };
        return vexactl::flash_mcu(request);
    }

    // What the library's erase does for an image of `size` bytes on the
    // model's flash, zeroed first: whether every byte of the image is erased,
    // and whether anything past the image's last page was erased too.
    struct Erased {
        bool image = false;
        bool beyond = false;
    };
    Erased library_erase(uint32_t size)
    {
        mcu().fill_flash(0x00);
        mcu_serial_init(config_info->mcu_uart_path, 115200, 8, 1, 'O');
        mcu_isp_init();
        EXPECT_EQ(ack_startisp(), 0);
        mcu_type_detect();
        EXPECT_EQ(ack_sendcmd(0x44), 0);
        erasememory_extend(MCU_ISP_FLASH_BASE, size);
        mcu_serial_close();
        mcu_isp_close();
        const std::vector<uint8_t> flash = mcu().flash();
        Erased erased;
        erased.image = true;
        for (uint32_t i = 0; i < size; ++i)
            erased.image = erased.image && flash[i] == 0xFF;
        erased.beyond = flash.back() == 0xFF; // the last byte of the flash: only a mass erase reaches it
        return erased;
    }

    struct Call {
        std::string phase;
        uint32_t done, failed, total;
    };
    std::vector<Call> calls;
};

// The boundaries of each type's erase: the check passes an image exactly when
// the library's erase covers it and nothing else.
TEST_F(McuFlasherTest, EraseCheckAgreesWithTheLibrarysEraseAtEveryBoundary)
{
    struct Case {
        int model_type; // the model's type; 2 is detected as unknown
        uint32_t size;
    };
    const Case cases[] = {
        {1, 1},      {1, 2047},   {1, 2048},   {1, 2049},   {1, 4096},   {1, 258048}, {1, 258049},
        {1, 260096}, {3, 1},      {3, 4096},   {3, 516095}, {3, 516096}, {4, 1},      {4, 262144},
        {4, 262145}, {2, 4096},
    };
    for (const Case &c : cases) {
        mcu().set_type(c.model_type);
        const Erased erased = library_erase(c.size);
        const int type = mcu_get_type();
        const bool covered = erased.image && !erased.beyond;
        EXPECT_EQ(vexactl::check_erase(type, c.size).covered, covered)
            << "type " << type << " (model " << c.model_type << "), " << c.size << " bytes";
    }
}

TEST_F(McuFlasherTest, EraseCheckOfTheUndetectedTypeFollowsItsRule)
{
    EXPECT_TRUE(vexactl::check_erase(MCU_GD32E503, 1032191).covered);
    EXPECT_FALSE(vexactl::check_erase(MCU_GD32E503, 1032192).covered);
}

TEST_F(McuFlasherTest, RefusalSaysWhyAndWhatTheImageWouldNeed)
{
    const auto tail = vexactl::check_erase(MCU_GD32F303, 4097);
    EXPECT_EQ(tail.why, "the erase covers 2 whole pages of 2 KiB (4096 bytes; the page count is rounded down), "
                        "so the last 1 bytes would be written over unerased flash");
    EXPECT_EQ(tail.need, "the image would need a whole number of pages: pad it with 0xff to 6144 bytes");
    const auto count = vexactl::check_erase(MCU_GD32F470, 516096);
    EXPECT_EQ(count.why, "the erase needs 127 pages, but the flasher sends the page list with an 8-bit byte count, "
                         "which holds at most 126 pages: the erase command would be cut short");
    EXPECT_EQ(count.need, "the image would need at most 516095 bytes (126 pages of 4 KiB)");
}

TEST_F(McuFlasherTest, RefusedImageLeavesTheFlashAndTheMcuRunning)
{
    mcu().fill_flash(0x00);
    const FlashReport report = flash(image(1000));
    EXPECT_EQ(report.stage, Stage::refused);
    EXPECT_EQ(report.type, MCU_GD32F303);
    EXPECT_TRUE(mcu().erases().empty());
    EXPECT_EQ(mcu().flash(4096), std::vector<uint8_t>(4096, 0x00));
    EXPECT_EQ(mcu().mode(), sim::McuModel::Mode::application);
}

TEST_F(McuFlasherTest, FlashedImageIsReadBackBlockByBlock)
{
    const std::string bytes = image(1000 + 3096); // 4096: two whole pages
    const FlashReport report = flash(bytes);
    EXPECT_EQ(report.stage, Stage::done);
    EXPECT_TRUE(report.verified);
    EXPECT_EQ(report.blocks, 16u);
    const std::vector<uint8_t> flash = mcu().flash(4096);
    EXPECT_EQ(std::string(flash.begin(), flash.end()), bytes);
    ASSERT_EQ(calls.size(), 32u);
    EXPECT_EQ(calls[15].phase, "write");
    EXPECT_EQ(calls[15].done, 16u);
    EXPECT_EQ(calls[31].phase, "verify");
    EXPECT_EQ(calls[31].done, 16u);
    EXPECT_EQ(mcu().mode(), sim::McuModel::Mode::application);
}

TEST_F(McuFlasherTest, FailedBlocksAreCountedAsTheyComeAndTheFlashFails)
{
    mcu().nack_command(0x31, 3);
    const FlashReport report = flash(image(4096));
    EXPECT_EQ(report.stage, Stage::blocks_failed);
    EXPECT_EQ(report.failed, 3u);
    EXPECT_EQ(report.first_failed, MCU_ISP_FLASH_BASE);
    ASSERT_EQ(calls.size(), 16u) << "no read-back after failed blocks";
    EXPECT_EQ(calls[0].done, 1u) << "a failed block moves the bar";
    EXPECT_EQ(calls[0].failed, 1u) << "and is shown at once";
    EXPECT_EQ(calls[2].failed, 3u);
    EXPECT_EQ(calls[15].done, 16u);
    EXPECT_EQ(mcu().mode(), sim::McuModel::Mode::application);
}

TEST_F(McuFlasherTest, ReadBackFindsTheFirstByteTheFlashDoesNotHold)
{
    mcu().fill_flash(0x00);
    // Forced over a tail the erase leaves: the zeroed byte keeps its zeros.
    const FlashReport report = flash(image(4097), true);
    EXPECT_EQ(report.stage, Stage::differs);
    EXPECT_EQ(report.first_difference, MCU_ISP_FLASH_BASE + 4096);
    EXPECT_EQ(report.flash_byte, 0x00);
    EXPECT_EQ(report.image_byte, static_cast<uint8_t>(image(4097)[4096]));
}

TEST_F(McuFlasherTest, UnverifiedFlashSkipsTheReadBack)
{
    mcu().fill_flash(0x00);
    const FlashReport report = flash(image(4097), true, false);
    EXPECT_EQ(report.stage, Stage::done);
    EXPECT_FALSE(report.verified);
    EXPECT_EQ(calls.size(), 17u) << "writes only";
}

TEST_F(McuFlasherTest, FailedReadBackIsNotAVerifiedFlash)
{
    mcu().nack_command(0x11, 1);
    const FlashReport report = flash(image(4096));
    EXPECT_EQ(report.stage, Stage::read_failed);
    EXPECT_EQ(report.first_unread, MCU_ISP_FLASH_BASE);
    EXPECT_FALSE(report.verified);
}

TEST_F(McuFlasherTest, SilentBootloaderIsReportedAndTheMcuIsResetToItsApplication)
{
    mcu().set_bootloader_silent(true);
    const FlashReport report = flash(image(4096));
    EXPECT_EQ(report.stage, Stage::no_answer);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(mcu().mode(), sim::McuModel::Mode::application);
}

} // namespace
} // namespace vexa::test
