// Several writers of one environment partition: stores in other processes
// and other stores of the same process, each with its own copy in memory.
#define VEXASDK_UBOOTENV_SHORT_NAMES
#include "vexasdk/Ubootenv.h"

#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "env_support.h"

using ::testing::Contains;
using ::testing::Not;
using vexa::sim::env::default_env_entries;

namespace vexa::test {
namespace {

class UbootenvWritersTest : public EnvTest {};

// Writer w's value in round r: no two writers or rounds share one.
std::string value_of(int writer, int round) { return std::to_string(1000 * (writer + 1) + round); }

TEST_F(UbootenvWritersTest, FourProcessesUpdatingAtOnceAllKeepTheirLastValue)
{
    constexpr int kWriters = 4;
    constexpr int kRounds = 60;
    // The writers start together, once all are forked: a child forked
    // while the host (this process) holds another child's descriptor of the
    // partition would hold that descriptor's lock for its whole life.
    int start[2];
    ASSERT_EQ(pipe(start), 0);
    std::vector<pid_t> children;
    for (int w = 0; w < kWriters; ++w) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(start[1]);
            char go;
            if (read(start[0], &go, 1) != 0)
                _exit(2);
            // Each process reads the partition once, then keeps updating
            // its own variable while the others update theirs.
            Ubootenv env;
            const std::string name = "ubootenv.var.writer" + std::to_string(w);
            int failed = 0;
            for (int r = 0; r < kRounds; ++r)
                failed += env.updateValue(name.c_str(), value_of(w, r).c_str()) != 0;
            _exit(failed == 0 ? 0 : 1);
        }
        children.push_back(child);
    }
    close(start[0]);
    close(start[1]); // go
    for (pid_t child : children) {
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a writer's update failed";
    }

    auto expected = default_env_entries();
    Ubootenv fresh;
    for (int w = 0; w < kWriters; ++w) {
        const std::string name = "writer" + std::to_string(w);
        EXPECT_STREQ(fresh.get(name.c_str()), value_of(w, kRounds - 1).c_str()) << name;
    }
    EXPECT_EQ(copy_at(0), copy_at(65536));
    EXPECT_EQ(copy_at(0).size(), expected.size() + kWriters);
}

TEST_F(UbootenvWritersTest, AStoreUpdatesFromWhatTheOthersSaved)
{
    Ubootenv first;
    Ubootenv second;
    // A value pointer handed out before another store's save.
    const char *delay = second.getValue("ubootenv.var.bootdelay");
    ASSERT_NE(delay, nullptr);

    EXPECT_EQ(first.updateValue("ubootenv.var.bootdelay", "7"), 0);
    EXPECT_EQ(first.updateValue("ubootenv.var.from_first", "a"), 0);
    EXPECT_EQ(second.updateValue("ubootenv.var.from_second", "b"), 0);

    // The second store did not save its old bootdelay over the first's, and
    // its entry took the new value in place.
    EXPECT_STREQ(delay, "7");
    Ubootenv fresh;
    EXPECT_STREQ(fresh.getValue("ubootenv.var.bootdelay"), "7");
    EXPECT_STREQ(fresh.getValue("ubootenv.var.from_first"), "a");
    EXPECT_STREQ(fresh.getValue("ubootenv.var.from_second"), "b");

    // Setting what another writer already saved writes nothing.
    const std::string before = board().read_file(kDevice);
    EXPECT_EQ(second.updateValue("ubootenv.var.from_first", "a"), 0);
    EXPECT_EQ(board().read_file(kDevice), before);
}

TEST_F(UbootenvWritersTest, AVariableAnotherWriterRemovedStaysRemoved)
{
    Ubootenv env;
    const char *baudrate = env.getValue("ubootenv.var.baudrate");
    ASSERT_STREQ(baudrate, "1500000");

    // Another tool (fw_setenv) removes the first variable and baudrate.
    std::vector<std::string> kept;
    for (auto &entry : default_env_entries())
        if (entry.rfind("arch=", 0) != 0 && entry.rfind("baudrate=", 0) != 0)
            kept.push_back(entry);
    write_partition(kept);

    EXPECT_EQ(env.updateValue("ubootenv.var.after", "1"), 0);
    kept.push_back("after=1");
    EXPECT_EQ(copy_at(0), kept);
    EXPECT_EQ(copy_at(65536), kept);
    EXPECT_EQ(env.getValue("ubootenv.var.baudrate"), nullptr);
    // The pointer handed out earlier still points at the old text.
    EXPECT_STREQ(baudrate, "1500000");
}

TEST_F(UbootenvWritersTest, NamesHoldingAnEqualsSignAreRefused)
{
    Ubootenv env;
    const std::string before = board().read_file(kDevice);
    board().clear_log();

    EXPECT_EQ(env.updateValue("ubootenv.var.bootdelay=9;reset", "x"), -1);
    EXPECT_EQ(env_log().back(), "E/Ubootenv: [Ubootenv.cpp, updateValue, N] [ubootenv] "
                                "ubootenv.var.bootdelay=9;reset is not a valid variable name: it holds '='");
    EXPECT_EQ(env.set("bootdelay=9", "x", true), 0);
    EXPECT_EQ(env.get("bootdelay=9"), nullptr);
    EXPECT_EQ(env.updateValue("ubootenv.var.=", "x"), -1);
    EXPECT_EQ(board().read_file(kDevice), before);

    // The exported store refuses the same names.
    testing::internal::CaptureStdout();
    ubootenv_init();
    const int rc = ubootenv_update_value("ubootenv.var.bootdelay=9;reset", "x");
    const std::string printed = testing::internal::GetCapturedStdout();
    ubootenv_destroy();
    EXPECT_EQ(rc, -1);
    EXPECT_NE(printed.find("[ubootenv] ubootenv.var.bootdelay=9;reset is not a valid variable name: "
                           "it holds '='\n"),
              std::string::npos);
    EXPECT_EQ(board().read_file(kDevice), before);
    EXPECT_THAT(copy_at(0), Not(Contains("bootdelay=9;reset=x")));
}

} // namespace
} // namespace vexa::test
