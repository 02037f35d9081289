#include <fcntl.h>

#include <cerrno>

#include <string>

#include "platform/os.h"
#include "support/board_fixture.h"
#include "support/ini_text.h"
#include "vexasdk/product_config.h"
#include "vexasdk/storage.h"

namespace vexa::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BlockTest : public ProductTest {
protected:
    std::vector<std::string> block_log() { return log_of("vexa_system_bi_block"); }
};

TEST_F(BlockTest, NamedPartitionsReadBackWhatWasWritten)
{
    const std::string data = "screen parameters";
    ASSERT_EQ(bi_block_write_screen(4096, data.data(), uint32_t(data.size())), int(data.size()));
    std::string back(data.size(), '\0');
    ASSERT_EQ(bi_block_read_screen(4096, back.data(), uint32_t(back.size())), int(back.size()));
    EXPECT_EQ(back, data);
    EXPECT_EQ(board().read_file("/dev/block/by-name/screen").substr(4096, data.size()), data);
    EXPECT_EQ(board().read_file("/dev/block/by-name/screen").size(), 4u << 20) << "size kept";

    ASSERT_EQ(bi_block_write_defined(0, "edid", 4), 4);
    ASSERT_EQ(bi_block_write_fpga_program(1 << 20, "bits", 4), 4);
    char four[4];
    EXPECT_EQ(bi_block_read_defined(0, four, 4), 4);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(bi_block_read_fpga_program(1 << 20, four, 4), 4);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "bi_block_read_fpga_program\n");
    EXPECT_EQ(std::string(four, 4), "bits");
    // A zero length goes to the HAL as it is.
    EXPECT_EQ(bi_block_read_screen(0, four, 0), 0);
    EXPECT_THAT(block_log(), IsEmpty());
}

// A worn partition (the board's knob) fails every write with EIO, whoever
// writes, and leaves its neighbours and its own reads alone.
TEST_F(BlockTest, APartitionThatFailsWritesKeepsWhatItHad)
{
    ASSERT_EQ(bi_block_write_screen(0, "good", 4), 4);
    ASSERT_EQ(board().set_knob("partitions.fail_writes", "screen"), 0);
    errno = 0;
    EXPECT_LT(bi_block_write_screen(0, "lost", 4), 0);
    EXPECT_EQ(errno, EIO);
    const int fd = vexa::os::open("/dev/block/by-name/screen", O_WRONLY);
    ASSERT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(vexa::os::pwrite(fd, "lost", 4, 0), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(vexa::os::write(fd, "lost", 4), -1);
    vexa::os::close(fd);
    EXPECT_EQ(board().read_file("/dev/block/by-name/screen").substr(0, 4), "good");
    char back[4];
    EXPECT_EQ(bi_block_read_screen(0, back, 4), 4);
    EXPECT_EQ(bi_block_write_defined(0, "edid", 4), 4) << "another partition";
    EXPECT_EQ(board().set_knob("partitions.fail_writes", "screen/x"), -1);
    ASSERT_EQ(board().set_knob("partitions.fail_writes", ""), 0);
    EXPECT_EQ(bi_block_write_screen(0, "new!", 4), 4);
}

TEST_F(BlockTest, HalFailuresPassThroughUnchanged)
{
    char buf[16] = {};
    // Past the end of the fixed-size partition.
    EXPECT_LT(bi_block_write_screen(4u << 20, buf, sizeof(buf)), 0);
    board().inject(sim::Fault::on("hal_block_read").at("/dev/block/by-name/screen").returns(-7));
    EXPECT_EQ(bi_block_read_screen(0, buf, sizeof(buf)), -7);
}

TEST_F(BlockTest, UnsetPathsFailBeforeAnyDeviceAccess)
{
    struct Case {
        const char *key;
        const char *field;
        int32_t (*read)(uint32_t, void *, uint32_t);
        const char *func;
    };
    const Case cases[] = {
        {"hdmi_edid_path", "hdmi_edid.path", bi_block_read_defined, "bi_block_read_defined"},
        {"fpga_parameter", "fpga_parameter.path", bi_block_read_screen, "bi_block_read_screen"},
        {"fpga_program_path", "fpga_program.path", bi_block_read_fpga_program,
         "bi_block_read_fpga_program"},
    };
    for (const Case &c : cases) {
        for (const char *value : {"UNDEF", "/dev/block/by-name/UNDEF"}) {
            configure(c.key, value);
            board().inject(sim::Fault::on("access").always());
            board().inject(sim::Fault::on("hal_block_read").always().returns(-99));
            char buf[4];
            ::testing::internal::CaptureStdout();
            EXPECT_EQ(c.read(0, buf, sizeof(buf)), -1) << c.key;
            ::testing::internal::GetCapturedStdout();
            EXPECT_THAT(block_log(),
                        ElementsAre("E/vexa_system_bi_block: " + std::string(c.func) +
                                    ":bi_product is NULL or " + c.field +
                                    " is not set, need to check ini file."));
        }
    }
    configure("fpga_parameter", "/dev/block/by-name/screen2");
    EXPECT_EQ(bi_block_write_screen(0, "x", 1), -1);
    EXPECT_THAT(block_log(), ElementsAre("E/vexa_system_bi_block: bi_block_write_screen: "
                                         "/dev/block/by-name/screen2 not exist"));
}

TEST_F(BlockTest, DataCallsNeedOnlyAPath)
{
    ASSERT_EQ(bi_block_write_data("/sdcard/blob.bin", 8, "abc", 3), 3);
    EXPECT_EQ(board().read_file("/sdcard/blob.bin"), std::string(8, '\0') + "abc");
    char back[3];
    EXPECT_EQ(bi_block_read_data("/sdcard/blob.bin", 8, back, 3), 3);
    EXPECT_EQ(bi_block_read_data(nullptr, 0, back, 3), -1);
    EXPECT_EQ(bi_block_write_data(nullptr, 0, back, 3), -1);
    EXPECT_LT(bi_block_read_data("/sdcard/none.bin", 0, back, 3), 0);
    EXPECT_THAT(block_log(), ElementsAre("E/vexa_system_bi_block: bi_block_read_data name is NULL",
                                         "E/vexa_system_bi_block: bi_block_write_data name is NULL"));
}

TEST_F(BlockTest, BadblocksRunsAndJudgesItsResultFile)
{
    EXPECT_EQ(bi_block_check("/dev/block/by-name/screen"), 0);
    EXPECT_THAT(board().commands(),
                ElementsAre("/system/bin/badblocks -v -o /sdcard/block_test_result.txt "
                            "/dev/block/by-name/screen"));
    EXPECT_EQ(board().read_file("/sdcard/block_test_result.txt"), "");
    EXPECT_THAT(block_log(),
                ElementsAre("I/vexa_system_bi_block: bi_block_check: no bad blocks found"));

    board().write_file("/dev/block/by-name/screen.badblocks", "17\n4095\n");
    board().clear_log();
    EXPECT_EQ(bi_block_check("/dev/block/by-name/screen"), -1);
    EXPECT_EQ(board().read_file("/sdcard/block_test_result.txt"), "17\n4095\n");
    EXPECT_THAT(block_log(), ElementsAre("E/vexa_system_bi_block: bi_block_check: bad "
                                         "blocks(/dev/block/by-name/screen) found"));
}

TEST_F(BlockTest, BadblocksWithoutResultFileCountsAsClean)
{
    // The device is missing: badblocks fails and writes no result file.
    EXPECT_EQ(bi_block_check("/dev/block/by-name/none"), 0);
    EXPECT_FALSE(board().exists("/sdcard/block_test_result.txt"));

    board().inject(sim::Fault::on("popen").once());
    board().clear_log();
    EXPECT_EQ(bi_block_check("/dev/block/by-name/screen"), -1);
    EXPECT_THAT(block_log(), ElementsAre("E/vexa_system_bi_block: bi_block_check, popen "
                                         "/system/bin/badblocks -v -o "
                                         "/sdcard/block_test_result.txt /dev/block/by-name/screen "
                                         "failed"));
}

} // namespace
} // namespace vexa::test
