#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <cstring>
#include <string>

#include "display_fixture.h"
#include "sim/partitions/partitions.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
namespace parts = sim::partitions;

uint32_t word(const std::string &bytes, size_t at)
{
    uint32_t v;
    memcpy(&v, bytes.data() + at, 4);
    return v;
}

uint32_t crc_of(const std::string &bytes, size_t len)
{
    return uint32_t(crc32(0L, reinterpret_cast<const Bytef *>(bytes.data()), uInt(len)));
}

class ResolutionTest : public DisplayTest {
protected:
    std::string item(int n)
    {
        const std::string path = parts::vendor_item_path(n);
        return board().exists(path) ? board().read_file(path) : std::string();
    }
    std::string baseparameter() { return board().read_file(parts::kBaseparameter); }
    std::string block_at(size_t offset) { return baseparameter().substr(offset, DISP_INFO_SIZE); }

    // The timing words of a display block must match the record, with a
    // valid CRC over the block.
    void expect_block_holds(const std::string &block, const ResolutionTiming &t)
    {
        ASSERT_EQ(block.size(), size_t(DISP_INFO_SIZE));
        const uint32_t words[] = {t.clock,    t.hdisplay,    t.hsync_start, t.hsync_end,
                                  t.htotal,   t.vdisplay,    t.vsync_start, t.vsync_end,
                                  t.vtotal,   t.vrefresh};
        for (size_t i = 0; i < 10; ++i)
            EXPECT_EQ(word(block, 16 + 4 * i), words[i]) << "word " << i;
        EXPECT_EQ(word(block, DISP_INFO_SIZE - 4), crc_of(block, DISP_INFO_SIZE - 4));
    }

    static ResolutionRecord sealed(ResolutionTiming t)
    {
        ResolutionRecord r{t, 0};
        r.crc = uint32_t(crc32(0L, reinterpret_cast<const Bytef *>(&r.timing), 44));
        return r;
    }
};

const ResolutionTiming k1024x600{RESOLUTION_TIMING_MAGIC, 43973, 1024, 1072, 1104, 1184,
                                 600, 603, 613, 619, 60};

TEST_F(ResolutionTest, SavingWritesItemAndHdmiBlockWithValidCrcs)
{
    const std::string dp_before = block_at(45056);
    st_bi_sffe_resolution r{};
    ASSERT_EQ(bi_resolution_calculate_parameters(1280, 720, 1, &r), 1);
    EXPECT_EQ(r.width, 1280u);
    EXPECT_EQ(r.height, 720u);
    EXPECT_EQ(r.refresh, 60u);
    EXPECT_EQ(r.status, 1);

    // Preset 1, its placeholder check word replaced by the CRC.
    const std::string saved = item(45);
    ASSERT_EQ(saved.size(), 48u);
    EXPECT_EQ(saved.substr(0, 4), "OSER");
    EXPECT_EQ(word(saved, 4), 74250u);
    EXPECT_EQ(word(saved, 20), 1650u);
    EXPECT_EQ(word(saved, 44), crc_of(saved, 44));
    ResolutionTiming t;
    memcpy(&t, saved.data(), sizeof(t));
    expect_block_holds(block_at(4096), t);
    EXPECT_EQ(block_at(45056), dp_before) << "only the HDMI block is written";
    EXPECT_EQ(board().property("vendor.display.resolution.state"), "true");
    EXPECT_THAT(resolution_log(),
                Contains("E/vexa_system_bi_resolution: Select preset resolution"));
}

TEST_F(ResolutionTest, RecordWithOneChangedByteIsRefusedAndWritesNothing)
{
    const std::string before = baseparameter();
    ResolutionRecord r = sealed(k1024x600);
    ResolutionRecord tampered = r;
    reinterpret_cast<uint8_t *>(&tampered)[9] ^= 0x01;
    EXPECT_EQ(saveResolutionToEmmc(&tampered), -1);
    tampered = r;
    tampered.timing.magic = 0x52455350;
    tampered.crc = sealed(tampered.timing).crc;
    EXPECT_EQ(saveResolutionToEmmc(&tampered), -1) << "a sealed record needs the magic too";
    EXPECT_EQ(item(45), "");
    EXPECT_EQ(baseparameter(), before);

    DisResolutionRecord ext{RESOLUTION_TIMING_MAGIC, {1, 2, 3}, 0};
    ext.crc = uint32_t(crc32(0L, reinterpret_cast<const Bytef *>(&ext), 48));
    ext.payload[4] = 9;
    EXPECT_EQ(saveDisResolutionToEmmc(&ext), -1);
    EXPECT_EQ(item(47), "");
    ext.crc = uint32_t(crc32(0L, reinterpret_cast<const Bytef *>(&ext), 48));
    EXPECT_EQ(saveDisResolutionToEmmc(&ext), 0);
    EXPECT_EQ(item(47).size(), 52u);

    ASSERT_EQ(saveResolutionToEmmc(&r), 0);
    EXPECT_EQ(item(45).size(), 48u);
    expect_block_holds(block_at(4096), k1024x600);
}

TEST_F(ResolutionTest, BlockGoesToTheFirstHdmiConnectorZero)
{
    // Connector 1 of HDMI-A comes before connector 0, which is the fourth entry.
    const std::vector<parts::Connector> table = {{parts::kConnectorDp, 0, 4096},
                                                 {parts::kConnectorHdmiA, 1, 45056},
                                                 {parts::kConnectorDp, 1, 86016},
                                                 {parts::kConnectorHdmiA, 0, 126976},
                                                 {parts::kConnectorHdmiA, 0, 167936}};
    rebuild(sim::Board::Builder().file(parts::kBaseparameter,
                                       parts::make_baseparameter(table, 1 << 20)));
    bi_init_product_config();
    const std::string before = baseparameter();
    const ResolutionRecord r = sealed(k1024x600);
    ASSERT_EQ(saveResolutionToEmmc(&r), 0);
    const std::string after = baseparameter();
    expect_block_holds(after.substr(126976, DISP_INFO_SIZE), k1024x600);
    EXPECT_EQ(after.substr(0, 126976), before.substr(0, 126976));
    EXPECT_EQ(after.substr(126976 + DISP_INFO_SIZE), before.substr(126976 + DISP_INFO_SIZE));
}

TEST_F(ResolutionTest, PartitionProblemsAreReportedButTheItemIsKept)
{
    struct Case {
        std::string image;
        const char *printed;
    };
    const Case cases[] = {
        {parts::make_baseparameter({{parts::kConnectorDp, 0, 4096}}, 1 << 20),
         "no connector_type and connector_id found\n"},
        {std::string(50, '\0'), "fail to read\n"},
    };
    for (const Case &c : cases) {
        rebuild(sim::Board::Builder().file(parts::kBaseparameter, c.image));
        bi_init_product_config();
        const ResolutionRecord r = sealed(k1024x600);
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(saveResolutionToEmmc(&r), 0);
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_THAT(out, HasSubstr(c.printed));
        EXPECT_EQ(item(45).size(), 48u);
        EXPECT_EQ(baseparameter(), c.image);
    }

    rebuild(sim::Board::Builder());
    bi_init_product_config();
    board().remove_file(parts::kBaseparameter);
    EXPECT_EQ(getBaseparameterFile(), nullptr);
    const ResolutionRecord r = sealed(k1024x600);
    EXPECT_EQ(saveResolutionToEmmc(&r), 0);
    EXPECT_EQ(item(45).size(), 48u);
}

TEST_F(ResolutionTest, BaseparameterPathsAreTriedInOrder)
{
    EXPECT_STREQ(getBaseparameterFile(), "/dev/block/by-name/baseparameter");
    board().write_file("/dev/block/rknand_baseparameter", "");
    EXPECT_STREQ(getBaseparameterFile(), "/dev/block/rknand_baseparameter");
    board().write_file("/dev/block/platform/1021c000.dwmmc/by-name/baseparameter", "");
    EXPECT_STREQ(getBaseparameterFile(), "/dev/block/platform/1021c000.dwmmc/by-name/baseparameter");
}

TEST_F(ResolutionTest, SavedResolutionReadsBackInANewProcess)
{
    st_bi_sffe_resolution r{};
    ASSERT_EQ(bi_resolution_calculate_parameters(1024, 600, 1, &r), 1);
    ASSERT_EQ(r.status, 1);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // A fresh process on the same board: only the partition remembers.
        bi_init_product_config();
        st_bi_sffe_resolution got{};
        const int32_t ret = bi_resolution_get_parameters(&got);
        const int32_t words[5] = {ret, int32_t(got.width), int32_t(got.height),
                                  int32_t(got.refresh), got.status};
        const ssize_t ignored = write(fds[1], words, sizeof(words));
        (void)ignored;
        _exit(0);
    }
    close(fds[1]);
    int32_t words[5] = {};
    EXPECT_EQ(read(fds[0], words, sizeof(words)), ssize_t(sizeof(words)));
    close(fds[0]);
    waitpid(child, nullptr, 0);
    EXPECT_THAT(words, ElementsAre(0, int32_t(r.width), int32_t(r.height), int32_t(r.refresh), 1));
}

TEST_F(ResolutionTest, RequestsOutsideTheProductLimitsGetTheirStatus)
{
    st_bi_sffe_resolution r{};
    use_product("4097"); // a product without a row: the 38467 limits apply
    EXPECT_EQ(bi_resolution_calculate_parameters(300, 600, 0, &r), -2);
    EXPECT_EQ(r.status, -2);
    EXPECT_EQ(r.refresh, 60u);
    EXPECT_THAT(resolution_log(),
                Contains("E/vexa_system_bi_resolution: Product border: 38467, 480, 2048, 480, "
                         "2048, 2300000, 164000"));

    EXPECT_EQ(bi_resolution_calculate_parameters(2048, 2048, 0, &r), -1);
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(r.height, 1u) << "the height limit over the width";
    EXPECT_THAT(resolution_log(),
                Contains("E/vexa_system_bi_resolution: Resolution bandwidth over load!"));

    use_product("38432"); // 153 MHz limit; with save 1 the area is not checked
    EXPECT_EQ(bi_resolution_calculate_parameters(1920, 1200, 1, &r), -3);
    EXPECT_EQ(r.status, -3);
    EXPECT_EQ(r.width, 1920u);
    EXPECT_EQ(item(45).size(), 48u) << "saved even when over the clock limit";
    EXPECT_THAT(resolution_log(),
                Contains("E/vexa_system_bi_resolution: Resolution pcolock over load!"));

    use_product("38444"); // fixed clock: the height follows from the width
    EXPECT_EQ(bi_resolution_calculate_parameters(1920, 1189, 0, &r), -1);
    EXPECT_EQ(r.height, 1144u);
    EXPECT_THAT(resolution_log(),
                Contains("E/vexa_system_bi_resolution: Resolution height over load!"));

    use_product("0");
    EXPECT_EQ(bi_resolution_calculate_parameters(1920, 1080, 0, &r), -1);
    EXPECT_THAT(resolution_log(),
                ElementsAre("E/vexa_system_bi_resolution: getProductModel: mod_id not found",
                            "E/vexa_system_bi_resolution: bi_resolution_calculate_parameters, "
                            "product modID is null"));
}

TEST_F(ResolutionTest, CalculatedTimingLogsAndUsesTheAlternativeAtTheLimit)
{
    use_product("38448"); // CVT-RB, then CVT-RB2 from 594 MHz
    st_bi_sffe_resolution r{};
    ASSERT_EQ(bi_resolution_calculate_parameters(4096, 2304, 1, &r), 1);
    ResolutionTiming t;
    memcpy(&t, item(45).data(), sizeof(t));
    EXPECT_EQ(t.htotal, 4096u + 80) << "CVT-RB2 blanking";
    EXPECT_THAT(resolution_log(), Contains("D/vexa_system_bi_resolution: " + std::string(81, '=')));

    board().clear_log();
    ASSERT_EQ(bi_resolution_calculate_parameters(1023, 600, 0, &r), 1);
    EXPECT_EQ(r.width, 1024u) << "sizes are rounded up to even";
    EXPECT_THAT(resolution_log(),
                Contains("E/vexa_system_bi_resolution: First calculate_parameters: 43980 1024 "
                         "1072 1104 1184 600 603 613 619 60"));
}

TEST_F(ResolutionTest, FpsVariantNeedsABorderRowAndMatchesPresetsByRate)
{
    st_bi_sffe_resolution r{};
    use_product("4097");
    EXPECT_EQ(bi_resolution_calculate_parameters_fps(1920, 1080, 60, 0, &r), -1);
    EXPECT_THAT(resolution_log(), ElementsAre("E/vexa_system_bi_resolution: No match modID:4097"));

    use_product("38448");
    ASSERT_EQ(bi_resolution_calculate_parameters_fps(1920, 1080, 50, 1, &r), 1);
    EXPECT_EQ(r.refresh, 50u);
    EXPECT_EQ(VRate, 50000);
    EXPECT_THAT(resolution_log(),
                Contains("D/vexa_system_bi_resolution: custom resolution width:1920 height:1080 "
                         "fps:50"));
    EXPECT_THAT(resolution_log(), Contains("I/vexa_system_bi_resolution: save resolution success!"));

    board().clear_log();
    ASSERT_EQ(bi_resolution_calculate_parameters_fps(1920, 1080, 60, 0, &r), 1);
    EXPECT_THAT(resolution_log(), Contains("E/vexa_system_bi_resolution: Select preset resolution"));
}

TEST_F(ResolutionTest, UltraWideScreensAreSplitWhenEnabled)
{
    use_product("38432");
    st_bi_sffe_resolution r{};
    EXPECT_EQ(bi_resolution_calculate_parameters(8000, 270, 1, &r), -2);
    EXPECT_THAT(resolution_log(),
                ElementsAre("E/vexa_system_bi_resolution: bi_resolution_calculate_parameters: is "
                            "ultra screen!",
                            "E/vexa_system_bi_resolution: calculate_ultra_resolution_parameters: "
                            "ultra screen is disabled"));

    board().set_property("persist.vexa.ultra_screen.enable", "1");
    ASSERT_EQ(bi_resolution_calculate_parameters(8000, 270, 1, &r), 1);
    EXPECT_EQ(r.width, 8000u);
    EXPECT_EQ(r.height, 270u);
    EXPECT_EQ(r.refresh, 60u);
    const std::string split = item(47);
    ASSERT_EQ(split.size(), 52u);
    EXPECT_EQ(word(split, 4), 8000u);
    EXPECT_EQ(word(split, 12), 2000u); // part width
    EXPECT_EQ(word(split, 16), 4u);    // factor
    EXPECT_EQ(word(split, 20), 1080u); // stacked height
    EXPECT_EQ(word(split, 48), crc_of(split, 48));
    ResolutionTiming t;
    memcpy(&t, item(45).data(), sizeof(t));
    EXPECT_EQ(t.hdisplay, 2000u);
    EXPECT_EQ(t.vdisplay, 1080u);

    // Stacked higher than the product's outputs.
    EXPECT_EQ(bi_resolution_calculate_parameters(5000, 1080, 0, &r), -2);
}

TEST_F(ResolutionTest, EdidForAModelTakesTheStandardTiming)
{
    uint8_t edid[256];
    ASSERT_EQ(bi_resolution_get_edid_by_model(1920, 1080, 60.0f, edid), 0);
    DetailedTiming t;
    ASSERT_EQ(edid_parse_dtd(edid + 54, &t), 1);
    EXPECT_EQ(t.pixel_clock, 148500000u);
    EXPECT_EQ(t.h_sync_offset, 88);
    EXPECT_EQ(ResT_verify_EDID(edid), 0);

    st_bi_sffe_resolution mode{};
    ASSERT_EQ(bi_resolution_get_prefferred_timing_by_edid(edid, &mode), 0);
    EXPECT_EQ(mode.width, 1920u);
    EXPECT_EQ(mode.height, 1080u);
    EXPECT_EQ(mode.refresh, 60u);
    EXPECT_EQ(mode.status, 1);

    ASSERT_EQ(bi_resolution_get_edid_by_model(4096, 2160, 60.0f, edid), 0);
    EXPECT_EQ(memcmp(edid, default_edid, 256), 0);
    EXPECT_THAT(resolution_log(),
                Contains("D/vexa_system_bi_resolution: bi_resolution_get_edid_by_model: "
                         "width(4096) > 4095 or height(2160) > 4095, use template as EDID from "
                         "defined"));

    board().clear_log();
    EXPECT_EQ(bi_resolution_get_edid_by_model(1920, 1080, 60.0f, nullptr), -1);
    EXPECT_EQ(bi_resolution_get_prefferred_timing_by_edid(nullptr, &mode), -1);
    EXPECT_THAT(resolution_log(),
                ElementsAre("D/vexa_system_bi_resolution: bi_resolution_get_edid_by_model: is called",
                            "E/vexa_system_bi_resolution: bi_resolution_get_edid_by_model: edid "
                            "pointer is NULL",
                            "D/vexa_system_bi_resolution: "
                            "bi_resolution_get_prefferred_timing_by_edid: is called",
                            "E/vexa_system_bi_resolution: "
                            "bi_resolution_get_prefferred_timing_by_edid: invalid edid_data or "
                            "eff is NULL"));
}

TEST_F(ResolutionTest, AutoModeClearsTheSavedResolutionOfKeepingProducts)
{
    // The default product keeps none: nothing is read or written.
    EXPECT_EQ(bi_resolution_get_display_type(), 0);
    EXPECT_EQ(bi_resolution_set_auto_mode(), 0);
    EXPECT_EQ(item(45), "");

    use_product("38448");
    EXPECT_EQ(bi_resolution_get_display_type(), 1);
    EXPECT_EQ(bi_resolution_get_display_mode(), 0);
    st_bi_sffe_resolution r{};
    ASSERT_EQ(bi_resolution_calculate_parameters(1024, 600, 1, &r), 1);
    EXPECT_EQ(bi_resolution_get_display_type(), 0);
    EXPECT_EQ(bi_resolution_get_display_mode(), 1);
    EXPECT_EQ(bi_resolution_set_auto_mode(), 0);
    EXPECT_EQ(bi_resolution_get_display_type(), 1);
    EXPECT_EQ(bi_resolution_get_display_mode(), 0);
}

TEST_F(ResolutionTest, VendorStorageNodeKeepsItemsUpToSixtyFourBytes)
{
    const char text[] = "vexa";
    ASSERT_EQ(vexaSetVendorStorage(30, text, sizeof(text)), 0);
    char back[64] = {};
    ASSERT_EQ(vexaGetVendorStorage(30, sizeof(back), back), 0);
    EXPECT_STREQ(back, "vexa");
    EXPECT_EQ(item(30), std::string(text, sizeof(text)));

    uint8_t big[65] = {};
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(vexaSetVendorStorage(31, big, sizeof(big)), -1);
    EXPECT_EQ(vexaGetVendorStorage(32, 16, back), -1);
    board().inject(sim::Fault::on("open").at("/dev/vendor_storage").once());
    EXPECT_EQ(vexaGetVendorStorage(30, 16, back), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "error in saving data to vendor ID:31.\nerror get vendor ID:32 data .\n"
              "vendor_storage open fail .\n");
}

TEST_F(ResolutionTest, SavedParametersAreReadAsStoredEvenWithABadCrc)
{
    std::string image = baseparameter();
    image[4096 + 16] = char(0x11); // clock word changed, CRC not
    board().write_file(parts::kBaseparameter, image);
    ResolutionRecord r;
    ::testing::internal::CaptureStdout();
    getSaveParameterInfo(&r);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "crc32 error\n");
    EXPECT_EQ(r.timing.magic, 0u);
    EXPECT_EQ(r.crc, 0u);
    EXPECT_EQ(r.timing.clock, (148500u & ~0xffu) | 0x11u);
    EXPECT_EQ(r.timing.hdisplay, 1920u);
    EXPECT_EQ(r.timing.vrefresh, 60u);
}

TEST_F(ResolutionTest, ListHoldsTheSavedModeAndTheOtherPresets)
{
    // The default board's block holds 1920x1080 at 60 Hz, preset 0.
    st_bi_sffe_resolution list[BI_RESOLUTION_LIST_MAX];
    ASSERT_EQ(bi_resolution_get_parameters_list(list), 15);
    EXPECT_EQ(list[0].width, 1920u);
    EXPECT_EQ(list[1].width, 1280u);
    EXPECT_EQ(list[14].height, 3380u);

    const ResolutionRecord r = sealed(k1024x600);
    ASSERT_EQ(saveResolutionToEmmc(&r), 0);
    ASSERT_EQ(bi_resolution_get_parameters_list(list), 16);
    EXPECT_EQ(list[0].width, 1024u);
    EXPECT_EQ(list[0].status, 1);

    board().write_file(parts::kBaseparameter, std::string(1 << 20, '\0'));
    EXPECT_EQ(bi_resolution_get_parameters_list(list), 15) << "nothing saved";
}

} // namespace
} // namespace vexa::test
