// vexactl's progress bar: what one line shows for a job's state, and how
// the bar shares a terminal with messages. (That it is drawn on standard
// error only when that is a terminal, and never on standard output, is
// checked end to end by streams_test.py.)
#include "tools/vexactl/progress.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>

#include "tools/vexactl/command.h"

namespace vexactl {
// vexactl's standard error, which its main provides: here a terminal of
// the test's own when it sets one.
FILE *g_test_errors = stderr;
FILE *errors() { return g_test_errors; }
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

// A message printed while the bar is drawn starts a line of its own, and
// the bar goes on below it; nothing is drawn before the first second.
TEST(ProgressBar, AMessageBreaksTheBarsLine)
{
    int main_fd = -1, side_fd = -1;
    ASSERT_EQ(::openpty(&main_fd, &side_fd, nullptr, nullptr, nullptr), 0);
    FILE *side = ::fdopen(side_fd, "w");
    ASSERT_NE(side, nullptr);
    std::setvbuf(side, nullptr, _IONBF, 0);
    vexactl::g_test_errors = side;
    auto take = [&] {
        std::string text;
        char buf[4096];
        ::fcntl(main_fd, F_SETFL, O_NONBLOCK);
        for (ssize_t n; (n = ::read(main_fd, buf, sizeof buf)) > 0;)
            text.append(buf, static_cast<size_t>(n));
        return text;
    };
    {
        vexactl::Context ctx;
        vexactl::Progress bar(ctx, "write", 4, "blocks");
        ASSERT_TRUE(bar.shown());
        bar.set(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        EXPECT_EQ(take(), "") << "drawn before a second had passed";
        std::string screen;
        for (int i = 0; i < 200 && screen.empty(); ++i) { // the first draw, after the second
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            screen = take();
        }
        vexactl::break_progress_line();
        std::fputs("vexactl: a message\n", side);
        bar.set(4);
        bar.finish();
        screen += take();
        // The terminal shows each newline as a carriage return and a newline.
        const std::string between = "\r\nvexactl: a message\r\n";
        const size_t message = screen.find(between);
        ASSERT_NE(message, std::string::npos) << screen;
        EXPECT_EQ(screen.substr(0, 47), "\rwrite    [#######                       ]  25%") << screen;
        const std::string after = screen.substr(message + between.size());
        EXPECT_EQ(after.substr(0, 47), "\rwrite    [##############################] 100%") << screen;
        EXPECT_EQ(after.substr(after.size() - 2), "\r\n") << screen;
    }
    vexactl::g_test_errors = stderr;
    std::fclose(side);
    ::close(main_fd);
}

} // namespace
