#include <string>

#include "display_fixture.h"
#include "sim/partitions/partitions.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

class TimingJsonTest : public DisplayTest {
protected:
    void write_json(const std::string &text) { board().write_file(sim::partitions::kResolutionJson, text); }
    static std::string product(int id, const std::string &extra = "")
    {
        return "{\"modID\": " + std::to_string(id) +
               ", \"min_hdisplay\": 480, \"max_hdisplay\": 4096, \"min_vidsplay\": 480, "
               "\"max_vidsplay\": 4096, \"bandwidth\": 8847360, \"pclock\": 594" +
               extra + "}";
    }
    const char *path() { return sim::partitions::kResolutionJson; }
};

TEST_F(TimingJsonTest, EntriesTakeDefaultsAndScaleTheClock)
{
    write_json("{\"products\": [" + product(7) +
               ", {\"modID\": 8, \"calculate_type\": \"cvtrb2 with a name longer than "
               "thirty-five characters\", \"bandwidth\": \"wide\"}]}");
    ProductResolutionConfig entries[PRODUCT_RESOLUTION_CONFIG_MAX];
    ASSERT_EQ(parse_config(path(), entries), 2);
    EXPECT_STREQ(entries[0].calculate_type, "cvtrb");
    EXPECT_EQ(entries[0].modID, 7u);
    EXPECT_EQ(entries[0].pclock, 594000u);
    EXPECT_EQ(entries[0].max_vidsplay, 4096u);
    EXPECT_STREQ(entries[1].calculate_type, "cvtrb2 with a name longer than thir");
    EXPECT_EQ(entries[1].bandwidth, 0u) << "a wrongly typed member counts as 0";
}

TEST_F(TimingJsonTest, BadFilesAreRefusedWithTheirCodes)
{
    ProductResolutionConfig entries[PRODUCT_RESOLUTION_CONFIG_MAX];
    struct Case {
        const char *text;
        int32_t code;
        const char *message;
    };
    const Case cases[] = {
        {"{\"products\": {}}", -4, "无效的JSON格式: 'products' 不是数组\n"},
        {"{\"products\": [", -3, "JSON解析错误: "},
        {"{\"products\": []}", 0, ""},
        {"{\"products\": [{\"min_hdisplay\": 9, \"max_hdisplay\": 8}]}", 1,
         "警告: 产品 #1 水平分辨率范围无效\n"},
    };
    for (const Case &c : cases) {
        write_json(c.text);
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(parse_config(path(), entries), c.code) << c.text;
        EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr(c.message));
    }
    board().remove_file(path());
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(parse_config(path(), entries), -1);
    EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("Failed to open file"));
}

TEST_F(TimingJsonTest, AtMostFiftyProductsAreKept)
{
    std::string text = "{\"products\": [";
    for (int i = 0; i < 60; ++i)
        text += (i ? ", " : "") + product(i + 1);
    write_json(text + "]}");
    ProductResolutionConfig entries[PRODUCT_RESOLUTION_CONFIG_MAX];
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(parse_config(path(), entries), 50);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "警告: 已达到最大配置数量(50)，忽略多余配置\n");
    EXPECT_EQ(entries[49].modID, 50u);
}

TEST_F(TimingJsonTest, RunningProductGetsItsCvtTiming)
{
    st_bi_sffe_resolution r{};
    ASSERT_EQ(bi_timming_calculate_parameters(1921, 1080, 0, 0, &r), 0);
    EXPECT_EQ(r.width, 1922u) << "computed at an even width";
    EXPECT_EQ(r.height, 1080u);
    EXPECT_EQ(r.refresh, 60u);
    EXPECT_EQ(r.status, 1);
    const auto log = resolution_log();
    EXPECT_THAT(log, Contains("E/vexa_system_bi_resolution: fps is invalid, fps:0, redefine to 60"));
    EXPECT_THAT(log, Contains("I/vexa_system_bi_resolution: bi_timming_calculate_parameters modID = 38432"));
    EXPECT_THAT(log, Contains("I/vexa_system_bi_resolution:   Maximum Pixel Clock:    594000 MHz"));
    EXPECT_THAT(log, Contains("D/vexa_system_bi_resolution: calculate_cvtrb_timming type: cvtrb"));
    EXPECT_EQ(board().exists("/.board/vendor_storage/45"), false) << "not saved";
}

TEST_F(TimingJsonTest, UnknownProductFailsTheRangeTest)
{
    write_json("{\"products\": {}}");
    st_bi_sffe_resolution r{};
    EXPECT_EQ(bi_timming_calculate_parameters(1920, 1080, 60, 0, &r), -2);
    EXPECT_EQ(r.status, -2);
    EXPECT_THAT(resolution_log(),
                Contains("E/vexa_system_bi_resolution: bi_timming_calculate_parameters failed"));
}

TEST_F(TimingJsonTest, LimitsGiveTheirStatusesAndSaveStoresTheRecord)
{
    ProductResolutionConfig e{"cvtrb", 1, 480, 2048, 480, 2048, 2300000, 100000};
    st_bi_sffe_resolution r{};
    EXPECT_EQ(bi_timming_calculate_json(2048, 2048, 60, 0, &r, e), -1);
    EXPECT_EQ(r.height, 1u);
    EXPECT_EQ(bi_timming_calculate_json(1920, 1080, 60, 0, &r, e), -3);
    EXPECT_EQ(r.width, 1920u);
    EXPECT_THAT(resolution_log(), Contains("E/vexa_system_bi_resolution: Resolution pcolock over load!"));

    e.pclock = 594000;
    ASSERT_EQ(bi_timming_calculate_json(1920, 1080, 50, 1, &r, e), 1);
    EXPECT_EQ(r.refresh, 50u);
    EXPECT_THAT(resolution_log(), Contains("I/vexa_system_bi_resolution: save resolution success!"));
    EXPECT_TRUE(board().exists("/.board/vendor_storage/45"));

    st_bi_sffe_resolution mode{};
    ASSERT_EQ(bi_timming_get_parameters(&mode), 0);
    EXPECT_EQ(mode.width, 1920u);
    EXPECT_EQ(mode.height, 1080u);
    EXPECT_EQ(mode.refresh, 0u) << "the block's refresh word read as millihertz";
    EXPECT_EQ(mode.status, 1);
}

} // namespace
} // namespace vexa::test
