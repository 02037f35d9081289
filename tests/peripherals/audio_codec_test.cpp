// The audio codecs, the RTC chip and the clock chip on the board's I2C model.
#include "sim/i2c/i2c_chips.h"
#include "support/board_fixture.h"
#include "vexasdk/peripherals.h"

namespace {

using vexa::sim::i2c_register;
using vexa::sim::set_i2c_register;

class CodecTest : public vexa::test::ProductTest {};

TEST_F(CodecTest, VolumeToRegisterAtItsBoundaries)
{
    const std::pair<int32_t, uint8_t> cases[] = {
        {-5, 0}, {0, 0xff}, {1, 117}, {2, 117}, {3, 105}, {50, 20}, {99, 0}, {100, 0}, {150, 0},
    };
    for (auto [volume, expected] : cases) {
        uint8_t reg = 0x55;
        ASSERT_EQ(bi_volume_to_codec_reg(volume, &reg), 0) << volume;
        EXPECT_EQ(reg, expected) << volume;
    }
    board().clear_log();
    uint8_t reg = 0;
    bi_volume_to_codec_reg(1, &reg);
    EXPECT_EQ(board().log_lines(),
              std::vector<std::string>{"D/vexa_system_bi_i2c: bi_volume_to_codec_reg:volume = 0x2 reg_value = 0x75"});
}

TEST_F(CodecTest, SetVolumeWritesChannelBitAndVolumeRegister)
{
    set_i2c_register(board(), "/dev/i2c-1", 0x1a, 0x03, 0x10);
    ASSERT_EQ(bi_i2c_set_video_inputsrc_volume(0, 50), 0);
    EXPECT_EQ(i2c_register(board(), "/dev/i2c-1", 0x1a, 0x03), 0x14);
    EXPECT_EQ(i2c_register(board(), "/dev/i2c-1", 0x1a, 0x04), 20);
    EXPECT_EQ(bi_i2c_get_video_inputsrc_volume(0), 20);
    // Codec 1 is a chip of its own.
    EXPECT_EQ(i2c_register(board(), "/dev/i2c-2", 0x1b, 0x04), 0);
    EXPECT_TRUE(logged("D/vexa_system_bi_i2c: volume = 0x32 value = 0x14"));
    EXPECT_TRUE(logged("D/vexa_system_bi_i2c: bi_i2c_set_video_inputsrc_volume : reg_val_after = 0x14"));
}

TEST_F(CodecTest, SilentCodecFailsTheVolumeRead)
{
    vexa::sim::set_i2c_silent(board(), "/dev/i2c-1", 0x1a, true);
    EXPECT_EQ(bi_i2c_set_video_inputsrc_volume(0, 50), -1);
    EXPECT_EQ(board().log_lines().back(),
              "E/vexa_system_bi_i2c: bi_i2c_set_video_inputsrc_volume : hal_i2c_reg_read failed!");
    EXPECT_EQ(bi_i2c_get_video_inputsrc_volume(0), -1);
    EXPECT_EQ(board().log_lines().back(),
              "E/vexa_system_bi_i2c: bi_i2c_get_video_inputsrc_volume: hal_i2c_reg_read failed, ret = -1");
    vexa::sim::set_i2c_silent(board(), "/dev/i2c-1", 0x1a, false);
    EXPECT_EQ(bi_i2c_get_video_inputsrc_volume(0), 0);
}

TEST_F(CodecTest, EnableWritesTheConfiguredValues)
{
    ASSERT_EQ(bi_i2c_set_audio_enable(1, 0), 0);
    EXPECT_EQ(i2c_register(board(), "/dev/i2c-2", 0x1b, 0x02), 0x00);
    EXPECT_EQ(bi_i2c_get_audio_enable(1), 0);
    ASSERT_EQ(bi_i2c_set_audio_enable(1, 1), 0);
    EXPECT_EQ(bi_i2c_get_audio_enable(1), 1);
}

TEST_F(CodecTest, EnableOfCodecOneComparesWithCodecZerosValue)
{
    std::string ini = vexa::test::ini_with("i2c_audio_0_enable", std::string("0x07"));
    ini = vexa::test::ini_with("i2c_audio_1_enable", std::string("0x03"), ini);
    rebuild(vexa::sim::Board::Builder().ini(ini));
    load();
    ASSERT_EQ(bi_i2c_set_audio_enable(1, 1), 0);
    EXPECT_EQ(i2c_register(board(), "/dev/i2c-2", 0x1b, 0x02), 0x03);
    EXPECT_EQ(bi_i2c_get_audio_enable(1), 0); // 0x03 is not codec 0's 0x07
    set_i2c_register(board(), "/dev/i2c-2", 0x1b, 0x02, 0x07);
    EXPECT_EQ(bi_i2c_get_audio_enable(1), 1);
}

TEST_F(CodecTest, UnsupportedIndexLogsBothLines)
{
    EXPECT_EQ(bi_i2c_set_audio_enable(2, 1), -1);
    EXPECT_EQ(board().log_lines(),
              (std::vector<std::string>{
                  "E/vexa_system_bi_i2c: bi_i2c_set_audio_enable: not support index = 2",
                  "D/vexa_system_bi_i2c: bi_i2c_set_audio_enable: fdev = , dev_addr = 0x0, reg_addr = 0x0, "
                  "reg_val = 0x0",
                  "E/vexa_system_bi_i2c: bi_i2c_set_audio_enable: invalid fdev(NULL) or dev_addr(0) or "
                  "reg_addr(0) value"}));
}

TEST_F(CodecTest, MissingFieldsNameTheirKeys)
{
    configure("i2c_audio_1_channel_addr", std::string("0"));
    EXPECT_EQ(bi_i2c_set_video_inputsrc_volume(1, 10), -1);
    EXPECT_EQ(board().log_lines(),
              std::vector<std::string>{"E/vexa_system_bi_i2c: bi_i2c_set_video_inputsrc_volume:"
                                       "i2c_audio_1_channel_addr is not set, need to set in ini file."});
    configure("i2c_audio_0_status_addr", std::string("0"));
    EXPECT_EQ(bi_i2c_get_audio_state(0), -1);
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_i2c: bi_i2c_get_audio_state:"
                                          "i2c_audio_1_enable_addr is not set, need to set in ini file.");
    configure("i2c_audio_0_path", std::nullopt);
    EXPECT_EQ(bi_i2c_get_audio_enable(0), -1);
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_i2c: bi_i2c_get_audio_enable:bi_product is NULL or "
                                          "i2c_audio_path is not set, need to set in ini file.");
}

TEST_F(CodecTest, StatusBitsDecideTheStates)
{
    const struct {
        uint8_t codec, rtc, clock;
        int codec_state, rtc_state, clock_state;
    } cases[] = {
        {0x20, 0x80, 0x81, 0, 1, 0},
        {0x30, 0x7f, 0x80, -1, 0, -1},
        {0x00, 0x00, 0x01, -1, 0, -1},
    };
    for (const auto &c : cases) {
        set_i2c_register(board(), "/dev/i2c-1", 0x1a, 0x05, c.codec);
        set_i2c_register(board(), "/dev/i2c-3", 0x51, 0x02, c.rtc);
        set_i2c_register(board(), "/dev/i2c-3", 0x68, 0x0f, c.clock);
        EXPECT_EQ(bi_i2c_get_audio_state(0), c.codec_state) << int(c.codec);
        EXPECT_EQ(bi_i2c_get_rtc_state(0), c.rtc_state) << int(c.rtc);
        EXPECT_EQ(bi_i2c_get_clock_chip_state(0), c.clock_state) << int(c.clock);
    }
    EXPECT_TRUE(logged("E/vexa_system_bi_i2c: bi_i2c_get_audio_state:audio_index is 0, test failed!"));
    EXPECT_TRUE(logged("I/vexa_system_bi_i2c: bi_i2c_get_rtc_state: reg_addr = 0x2, reg_val = 0x7f"));
}

TEST_F(CodecTest, ChipsOtherThanZeroAreStillReadAndFail)
{
    EXPECT_EQ(bi_i2c_get_rtc_state(1), -1);
    EXPECT_EQ(board().log_lines(),
              (std::vector<std::string>{"E/vexa_system_bi_i2c: bi_i2c_get_rtc_state: not support index = 1",
                                        "E/vexa_system_bi_i2c: bi_i2c_get_rtc_state: read dev_addr: 0x0 "
                                        "reg_addr: 0x0 failed!"}));
    configure("i2c_clock_0_device", std::string("0"));
    EXPECT_EQ(bi_i2c_get_clock_chip_state(0), -1);
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_i2c: bi_i2c_get_clock_chip_state:"
                                          "i2c_clock_0_device is not set, need to set in ini file.");
}

} // namespace
