// vexactl's progress bar: what one line shows for a job's state. (That the
// bar is drawn on a terminal only, after a second, and off standard output
// is checked end to end by progress_test.py.)
#include "tools/vexactl/progress.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace vexactl {
// The bar's stream, which vexactl's main provides.
FILE *errors() { return stderr; }
} // namespace vexactl

namespace {

using vexactl::amount_text;
using vexactl::BarState;
using vexactl::render_bar;

TEST(ProgressBar, LinesOfEveryKindOfState)
{
    struct Case {
        BarState state;
        const char *line;
    };
    const Case cases[] = {
        {{"write", 0, 250, "blocks", "", 1.0},
         "write    [                              ]   0%  0/250 blocks  1.0 s"},
        {{"write", 83, 250, "blocks", "", 1.26},
         "write    [#########                     ]  33%  83/250 blocks  1.3 s"},
        {{"verify", 250, 250, "blocks", "2 failed", 4.0},
         "verify   [##############################] 100%  250/250 blocks, 2 failed  4.0 s"},
        // More done than the total (a counter that overshoots) stays a full bar.
        {{"write", 300, 250, "blocks", "", 2.0},
         "write    [##############################] 100%  300/250 blocks  2.0 s"},
        {{"compress", 3 << 20, 12 << 20, "bytes", "", 2.5},
         "compress [#######                       ]  25%  3.0 MiB of 12.0 MiB  2.5 s"},
        // Without a total: a mark that moves four steps a second, to and fro.
        {{"compress", 1536, 0, "bytes", "", 1.0},
         "compress [    <=>                       ]  1.5 KiB  1.0 s"},
        {{"compress", 1536, 0, "bytes", "", 7.0},
         "compress [                          <=> ]  1.5 KiB  7.0 s"},
        {{"compress", 1536, 0, "bytes", "", 7.5},
         "compress [                        <=>   ]  1.5 KiB  7.5 s"},
        // Without a unit nothing is counted: only the time, and a note.
        {{"connect", 0, 0, "", "", 1.0}, "connect  [    <=>                       ]  1.0 s"},
        {{"version", 0, 0, "", "try 3 of 10", 2.0}, "version  [        <=>                   ]  try 3 of 10  2.0 s"},
        // A long phase name is kept whole.
        {{"stopping-tools", 0, 0, "", "", 1.0}, "stopping-tools [    <=>                       ]  1.0 s"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(render_bar(c.state), c.line) << c.state.phase << " " << c.state.done << "/" << c.state.total;
}

TEST(ProgressBar, AmountsInTheirUnits)
{
    const std::pair<uint64_t, const char *> bytes[] = {
        {0, "0 bytes"},          {1023, "1023 bytes"},   {1024, "1.0 KiB"},
        {1536, "1.5 KiB"},       {(5u << 20) + (1u << 19), "5.5 MiB"},
        {3ull << 30, "3.0 GiB"}, {5ull << 40, "5.0 TiB"}, {5ull << 50, "5120.0 TiB"},
    };
    for (auto [value, text] : bytes)
        EXPECT_EQ(amount_text(value, "bytes"), text) << value;
    EXPECT_EQ(amount_text(1536, "blocks"), "1536 blocks");
    EXPECT_EQ(amount_text(7, ""), "7");
}

} // namespace
