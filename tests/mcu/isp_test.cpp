// The ROM-bootloader flasher against the MCU model's bootloader.
#include <stdlib.h>

#include <chrono>
#include <filesystem>

#include "mcu_fixture.h"
#include "vexasdk/mcu.h"

namespace {

using Mode = vexa::sim::McuModel::Mode;

std::string image_of(size_t size, unsigned seed = 1)
{
    std::string image(size, '\0');
    for (size_t i = 0; i < size; ++i)
        image[i] = static_cast<char>((i * 37u + seed * 11u) & 0xFF);
    return image;
}

const std::vector<std::string> kIspInit = {
    "echo 1 > /sys/class/vexagpios/MCU_BOOT0/value",
    "echo 0 > /sys/class/vexagpios/MCU_NRST/value",
    "echo 1 > /sys/class/vexagpios/MCU_NRST/value",
};
const std::vector<std::string> kIspClose = {
    "echo 0 > /sys/class/vexagpios/MCU_BOOT0/value",
    "echo 0 > /sys/class/vexagpios/MCU_NRST/value",
    "echo 1 > /sys/class/vexagpios/MCU_NRST/value",
};

class IspTest : public vexa::test::McuTest {
protected:
    int flash(const std::string &image)
    {
        board().write_file("/data/mcu/image.bin", image);
        return mcu_tool_isp_task("/data/mcu/image.bin", "/dev/ttyS9");
    }
    std::vector<std::string> reset_commands()
    {
        std::vector<std::string> out;
        for (auto &c : board().commands())
            if (c.find("vexagpios/MCU_") != std::string::npos)
                out.push_back(c);
        return out;
    }
};

TEST_F(IspTest, ThousandByteImageGoesAsThreeFullBlocksAndOneOf232)
{
    mcu().fill_flash(0xFF);
    const std::string image = image_of(1000);
    ASSERT_EQ(flash(image), 0);
    EXPECT_TRUE(bytes(mcu().flash(1000)) == image);
    EXPECT_EQ(mcu().flash(1001).back(), 0xFF);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: writememory_2mcu: w_addr=0x08000000, w_size=256, "
                       "all_len=1000, w_times=4, w_last=232"));
    const auto lines = fw_log();
    for (const char *percent : {"25", "51", "76", "100"})
        EXPECT_NE(std::find(lines.begin(), lines.end(),
                            std::string("D/vexa_system_fw_update: \r write mcu internal flash: [") +
                                percent + "%]"),
                  lines.end());
    EXPECT_TRUE(logged("D/vexa_system_fw_update: writememory_2mcu: final write mcu internal flash: [100]"));
    std::vector<std::string> expected = kIspInit;
    expected.insert(expected.end(), kIspClose.begin(), kIspClose.end());
    EXPECT_EQ(reset_commands(), expected);
    EXPECT_EQ(mcu().mode(), Mode::application);
    EXPECT_EQ(board().read_file("/sys/class/vexagpios/MCU_BOOT0/value"), "0\n");
    EXPECT_EQ(board().read_file("/sys/class/vexagpios/MCU_NRST/value"), "1\n");
}

TEST_F(IspTest, FlashPersistsInTheBoardRoot)
{
    char dir[] = "/tmp/vexa-mcu-flash-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    const std::string root = std::string(dir) + "/board";
    reload(vexa::sim::Board::Builder().root(root));
    const std::string image = image_of(3000, 5);
    ASSERT_EQ(flash(image), 0);
    reload(vexa::sim::Board::Builder().root(root));
    EXPECT_TRUE(bytes(mcu().flash(3000)) == image);
    reload(vexa::sim::Board::Builder());
    std::filesystem::remove_all(dir);
}

TEST_F(IspTest, StartByteNackedThreeTimesEndsIn15AndStillResetsToTheApplication)
{
    mcu().nack_start(3);
    EXPECT_EQ(flash(image_of(512)), MCU_ISP_TASK_FAILED);
    EXPECT_EQ(mcu().start_bytes(), 3);
    const auto lines = fw_log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "D/vexa_system_fw_update: ack_startisp: mcu_serial_read ACK data:0x1f"),
              3);
    for (const char *tries : {"3", "2", "1"})
        EXPECT_TRUE(logged(std::string("D/vexa_system_fw_update: try_times = ") + tries));
    std::vector<std::string> expected = kIspInit;
    expected.insert(expected.end(), kIspClose.begin(), kIspClose.end());
    EXPECT_EQ(reset_commands(), expected);
    EXPECT_EQ(mcu().mode(), Mode::application);
    EXPECT_TRUE(mcu().erases().empty());
}

TEST_F(IspTest, SilentBootloaderIsNeitherAnswerAndFails)
{
    mcu().set_bootloader_silent(true);
    EXPECT_EQ(flash(image_of(512)), MCU_ISP_TASK_FAILED);
    const auto lines = fw_log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "D/vexa_system_fw_update: ack_startisp: mcu_serial_read ACK data:0x7f"),
              3);
}

TEST_F(IspTest, RefusedExtendedEraseFails)
{
    mcu().nack_command(0x44, 1);
    EXPECT_EQ(flash(image_of(512)), MCU_ISP_TASK_FAILED);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: ack_sendcmd CMD_EXTENDED_ERASE failed."));
    EXPECT_EQ(mcu().mode(), Mode::application);
}

struct EraseCase {
    int type;
    size_t size;
    int logged_pages;
    std::vector<uint16_t> pages; // empty: a mass erase (count field 0xFFFF)
};

// Named by type and image size, so that a failing case says which one.
void PrintTo(const EraseCase &c, std::ostream *os)
{
    *os << "type" << c.type << "_" << c.size << "bytes";
}

class EraseTest : public IspTest, public ::testing::WithParamInterface<EraseCase> {};

TEST_P(EraseTest, PageCountFollowsTheTypeTable)
{
    const EraseCase &c = GetParam();
    mcu().set_type(c.type);
    ASSERT_EQ(flash(image_of(c.size)), 0);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: CMD_EXTENDED_ERASE: len = " + std::to_string(c.size) +
                       ", page_cnt = " + std::to_string(c.logged_pages)));
    const auto erases = mcu().erases();
    ASSERT_EQ(erases.size(), 1u);
    EXPECT_EQ(erases[0].mass, c.pages.empty());
    EXPECT_EQ(erases[0].pages, c.pages);
    EXPECT_TRUE(bytes(mcu().flash(static_cast<uint32_t>(c.size))) == image_of(c.size));
}

INSTANTIATE_TEST_SUITE_P(
    Types, EraseTest,
    ::testing::Values(EraseCase{1, 0x7FF, 0, {}}, EraseCase{1, 0x800, 1, {0}},
                      EraseCase{1, 0x1800, 3, {0, 1, 2}}, EraseCase{3, 0x1000, 2, {0, 1}},
                      EraseCase{3, 0xFFF, 1, {0}}, EraseCase{4, 100, 2, {0, 1}}));

TEST_F(IspTest, UnknownProductIdKeepsTheTypeDetectedBefore)
{
    mcu().set_type(3);
    ASSERT_EQ(flash(image_of(0x1000)), 0);
    mcu().set_type(2); // a GD32E503 id that detection does not know
    ASSERT_EQ(flash(image_of(0x2000)), 0);
    EXPECT_EQ(mcu_get_type(), MCU_GD32F470);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: CMD_EXTENDED_ERASE: len = 8192, page_cnt = 3"));
    EXPECT_TRUE(logged("D/vexa_system_fw_update: mcu_type_detect: not st mcu pid = 0x0"));
}

TEST_F(IspTest, TypeDetectionNamesEveryKnownPart)
{
    const std::pair<int, const char *> cases[] = {
        {1, "MCU_GD32F303"}, {3, "MCU_GD32F470"}, {4, "MCU_STM32H750"}};
    for (const auto &[type, name] : cases) {
        mcu().set_type(type);
        ASSERT_EQ(mcu_serial_init("/dev/ttyS9", 115200, 8, 1, 'O'), 0);
        mcu_isp_init();
        ASSERT_EQ(ack_startisp(), 0);
        mcu_type_detect();
        mcu_serial_close();
        mcu_isp_close();
        EXPECT_EQ(mcu_get_type(), type);
        EXPECT_TRUE(logged(std::string("D/vexa_system_fw_update: mcu_type_detect: _mcu_type: ") + name));
    }
    EXPECT_TRUE(logged("D/vexa_system_fw_update: mcu_type_detect: read gd mcu pid = 0x4e455a30"));
    EXPECT_TRUE(logged("E/vexa_system_fw_update: mcu_type_detect: not gd mcu pid = 0x0"));
    EXPECT_TRUE(logged("D/vexa_system_fw_update: mcu_type_detect: read st mcu pid = 0x450"));
}

TEST_F(IspTest, ReadBackReturnsWhatWasWritten)
{
    const std::string image = image_of(700, 9);
    ASSERT_EQ(flash(image), 0);
    ASSERT_EQ(mcu_serial_init("/dev/ttyS9", 115200, 8, 1, 'O'), 0);
    mcu_isp_init();
    ASSERT_EQ(ack_startisp(), 0);
    std::vector<uint8_t> back(700);
    EXPECT_EQ(readmemory_4mcu(MCU_ISP_FLASH_BASE, back.data(), 700), 0);
    EXPECT_TRUE(bytes(back) == image);
    mcu_serial_close();
    mcu_isp_close();
}

// On a line paced like the real UART, every byte both ways takes its wire
// time: a block's exchange never ends sooner than its 268 bytes allow.
TEST_F(IspTest, PacedLineTakesTheWireTimeOfEveryByte)
{
    ASSERT_EQ(mcu_serial_init("/dev/ttyS9", 115200, 8, 1, 'O'), 0);
    mcu_isp_init();
    ASSERT_EQ(ack_startisp(), 0);
    mcu().pace(115200, 11);
    const std::string image = image_of(512, 4);
    const uint64_t before = mcu().bytes_in() + mcu().bytes_out();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(writememory_2mcu(MCU_ISP_FLASH_BASE, reinterpret_cast<const uint8_t *>(image.data()), 512), 0);
    const auto took_us =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
    const uint64_t exchanged = mcu().bytes_in() + mcu().bytes_out() - before;
    EXPECT_EQ(exchanged, 2u * (2 + 1 + 5 + 1 + 1 + 256 + 1 + 1));
    EXPECT_GE(static_cast<uint64_t>(took_us), exchanged * 11 * 1000000 / 115200);
    EXPECT_TRUE(bytes(mcu().flash(512)) == image);
    mcu().pace(0, 0);
    mcu_serial_close();
    mcu_isp_close();
}

TEST_F(IspTest, NoDescriptorGivesEachHelpersOwnCode)
{
    mcu_serial_init("/dev/ttyNONE", 115200, 8, 1, 'O');
    EXPECT_EQ(ack_startisp(), 1);
    EXPECT_EQ(ack_sendcmd(0x44), -4);
    EXPECT_EQ(read_gd_mcu_pid(), 0u);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: mcu serial init error. "));
}

TEST_F(IspTest, MissingImageFailsAfterTheEraseAndResets)
{
    EXPECT_EQ(mcu_tool_isp_task("/data/none.bin", "/dev/ttyS9"), MCU_ISP_TASK_FAILED);
    EXPECT_TRUE(logged("D/vexa_system_fw_update:  file not exist, filename /data/none.bin "));
    EXPECT_TRUE(logged("D/vexa_system_fw_update: file_read failed. "));
    EXPECT_EQ(mcu().mode(), Mode::application);
}

TEST_F(IspTest, ChipFamilyChoosesTheFlasher)
{
    board().write_file("/data/fw.bin", image_of(300));
    EXPECT_EQ(mcu_isp_fw_update("/data/fw.bin", "/dev/ttyS9", "gd32f303"), 0);
    EXPECT_TRUE(bytes(mcu().flash(300)) == image_of(300));
    EXPECT_EQ(mcu_isp_fw_update("/data/fw.bin", "/dev/ttyS9", "n32g45x"), -1);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: n32_uart_isp_upgrade: the N32 UART bootloader is not "
                       "supported, /data/fw.bin not flashed to /dev/ttyS9"));
    EXPECT_TRUE(logged("D/vexa_system_fw_update: mcu_isp_fw_update: n32_uart_isp_upgrade failed, ret = -1"));
    board().clear_commands();
    EXPECT_EQ(mcu_isp_fw_update("/data/fw.bin", "/dev/ttyS9", "esp32"), 0);
    EXPECT_TRUE(board().commands().empty());
}

TEST_F(IspTest, UnsetTextsAreRefusedInOrder)
{
    EXPECT_EQ(mcu_isp_fw_update("UNDEF", "UNDEF", "UNDEF"), -1);
    EXPECT_EQ(mcu_isp_fw_update("/a", "", "gd32"), -1);
    EXPECT_EQ(mcu_isp_fw_update("/a", "/b", nullptr), -1);
    EXPECT_THAT(fw_log(),
                ::testing::ElementsAre(
                    "D/vexa_system_fw_update: mcu_isp_fw_update: invalid file_path is NULL, need to "
                    "check ini file",
                    "D/vexa_system_fw_update: mcu_isp_fw_update: invalid uart_path is NULL, need to "
                    "check ini file",
                    "D/vexa_system_fw_update: mcu_isp_fw_update: invalid chip_serial is NULL, need to "
                    "check ini file"));
}

} // namespace

namespace {

TEST_F(IspTest, InteractiveTaskUnprotectsFlashesAndReadsBack)
{
    const std::string image = image_of(1500, 3);
    board().write_file(MCU_ISP_TEST_IMAGE, image);
    EXPECT_EQ(task(nullptr, "/dev/ttyS9"), 0);
    EXPECT_TRUE(bytes(mcu().flash(1500)) == image);
    EXPECT_EQ(mcu().start_bytes(), 3); // greeted again after each unprotect
    EXPECT_TRUE(logged("D/vexa_system_fw_update: task: read back 1500 bytes, equal to the image"));
    EXPECT_EQ(mcu().mode(), Mode::application);
    mcu().nack_command(0x92, 1);
    EXPECT_EQ(task(nullptr, "/dev/ttyS9"), MCU_ISP_TASK_FAILED);
}

} // namespace

namespace {

TEST_F(IspTest, SettingsKeptWithTheBoardApplyToEveryAttach)
{
    EXPECT_EQ(mcu().link_mask(), 0xFu);
    char dir[] = "/tmp/vexa-mcu-model-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    const std::string root = std::string(dir) + "/board";
    reload(vexa::sim::Board::Builder().root(root).file("/.board/mcu-model", "version=V9.9.9.9\nlinks=0x30\ntype=4\nbogus\nlinks=x\n"));
    EXPECT_EQ(mcu().version(), "V9.9.9.9");
    EXPECT_EQ(mcu().link_mask(), 0x30u);
    EXPECT_EQ(mcu().type(), 4);
    reload(vexa::sim::Board::Builder());
    std::filesystem::remove_all(dir);
}

} // namespace
