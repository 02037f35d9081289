// What any process learns of the MCU model through the board's host: the
// mode it runs in, its firmware version, and a flash's progress while the
// bootloader writes.
#include "mcu_fixture.h"
#include "sim/serial/serial_line.h"
#include "vexasdk/mcu.h"

namespace {

class McuStateTest : public vexa::test::McuTest {};

TEST_F(McuStateTest, ModeVersionAndTheBootloadersWritesUntilTheNextStart)
{
    mcu().set_version("V7.3.1.0");
    auto state = vexa::sim::mcu_state(board());
    ASSERT_TRUE(state);
    EXPECT_EQ(state->mode, "application");
    EXPECT_EQ(state->version, "V7.3.1.0");
    EXPECT_EQ(state->written, 0u);

    ASSERT_EQ(mcu_serial_init("/dev/ttyS9", 115200, 8, 1, 'O'), 0);
    mcu_isp_init();
    ASSERT_EQ(ack_startisp(), 0);
    mcu_type_detect();
    ASSERT_EQ(ack_sendcmd(0x44), 0); // extended erase
    ASSERT_EQ(erasememory_extend(MCU_ISP_FLASH_BASE, 3 * 1024), 0);
    const std::vector<uint8_t> block(600, 0x5A);
    ASSERT_EQ(writememory_2mcu(MCU_ISP_FLASH_BASE, block.data(), 600), 0);
    state = vexa::sim::mcu_state(board());
    ASSERT_TRUE(state);
    EXPECT_EQ(state->mode, "bootloader");
    EXPECT_EQ(state->written, 600u);
    EXPECT_EQ(state->erased_pages, mcu().erases().back().pages.size());
    EXPECT_GT(state->erased_pages, 0u);
    EXPECT_FALSE(state->mass_erased);

    mcu_serial_close();
    mcu_isp_close();
    state = vexa::sim::mcu_state(board());
    ASSERT_TRUE(state);
    EXPECT_EQ(state->mode, "application");
    EXPECT_EQ(state->written, 0u);
    EXPECT_EQ(state->erased_pages, 0u);
}

TEST_F(McuStateTest, ResetHeldLowIsNeitherMode)
{
    board().write_file("/sys/class/vexagpios/MCU_NRST/value", "0\n");
    auto state = vexa::sim::mcu_state(board());
    ASSERT_TRUE(state);
    EXPECT_EQ(state->mode, "reset");
}

} // namespace
