// vexactl's log filter against logcat's rules: the first spec that names a
// tag decides, others fall to the default.
#include <gtest/gtest.h>

#include "tools/vexactl/log_filter.h"

namespace vexactl {
namespace {

// What passes of one record of each priority (V D I W E F) of a tag.
std::string passing(const LogFilter &filter, const std::string &tag)
{
    std::string letters;
    for (int p = 2; p <= 7; ++p)
        letters += filter.passes(tag, p) ? "VDIWEF"[p - 2] : '.';
    return letters;
}

TEST(LogFilter, EachPriorityLetterIsItsLevel)
{
    const std::pair<const char *, int> letters[] = {{"V", 2}, {"D", 3}, {"I", 4}, {"W", 5},
                                                    {"E", 6}, {"F", 7}, {"S", 8}};
    for (auto [letter, level] : letters)
        EXPECT_EQ(LogFilter::priority(letter), level) << letter;
    for (const char *bad : {"", "w", "X", "WE", "3"})
        EXPECT_FALSE(LogFilter::priority(bad)) << bad;
}

TEST(LogFilter, WithoutSpecsEverythingPasses)
{
    EXPECT_EQ(passing(LogFilter(), "any"), "VDIWEF");
}

TEST(LogFilter, ASpecSetsItsTagsLevelAndLeavesTheOthers)
{
    LogFilter filter;
    ASSERT_TRUE(filter.add("vexa_system_bi_led:W"));
    ASSERT_TRUE(filter.add("Ubootenv"));
    EXPECT_EQ(passing(filter, "vexa_system_bi_led"), "...WEF");
    EXPECT_EQ(passing(filter, "Ubootenv"), "VDIWEF");
    EXPECT_EQ(passing(filter, "vexa_system_bi_common"), "VDIWEF");
}

TEST(LogFilter, TheDefaultComesFromStarOrSilence)
{
    LogFilter star;
    ASSERT_TRUE(star.add("*:E"));
    ASSERT_TRUE(star.add("vexa_system_bi_led:D"));
    EXPECT_EQ(passing(star, "other"), "....EF");
    EXPECT_EQ(passing(star, "vexa_system_bi_led"), ".DIWEF");

    LogFilter silent;
    silent.silence();
    ASSERT_TRUE(silent.add("vexa_system_bi_led:I"));
    EXPECT_EQ(passing(silent, "other"), "......");
    EXPECT_EQ(passing(silent, "vexa_system_bi_led"), "..IWEF");
    ASSERT_TRUE(silent.add("vexa_system_bi_led:S")); // a later spec of the same tag does not count
    EXPECT_EQ(passing(silent, "vexa_system_bi_led"), "..IWEF");
}

TEST(LogFilter, ASpecThatIsNotOneChangesNothing)
{
    LogFilter filter;
    for (const char *bad : {"", ":W", "tag:", "tag:X", "tag:WE", "*:w"})
        EXPECT_FALSE(filter.add(bad)) << bad;
    EXPECT_EQ(passing(filter, "tag"), "VDIWEF");
}

} // namespace
} // namespace vexactl
