// The board's fault knobs: one table, values that are board state, and
// settings taken all or none.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/board_fixture.h"

namespace vexa::test {
namespace {

using ::testing::ElementsAre;

class KnobTest : public BoardTest {
protected:
    void SetUp() override
    {
        BoardTest::SetUp();
        board().add_knob({"lamp.mode", "on|off|blink", "blink: the lamp blinks", "on", {},
                          [this](const std::string &value) { changes.push_back(value); }});
        board().add_knob({"lamp.rate", "HZ", "the blink rate", "", sim::Knob::number(1, 50)});
        board().add_knob({"lamp.dead", "N,...", "dead segments", "",
                          sim::Knob::list_of(sim::Knob::number(0, 7))});
    }

    sim::KnobRow row(const std::string &name)
    {
        for (const auto &r : board().knobs())
            if (r.name == name)
                return r;
        ADD_FAILURE() << "no knob " << name;
        return {};
    }

    std::vector<std::string> changes;
};

TEST_F(KnobTest, ListsEveryKnobWithItsInitialValue)
{
    const auto mode = row("lamp.mode");
    EXPECT_EQ(mode.value, "on");
    EXPECT_EQ(mode.takes, "on|off|blink");
    EXPECT_EQ(mode.help, "blink: the lamp blinks");
    EXPECT_FALSE(mode.set);
    EXPECT_EQ(row("lamp.rate").value, "");
    EXPECT_EQ(board().knob("lamp.mode"), "on");
    EXPECT_EQ(board().knob("no.such"), "");
}

TEST_F(KnobTest, SetsAndClearsAndTellsTheModelOfEachChange)
{
    ASSERT_EQ(board().set_knob("lamp.mode", "blink"), 0);
    EXPECT_EQ(board().knob("lamp.mode"), "blink");
    EXPECT_TRUE(row("lamp.mode").set);
    EXPECT_EQ(board().read_file("/.board/knobs"), "lamp.mode=blink\n");
    ASSERT_EQ(board().set_knob("lamp.mode", "blink"), 0); // no change: no call
    ASSERT_EQ(board().set_knob("lamp.mode", ""), 0);
    EXPECT_EQ(board().knob("lamp.mode"), "on");
    EXPECT_FALSE(row("lamp.mode").set);
    EXPECT_THAT(changes, ElementsAre("blink", "on"));
}

TEST_F(KnobTest, RefusesWhatAKnobDoesNotTakeAndSetsNoneOfTheBatch)
{
    struct Case {
        const char *name, *value;
        int error;
    } cases[] = {
        {"lamp.mode", "banana", EINVAL}, {"lamp.mode", "On", EINVAL}, {"lamp.rate", "0", EINVAL},
        {"lamp.rate", "51", EINVAL},     {"lamp.rate", "5x", EINVAL}, {"lamp.rate", "-3", EINVAL},
        {"lamp.dead", "1,,2", EINVAL},   {"lamp.dead", "8", EINVAL},  {"lamp.nope", "1", ENOENT},
        {"lamp", "on", ENOENT},
    };
    for (const Case &c : cases) {
        std::string refused;
        errno = 0;
        EXPECT_EQ(board().set_knobs({{"lamp.rate", "7"}, {c.name, c.value}}, &refused), -1) << c.name << c.value;
        EXPECT_EQ(errno, c.error) << c.name << "=" << c.value;
        EXPECT_EQ(refused, std::string(c.name) + "=" + c.value);
        EXPECT_EQ(board().knob("lamp.rate"), "") << "the batch was taken in part";
    }
    EXPECT_EQ(board().set_knobs({{"lamp.rate", "0x10"}, {"lamp.dead", "0,7"}}), 0);
    EXPECT_EQ(board().knob("lamp.rate"), "0x10");
    EXPECT_EQ(board().knob("lamp.dead"), "0,7");
    EXPECT_TRUE(changes.empty());
}

TEST_F(KnobTest, AnotherProcessSetsWhatTheHostSees)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int failed = 0;
        if (board().hosting() || board().set_knob("lamp.mode", "off") != 0)
            failed |= 1;
        if (board().set_knob("lamp.mode", "dim") != -1 || errno != EINVAL)
            failed |= 2;
        if (board().knobs().size() < 3)
            failed |= 4;
        _exit(failed);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "bit 1 set, 2 refusal, 4 list";
    EXPECT_EQ(board().knob("lamp.mode"), "off");
    EXPECT_THAT(changes, ElementsAre("off"));
}

} // namespace
} // namespace vexa::test
