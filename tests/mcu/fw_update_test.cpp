// The firmware version check and the update flow against the MCU model.
#include <unistd.h>

#include "mcu_fixture.h"
#include "support/ini_text.h"
#include "vexasdk/mcu.h"
#include "vexasdk/peripherals.h"

namespace {

using vexa::sim::Fault;

class FwUpdateTest : public vexa::test::McuTest {
protected:
    void TearDown() override
    {
        if (fd_ > 0)
            close(fd_);
        McuTest::TearDown();
    }
    int open_mcu()
    {
        fd_ = serialInit();
        board().clear_log();
        return fd_;
    }
    int count(const std::string &line)
    {
        const auto lines = board().log_lines();
        return static_cast<int>(std::count(lines.begin(), lines.end(), line));
    }
    int fd_ = -1;
};

TEST_F(FwUpdateTest, VersionRequestGoesOutByteForByte)
{
    const int fd = sdk_uart_init("/dev/ttyS3", 115200);
    ASSERT_GT(fd, 0);
    char version[16] = {};
    EXPECT_EQ(getMcuFwVersion(fd, version), 0);
    const std::string expected("\x55\xBB\x00\x00\x00\x01\x07\x00\x19\x00\x41\x01\x00\x00\x00\x00\x00\x00"
                               "\x00\x00\x00\x00\x01\x00\x00\x00\x00\x00\x03\x00\x00\x01\x00\x78\x01",
                               35);
    EXPECT_EQ(line("/dev/ttyS3")->take_output(35, 2000), expected);
    // Nobody answered: the text is what the empty buffer holds.
    EXPECT_STREQ(version, "");
    sdk_uart_close(fd);
}

TEST_F(FwUpdateTest, VersionAnswerIsTakenAsSoonAsItArrives)
{
    mcu().set_version("V3.1.4.15-alpha");
    ASSERT_GT(open_mcu(), 0);
    char version[16] = {};
    const uint64_t start = board().now_ns();
    ASSERT_EQ(getMcuFwVersion(fd_, version), 0);
    EXPECT_LT(board().now_ns() - start, 400000000u);
    EXPECT_STREQ(version, "V3.1.4.15-alpha");
    EXPECT_THAT(fw_log(), ::testing::ElementsAre(
                              "D/vexa_system_fw_update: getMcuFwVersion: is called",
                              "D/vexa_system_fw_update: getMcuFwVersion: mcu_fd = " + std::to_string(fd_),
                              "D/vexa_system_fw_update: getMcuFwVersion: mcu_fd = " + std::to_string(fd_) +
                                  ", data received(64):",
                              "D/vexa_system_fw_update: mcuIcVer = V3.1.4.15-alpha"));
    EXPECT_EQ(getMcuFwVersion(fd_, nullptr), -1);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: getMcuFwVersion: mcuIcVer is NULL"));
}

TEST_F(FwUpdateTest, SilentMcuWaitsOutHalfASecond)
{
    ASSERT_GT(open_mcu(), 0);
    mcu().add_quirk(vexa::sim::McuModel::Quirk::silent);
    char version[16] = {};
    const uint64_t start = board().now_ns();
    EXPECT_EQ(getMcuFwVersion(fd_, version), 0);
    EXPECT_GE(board().now_ns() - start, 500000000u);
    EXPECT_STREQ(version, "");
}

TEST_F(FwUpdateTest, EqualVersionEndsTheCheckInTheFirstRound)
{
    ASSERT_GT(open_mcu(), 0);
    EXPECT_EQ(checkMcuFwVersion(fd_), 0);
    EXPECT_EQ(mcu().version_requests(), 1);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: checkMcuFwVersion: mcuBinVer(V1.0.2.0) is equal to "
                       "mcuIcVer(V1.0.2.0), no need update FW"));
}

TEST_F(FwUpdateTest, DifferentVersionAsksTenTimesASecondApart)
{
    mcu().set_version("V1.0.1.0");
    ASSERT_GT(open_mcu(), 0);
    const uint64_t start = board().now_ns();
    EXPECT_EQ(checkMcuFwVersion(fd_), 1);
    EXPECT_GE(board().now_ns() - start, 10000000000u);
    EXPECT_EQ(mcu().version_requests(), 10);
    EXPECT_EQ(count("D/vexa_system_fw_update: checkMcuFwVersion: mcuBinVer(V1.0.2.0) is not equal to "
                    "mcuIcVer(V1.0.1.0),retry!"),
              10);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: checkMcuFwVersion: mcuBinVer(V1.0.2.0) is not equal "
                       "to mcuIcVer(V1.0.1.0), need update FW"));
}

TEST_F(FwUpdateTest, FailedRequestsFallBackOnTheRecordedVersion)
{
    ASSERT_GT(open_mcu(), 0);
    board().inject(Fault::on("write").at("/dev/ttyS9"));
    EXPECT_EQ(checkMcuFwVersion(fd_), 1);
    EXPECT_EQ(count("E/vexa_system_fw_update: checkMcuFwVersion: mcuIcVer is null, retrying... "
                    "(retryCount = 9)"),
              1);
    EXPECT_EQ(count("D/vexa_system_fw_update: getMcuFwVersion: write request error"), 10);
    board().clear_log();
    board().set_property("persist.vexa.mcu_fw_version", "V1.0.2.0");
    EXPECT_EQ(checkMcuFwVersion(fd_), 0);
    EXPECT_EQ(count("D/vexa_system_fw_update: checkMcuFwVersion: getMcuFwVersion failed, retryCount = 0"),
              1);
}

TEST_F(FwUpdateTest, OutdatedMcuIsFlashedAndTheLineReopened)
{
    mcu().set_version("V1.0.1.0");
    ASSERT_GT(open_mcu(), 0);
    int fd = fd_;
    EXPECT_EQ(mcuFwUpdate(&fd), 0);
    fd_ = fd;
    ASSERT_GT(fd, 0);
    EXPECT_EQ(config_info->mcu_updating, 0);
    EXPECT_EQ(board().property("persist.vexa.mcu_fw_version"), "V1.0.2.0");
    const std::string image = board().read_file("/vendor/etc/mcu/mcu_fw.bin");
    EXPECT_TRUE(bytes(mcu().flash(static_cast<uint32_t>(image.size()))) == image);
    // The flashed firmware names its version and the MCU now reports it.
    EXPECT_EQ(mcu().version(), "V1.0.2.0");
    EXPECT_EQ(checkMcuFwVersion(fd), 0);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: doMcuUpdateByIsp: mcu_isp_fw_update success"));
    EXPECT_TRUE(logged("D/vexa_system_fw_update: mcuFwUpdate: mcu update done "));
}

TEST_F(FwUpdateTest, CurrentMcuNeedsNoUpdateAndGivesMinusOne)
{
    ASSERT_GT(open_mcu(), 0);
    int fd = fd_;
    EXPECT_EQ(mcuFwUpdate(&fd), -1);
    EXPECT_EQ(fd, fd_);
    EXPECT_TRUE(logged("E/vexa_system_fw_update: mcuFwUpdate: do not need upgrade FW"));
    EXPECT_TRUE(mcu().erases().empty());
}

TEST_F(FwUpdateTest, FlashFailuresAreRetriedFiveTimes)
{
    mcu().set_version("V1.0.1.0");
    mcu().nack_start(1000);
    ASSERT_GT(open_mcu(), 0);
    int fd = fd_;
    // The update failed, but the line is reopened: 0.
    EXPECT_EQ(mcuFwUpdate(&fd), 0);
    fd_ = fd;
    EXPECT_EQ(count("D/vexa_system_fw_update: doMcuUpdateByIsp: mcu_isp_fw_update failed"), 5);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: The maximum retry times has been reached, and the "
                       "program failed to execute successfully"));
    EXPECT_TRUE(logged("D/vexa_system_fw_update: mcuFwUpdate: doMcuUpdate failed"));
    EXPECT_EQ(board().property("persist.vexa.mcu_fw_version"), "");
}

TEST_F(FwUpdateTest, MissingImageIsNotFlashed)
{
    board().remove_file("/vendor/etc/mcu/mcu_fw.bin");
    EXPECT_EQ(doMcuUpdateByIsp(), -1);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: doMcuUpdateByIsp: /vendor/etc/mcu/mcu_fw.bin not exist"));
    EXPECT_TRUE(board().commands().empty());
}

TEST_F(FwUpdateTest, UnknownChipFamilyRecordsTheVersionWithoutFlashing)
{
    reload(vexa::sim::Board::Builder().ini(vexa::test::ini_with("mcu_serial", "esp32")));
    EXPECT_EQ(doMcuUpdateByIsp(), 0);
    EXPECT_EQ(board().property("persist.vexa.mcu_fw_version"), "V1.0.2.0");
    EXPECT_TRUE(board().commands().empty());
}

TEST_F(FwUpdateTest, FileSizeOfTheImage)
{
    EXPECT_EQ(getFileSize("/vendor/etc/mcu/mcu_fw.bin"), 4096);
    EXPECT_EQ(getFileSize("/vendor/etc/mcu/none.bin"), -1);
    EXPECT_TRUE(logged("D/vexa_system_fw_update: getFileSize: Error opening file"));
}

} // namespace
