// The log daemon's configuration, compressing and clearing its logs on the
// board's files.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include "support/board_fixture.h"
#include "vexasdk/system.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using vexa::sim::Fault;

namespace vexa::test {
namespace {

const char kTag[] = "vexa_system_bi_vexa_logd";

vexa_logd_config_t record(const char *level, const char *base, const char *mode, const char *total,
                          const char *once)
{
    vexa_logd_config_t c{};
    std::snprintf(c.level, sizeof c.level, "%s", level);
    std::snprintf(c.base, sizeof c.base, "%s", base);
    std::snprintf(c.mode, sizeof c.mode, "%s", mode);
    std::snprintf(c.total_size, sizeof c.total_size, "%s", total);
    std::snprintf(c.once_size, sizeof c.once_size, "%s", once);
    return c;
}

class LogdTest : public BoardTest {
protected:
    std::vector<std::string> logd_log() { return log_of(kTag); }
    std::string prop(const std::string &field) { return board().property("persist.vendor.vexa_logd." + field); }
    std::vector<std::string> errors()
    {
        std::vector<std::string> lines;
        for (const auto &line : logd_log())
            if (line.rfind("E/", 0) == 0)
                lines.push_back(line);
        return lines;
    }

    // Entry names of a board directory.
    std::set<std::string> entries(const std::string &dir)
    {
        std::set<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(board().host_path(dir)))
            names.insert(entry.path().filename().string());
        return names;
    }

    // The members the host's tar lists in a board archive.
    std::vector<std::string> tar_members(const std::string &archive)
    {
        const std::string command = "tar -tzf '" + board().host_path(archive) + "' 2>&1";
        std::vector<std::string> members;
        if (FILE *pipe = ::popen(command.c_str(), "r")) {
            char line[512];
            while (std::fgets(line, sizeof line, pipe)) {
                members.emplace_back(line);
                members.back().pop_back();
            }
            ::pclose(pipe);
        }
        return members;
    }
};

TEST_F(LogdTest, SetWritesEachFilledFieldToItsProperty)
{
    EXPECT_EQ(bi_vexa_logd_set_configure(record("debug", "/data/logs", "net", "1G", "5M")), 0);
    EXPECT_EQ(prop("level"), "debug");
    EXPECT_EQ(prop("base"), "/data/logs");
    EXPECT_EQ(prop("mode"), "net");
    EXPECT_EQ(prop("total_size"), "1G");
    EXPECT_EQ(prop("once_size"), "5M");

    EXPECT_EQ(bi_vexa_logd_set_configure(record("", "", "file", "", "")), 0);
    EXPECT_EQ(prop("mode"), "file");
    EXPECT_EQ(prop("level"), "debug") << "empty fields leave their property";
    EXPECT_EQ(prop("once_size"), "5M");
}

TEST_F(LogdTest, SetStopsAtTheFirstFailedWrite)
{
    board().inject(Fault::on("property_set").at("persist.vendor.vexa_logd.base").returns(-7));
    board().clear_log();
    EXPECT_EQ(bi_vexa_logd_set_configure(record("error", "/x", "net", "2G", "9M")), -7);
    EXPECT_EQ(prop("level"), "error");
    EXPECT_EQ(prop("mode"), "file") << "later fields stay unwritten";
    EXPECT_EQ(prop("once_size"), "10M");
    EXPECT_THAT(logd_log(), ElementsAre("D/vexa_system_bi_vexa_logd: bi_vexa_logd_set_configure is called",
                                        "E/vexa_system_bi_vexa_logd: set persist.vendor.vexa_logd.base failed"));
}

TEST_F(LogdTest, SetRefusesAFieldWithoutItsEnd)
{
    vexa_logd_config_t c = record("", "", "net", "", "");
    std::memset(c.total_size, 'x', sizeof c.total_size);
    EXPECT_EQ(bi_vexa_logd_set_configure(c), -1);
    EXPECT_EQ(prop("mode"), "net");
    EXPECT_EQ(prop("total_size"), "100M");
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_vexa_logd: bi_vexa_logd_set_configure: "
                                      "persist.vendor.vexa_logd.total_size is not terminated within 8 bytes"));
}

TEST_F(LogdTest, GetReadsTheFivePropertiesAndReturnsTheLastLength)
{
    vexa_logd_config_t c;
    std::memset(&c, 0x55, sizeof c);
    EXPECT_EQ(bi_vexa_logd_get_configure(&c), 3);
    EXPECT_STREQ(c.level, "info");
    EXPECT_STREQ(c.base, "/syslog/logs");
    EXPECT_STREQ(c.mode, "file");
    EXPECT_STREQ(c.total_size, "100M");
    EXPECT_STREQ(c.once_size, "10M");
    EXPECT_EQ(c.level[7], 0) << "the record starts all zero";

    board().set_property("persist.vendor.vexa_logd.once_size", "");
    board().set_property("persist.vendor.vexa_logd.level", "verbose");  // 7 characters: fits
    board().set_property("persist.vendor.vexa_logd.mode", std::string(63, 'm'));
    board().set_property("persist.vendor.vexa_logd.total_size", "1000000M"); // 8: does not
    board().clear_log();
    EXPECT_EQ(bi_vexa_logd_get_configure(&c), 0);
    EXPECT_STREQ(c.level, "verbose");
    EXPECT_EQ(std::string(c.mode), std::string(63, 'm'));
    EXPECT_STREQ(c.total_size, "");
    EXPECT_STREQ(c.once_size, "");
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_vexa_logd: bi_vexa_logd_get_configure: "
                                      "persist.vendor.vexa_logd.total_size is 8 characters, too long for its "
                                      "8-byte field"));
    EXPECT_EQ(bi_vexa_logd_get_configure(nullptr), -1);
}

TEST_F(LogdTest, CompressingTheSystemLogsStopsTheToolsAndMakesARealArchive)
{
    std::filesystem::create_directories(board().host_path("/sdcard"));
    board().clear_log();
    const uint64_t before = board().now_ns();
    EXPECT_EQ(bi_vexa_logd_compress("/syslog/logs", "/sdcard/logs.tar.gz"), 0);
    EXPECT_GE(board().now_ns() - before, 2000000000u) << "the tools get two seconds";
    EXPECT_EQ(board().property("sys.video_tools.state"), "true");
    EXPECT_EQ(board().property("sys.display_tools.state"), "true");
    EXPECT_THAT(board().commands(), ElementsAre("/system/bin/tar -zcf /sdcard/logs.tar.gz /syslog/logs",
                                                "/system/bin/chmod 666 /sdcard/logs.tar.gz"));
    EXPECT_THAT(tar_members("/sdcard/logs.tar.gz"),
                ElementsAre("syslog/logs/", "syslog/logs/kernel/", "syslog/logs/kernel/kmsg_0001.log",
                            "syslog/logs/main_0001.log", "syslog/logs/main_0002.log", "syslog/logs/main_0003.log"));
    struct stat st {};
    ASSERT_EQ(::stat(board().host_path("/sdcard/logs.tar.gz").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    EXPECT_THAT(logd_log(), ElementsAre("D/vexa_system_bi_vexa_logd: bi_vexa_logd_compress is called",
                                        "D/vexa_system_bi_vexa_logd: VexaCompress: cmd[/system/bin/tar -zcf "
                                        "/sdcard/logs.tar.gz /syslog/logs]"));
}

TEST_F(LogdTest, CompressingAnotherDirectoryLeavesTheToolsAlone)
{
    board().write_file("/data/vexa/logs/a.log", "a\n");
    const uint64_t before = board().now_ns();
    EXPECT_EQ(bi_vexa_logd_compress("/data/vexa/logs", "/data/vexa/a.tgz"), 0);
    EXPECT_LT(board().now_ns() - before, 2000000000u);
    EXPECT_EQ(board().property("sys.video_tools.state"), "");
    EXPECT_EQ(board().property("sys.display_tools.state"), "");
    EXPECT_THAT(tar_members("/data/vexa/a.tgz"), ElementsAre("data/vexa/logs/", "data/vexa/logs/a.log"));
}

TEST_F(LogdTest, ANameBeyondAsciiIsCompressed)
{
    board().write_file("/data/\xc3\xa9t\xc3\xa9/a.log", "a\n");
    EXPECT_EQ(bi_vexa_logd_compress("/data/\xc3\xa9t\xc3\xa9", "/data/\xc3\xa9t\xc3\xa9.tgz"), 0);
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(tar_members("/data/\xc3\xa9t\xc3\xa9.tgz"),
                ElementsAre("data/\xc3\xa9t\xc3\xa9/", "data/\xc3\xa9t\xc3\xa9/a.log"));
}

TEST_F(LogdTest, AFailedTarStillReturnsZeroButIsLogged)
{
    EXPECT_EQ(bi_vexa_logd_compress("/syslog/missing", "/data/m.tgz"), 0);
    EXPECT_THAT(board().commands(), ElementsAre("/system/bin/tar -zcf /data/m.tgz /syslog/missing"));
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_vexa_logd: bi_vexa_logd_compress: tar of /syslog/missing "
                                      "into /data/m.tgz failed (exit 2)"));
}

TEST_F(LogdTest, CompressChecksItsArgumentsInOrder)
{
    EXPECT_EQ(bi_vexa_logd_compress(nullptr, nullptr), -2);
    EXPECT_EQ(bi_vexa_logd_compress("/syslog/logs", nullptr), -3);
    // 600 + 400 characters, or 998: nothing is run, and the result is still 0.
    const std::string dir = "/d" + std::string(598, 'd');
    EXPECT_EQ(bi_vexa_logd_compress(dir.c_str(), ("/a" + std::string(398, 'a')).c_str()), 0);
    EXPECT_EQ(bi_vexa_logd_compress(dir.c_str(), ("/a" + std::string(396, 'a')).c_str()), 0);
    const std::string fits = "/a" + std::string(395, 'a');
    EXPECT_EQ(bi_vexa_logd_compress(dir.c_str(), fits.c_str()), 0);
    EXPECT_THAT(board().commands(), ElementsAre("/system/bin/tar -zcf " + fits + " " + dir));
}

TEST_F(LogdTest, PathsThatAreNotPlainAbsolutePathsNeverReachTheShell)
{
    board().write_file("/syslog/logs/keep", "");
    const char *bad[] = {"/syslog/logs;reboot", "-rf", "/", "//", "/.", "/syslog/../vendor",
                         "syslog/logs", "/syslog/logs $(reboot)", ""};
    for (const char *path : bad) {
        board().clear_log();
        EXPECT_EQ(bi_vexa_logd_compress(path, "/data/x.tgz"), -1) << path;
        EXPECT_EQ(bi_vexa_logd_compress("/syslog/logs", path), -1) << path;
        EXPECT_EQ(bi_vexa_logd_clear(path), -1) << path;
        EXPECT_EQ(errors().size(), 3u) << path;
    }
    EXPECT_THAT(board().commands(), IsEmpty());
    EXPECT_TRUE(board().exists("/syslog/logs/keep"));
    EXPECT_EQ(board().property("sys.video_tools.state"), "");
    board().clear_log();
    bi_vexa_logd_clear("/");
    bi_vexa_logd_compress("/syslog/a;b", "/x");
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_vexa_logd: bi_vexa_logd_clear: refusing path \"/\": it "
                                      "names \"/\"",
                                      "E/vexa_system_bi_vexa_logd: bi_vexa_logd_compress: refusing path "
                                      "\"/syslog/a;b\": it holds shell metacharacters"));
}

TEST_F(LogdTest, ClearSparesExactlyTheCurrentFile)
{
    board().write_file("/syslog/logs/old_main_0003.log", "a decoy: longer than the current name\n");
    board().write_file("/syslog/logs/main_0003.log.1", "");
    board().clear_log();
    EXPECT_EQ(bi_vexa_logd_clear("/syslog/logs"), 0);
    EXPECT_THAT(entries("/syslog/logs"), ElementsAre("main_0003.log"));
    EXPECT_EQ(board().read_file("/syslog/logs/main_0003.log"), "01-01 10:00:00.000 I/player: playing item 3\n");
    EXPECT_THAT(board().commands(), UnorderedElementsAre("/system/bin/rm -r /syslog/logs/main_0001.log",
                                                         "/system/bin/rm -r /syslog/logs/main_0002.log",
                                                         "/system/bin/rm -r /syslog/logs/kernel",
                                                         "/system/bin/rm -r /syslog/logs/old_main_0003.log",
                                                         "/system/bin/rm -r /syslog/logs/main_0003.log.1"));
    const auto lines = logd_log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "D/vexa_system_bi_vexa_logd: VexaClearFile execute delete cmd"), 5);
}

TEST_F(LogdTest, ClearFailures)
{
    board().clear_log();
    EXPECT_EQ(bi_vexa_logd_clear("/syslog/nothing"), -4);
    EXPECT_THAT(logd_log(), ElementsAre("D/vexa_system_bi_vexa_logd: bi_vexa_logd_clear is called",
                                        "D/vexa_system_bi_vexa_logd: VexaClearFile Open /syslog/nothing Erorr!"));
    const std::string long_dir = "/" + std::string(1004, 'd');
    EXPECT_EQ(bi_vexa_logd_clear(long_dir.c_str()), -2);
    EXPECT_EQ(bi_vexa_logd_clear(long_dir.substr(0, 1004).c_str()), -4);

    board().write_file("/data/one/only.log", "");
    board().inject(Fault::on("system").at("/system/bin/rm -r /data/one/only.log").returns(1 << 8));
    EXPECT_EQ(bi_vexa_logd_clear("/data/one"), -5);
    EXPECT_THAT(errors(), Contains("E/vexa_system_bi_vexa_logd: bi_vexa_logd_clear: /system/bin/rm -r "
                                   "/data/one/only.log failed (exit 1)"));

    board().set_property("persist.vendor.vexa_logd.path", "");
    board().clear_log();
    EXPECT_EQ(bi_vexa_logd_clear("/syslog/logs"), -1);
    EXPECT_THAT(logd_log(), ElementsAre("D/vexa_system_bi_vexa_logd: bi_vexa_logd_clear is called",
                                        "D/vexa_system_bi_vexa_logd: VexaClearFile Erorr!"));
    EXPECT_EQ(entries("/syslog/logs").size(), 4u);
}

TEST_F(LogdTest, ClearWithAShortCurrentPathTakesItWhole)
{
    board().set_property("persist.vendor.vexa_logd.path", "main_0001.log"); // exactly 13
    EXPECT_EQ(bi_vexa_logd_clear("/syslog/logs"), 0);
    EXPECT_THAT(entries("/syslog/logs"), ElementsAre("main_0001.log"));
    board().set_property("persist.vendor.vexa_logd.path", "a.log");
    EXPECT_EQ(bi_vexa_logd_clear("/syslog/logs"), 0);
    EXPECT_THAT(entries("/syslog/logs"), IsEmpty());
}

TEST_F(LogdTest, ClearLeavesAnEntryTheShellWouldMisreadAndSaysSo)
{
    board().write_file("/syslog/logs/x;reboot", "");
    board().write_file("/syslog/logs/a b.log", "");
    board().clear_commands();
    // The other entries go, whatever order the folder lists them in; the
    // two that stay make it -5.
    EXPECT_EQ(bi_vexa_logd_clear("/syslog/logs"), -5);
    EXPECT_THAT(entries("/syslog/logs"), UnorderedElementsAre("main_0003.log", "x;reboot", "a b.log"));
    EXPECT_THAT(board().commands(), UnorderedElementsAre("/system/bin/rm -r /syslog/logs/main_0001.log",
                                                         "/system/bin/rm -r /syslog/logs/main_0002.log",
                                                         "/system/bin/rm -r /syslog/logs/kernel"));
    EXPECT_THAT(errors(), UnorderedElementsAre("E/vexa_system_bi_vexa_logd: bi_vexa_logd_clear: refusing path "
                                               "\"/syslog/logs/x;reboot\": it holds shell metacharacters",
                                               "E/vexa_system_bi_vexa_logd: bi_vexa_logd_clear: refusing path "
                                               "\"/syslog/logs/a b.log\": it holds shell metacharacters"));
}

} // namespace
} // namespace vexa::test
