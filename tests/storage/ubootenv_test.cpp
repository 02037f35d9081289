#include "vexasdk/Ubootenv.h"

#include <zlib.h>

#include <cstdio>

#include "env_support.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;
using vexa::sim::Fault;
using vexa::sim::env::default_env_entries;
using vexa::sim::env::make_env_image;
using vexa::sim::env::make_env_partition;

namespace vexa::test {
namespace {

class UbootenvTest : public EnvTest {};

std::string hex_crc(const std::string &image)
{
    char text[16];
    std::snprintf(text, sizeof text, "%08lx",
                  crc32(0L, reinterpret_cast<const Bytef *>(image.data() + 4), 65532));
    return text;
}

int count_of(const std::vector<std::string> &lines, const std::string &line)
{
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

TEST_F(UbootenvTest, LoadsTheDefaultBoardsEnvironment)
{
    Ubootenv env;
    EXPECT_STREQ(env.getValue("ubootenv.var.baudrate"), "1500000");
    EXPECT_STREQ(env.get("devtype"), "mmc");
    EXPECT_THAT(env_log(),
                ElementsAre("I/Ubootenv: [Ubootenv.cpp, init, N] [ubootenv] using "
                            "/dev/block/by-name/env with size(65536) (65532)",
                            "E/Ubootenv: [Ubootenv.cpp, propertyLoad, N] [ubootenv] set property count: 0"));

    // The level property, read for every message, filters them.
    board().clear_log();
    board().set_property("persist.vendor.sc.log.level", "5");
    env.reInit();
    EXPECT_THAT(env_log(),
                ElementsAre("E/Ubootenv: [Ubootenv.cpp, propertyLoad, N] [ubootenv] set property count: 0"));
    board().set_property("persist.vendor.sc.log.level", "7");
    write_partition({"a=1", "b=two"});
    env.reInit();
    EXPECT_THAT(env_log(), ElementsAre("E/Ubootenv: [Ubootenv.cpp, propertyLoad, N] [ubootenv] set property count: 0"));
    EXPECT_EQ(env.getValue("ubootenv.var.baudrate"), nullptr);
    int last = 0;
    EXPECT_EQ(dumped([&](int fd) { last = env.dump(fd); }),
              "[ubootenv] key: [a], value: [1]\n[ubootenv] key: [b], value: [two]\n");
    EXPECT_EQ(last, static_cast<int>(std::string("[ubootenv] key: [b], value: [two]\n").size()));
}

TEST_F(UbootenvTest, PicksTheFirstDeviceThatExists)
{
    rebuild(sim::Board::Builder()
                .file("/dev/nand_env", make_env_partition({"dev=nand"}))
                .file("/dev/block/env", make_env_partition({"dev=block"}))
                .file("/dev/block/by-name/env", make_env_partition({"dev=byname"}))
                .file("/dev/block/by-name/ubootenv", make_env_image({"dev=ubootenv"}, 131072)));
    const std::pair<const char *, const char *> order[] = {{"/dev/nand_env", "nand"},
                                                           {"/dev/block/env", "block"},
                                                           {"/dev/block/by-name/env", "byname"},
                                                           {"/dev/block/by-name/ubootenv", "ubootenv"}};
    for (const auto &[path, dev] : order) {
        Ubootenv env;
        EXPECT_STREQ(env.getValue("ubootenv.var.dev"), dev) << path;
        board().remove_file(path);
    }
    // The by-name "ubootenv" device takes its image size from MEMGETINFO.
    EXPECT_TRUE(env_logged("I/Ubootenv: [Ubootenv.cpp, init, N] [ubootenv] using "
                           "/dev/block/by-name/ubootenv with size(131072) (131068)"));

    board().clear_log();
    Ubootenv none;
    EXPECT_EQ(none.init(), -2);
    EXPECT_TRUE(env_logged("E/Ubootenv: [Ubootenv.cpp, init, N] [ubootenv] read  failed "));
}

TEST_F(UbootenvTest, UbootenvDeviceFailuresAreReported)
{
    const char *mtd = "/dev/block/by-name/ubootenv";
    rebuild(sim::Board::Builder().file(mtd, make_env_image({"dev=ubootenv"}, 131072)));
    board().remove_file(kDevice);

    board().inject(Fault::on("ioctl").at(mtd));
    Ubootenv env;
    EXPECT_EQ(env.init(), -3);
    EXPECT_TRUE(env_logged("E/Ubootenv: [Ubootenv.cpp, init, N] [ubootenv] get MTD info error"));

    board().clear_faults();
    board().inject(Fault::on("open").at(mtd));
    EXPECT_EQ(env.init(), -2);
    EXPECT_TRUE(env_logged("E/Ubootenv: [Ubootenv.cpp, init, N] [ubootenv] open device("
                           "/dev/block/by-name/ubootenv) error"));
}

TEST_F(UbootenvTest, UbootenvDeviceSavesWithinItsSize)
{
    const char *mtd = "/dev/block/by-name/ubootenv";
    rebuild(sim::Board::Builder().file(mtd, make_env_image({"dev=ubootenv"}, 131072)));
    board().remove_file(kDevice);
    Ubootenv env;
    // The image fills the device: the second copy runs into its end and is cut.
    EXPECT_EQ(env.updateValue("ubootenv.var.dev", "changed"), 0);
    EXPECT_EQ(board().read_file(mtd).size(), 131072u);
    Ubootenv fresh;
    EXPECT_STREQ(fresh.getValue("ubootenv.var.dev"), "changed");
}

TEST_F(UbootenvTest, BadFirstCopyFallsBackToTheSecond)
{
    std::string first = make_env_image({"k=first"});
    const std::string stored = hex_crc(first);
    first[10] = 'X';
    board().write_file(kDevice, first + make_env_image({"k=second"}));

    Ubootenv env;
    EXPECT_STREQ(env.getValue("ubootenv.var.k"), "second");
    EXPECT_THAT(env_log(), Contains("E/Ubootenv: [Ubootenv.cpp, readPartitionData, N] [ubootenv] CRC Check "
                                    "SYS_LOGE save_crc=" + stored + ", crcCalc = " + hex_crc(first) + " "));
    EXPECT_THAT(env_log(), Contains("I/Ubootenv: [Ubootenv.cpp, readPartitionData, N] first env error, "
                                    "try second...."));

    // A short second copy is taken as it stands, over what the first left.
    board().write_file(kDevice, first + make_env_image({"k=short"}).substr(0, 100));
    EXPECT_EQ(env.reInit(), 0);
    EXPECT_STREQ(env.getValue("ubootenv.var.k"), "short");

    // A short first copy is reported with the count that arrived.
    board().write_file(kDevice, make_env_image({"k=tiny"}).substr(0, 0x64));
    EXPECT_EQ(env.reInit(), 0);
    EXPECT_THAT(env_log(), Contains("E/Ubootenv: [Ubootenv.cpp, readPartitionData, N] [ubootenv] read error "
                                    "0x64 "));
}

TEST_F(UbootenvTest, BothCopiesBadLeavesTheStoreUninitialised)
{
    std::string image = make_env_image({"k=v"});
    image[8] = 'X';
    board().write_file(kDevice, image + image);
    Ubootenv env;
    board().clear_log();

    EXPECT_EQ(env.init(), -2);
    const auto lines = env_log();
    EXPECT_EQ(count_of(lines, "E/Ubootenv: [Ubootenv.cpp, init, N] [ubootenv] Cannot read "
                              "/dev/block/by-name/env: -3."),
              5);
    EXPECT_EQ(lines.back(), "E/Ubootenv: [Ubootenv.cpp, init, N] [ubootenv] read /dev/block/by-name/env failed ");

    board().clear_log();
    EXPECT_EQ(env.getValue("ubootenv.var.k"), nullptr);
    EXPECT_EQ(env.updateValue("ubootenv.var.k", "w"), -1);
    EXPECT_THAT(env_log(), ElementsAre("E/Ubootenv: [Ubootenv.cpp, get, N] [ubootenv] don't init done",
                                       "E/Ubootenv: [Ubootenv.cpp, updateValue, N] [ubootenv] bootenv do not init"));
}

TEST_F(UbootenvTest, ReadThatSucceedsOnlyOnTheFifthAttemptIsNotTrusted)
{
    Fault four = Fault::on("open").at(kDevice);
    four.times = 4;
    board().inject(four);
    Ubootenv late;
    EXPECT_EQ(late.getValue("ubootenv.var.baudrate"), nullptr);
    EXPECT_EQ(count_of(env_log(), "E/Ubootenv: [Ubootenv.cpp, readPartitionData, N] [ubootenv] open devices "
                                  "error: Input/output error"),
              4);
    EXPECT_TRUE(env_logged("E/Ubootenv: [Ubootenv.cpp, init, N] [ubootenv] read /dev/block/by-name/env failed "));

    board().clear_faults();
    Fault three = Fault::on("open").at(kDevice);
    three.times = 3;
    board().inject(three);
    Ubootenv fourth;
    EXPECT_STREQ(fourth.getValue("ubootenv.var.baudrate"), "1500000");
}

TEST_F(UbootenvTest, UpdateRewritesBothCopiesAndAppendsNewKeys)
{
    Ubootenv env;
    EXPECT_EQ(env.updateValue("ubootenv.var.bootdelay", "3"), 0);
    EXPECT_EQ(env.updateValue("ubootenv.var.bootcmd", "run x"), 0);
    EXPECT_EQ(env.updateValue("ubootenv.var.aaa_new", "x"), 0);

    auto expected = default_env_entries();
    for (auto &entry : expected) {
        if (entry.rfind("bootdelay=", 0) == 0)
            entry = "bootdelay=3";
        if (entry.rfind("bootcmd=", 0) == 0)
            entry = "bootcmd=run x";
    }
    expected.push_back("aaa_new=x");
    EXPECT_EQ(copy_at(0), expected);
    EXPECT_EQ(copy_at(65536), expected);
    EXPECT_TRUE(env_logged("I/Ubootenv: [Ubootenv.cpp, updateValue, N] [ubootenv] update value name "
                           "[ubootenv.var.bootdelay]: value [3] "));
    EXPECT_TRUE(env_logged("E/Ubootenv: [Ubootenv.cpp, updateValue, N] [ubootenv] Save ubootenv to "
                           "/dev/block/by-name/env succeed!"));

    Ubootenv fresh;
    EXPECT_STREQ(fresh.getValue("ubootenv.var.aaa_new"), "x");
}

TEST_F(UbootenvTest, NamesWithoutThePrefixAreNotVariables)
{
    Ubootenv env;

    EXPECT_FALSE(env.isEnv(nullptr));
    EXPECT_FALSE(env.isEnv(""));
    EXPECT_FALSE(env.isEnv("ubootenv.var."));
    EXPECT_FALSE(env.isEnv("ubootenv.va.x"));
    EXPECT_TRUE(env.isEnv("ubootenv.var.x"));

    board().clear_log();
    EXPECT_EQ(env.updateValue("bootdelay", "1"), -2);
    EXPECT_EQ(env.updateValue("ubootenv.var.", "1"), -2);
    EXPECT_TRUE(env_logged("E/Ubootenv: [Ubootenv.cpp, updateValue, N] [ubootenv] bootdelay is not a "
                           "ubootenv variable."));

    board().clear_log();
    EXPECT_EQ(env.getValue("bootdelay"), nullptr);
    const auto lines = env_log();
    ASSERT_EQ(lines.size(), 1 + default_env_entries().size());
    EXPECT_EQ(lines[0], "E/Ubootenv: [Ubootenv.cpp, getValue, N] [ubootenv] bootdelay is not a ubootenv "
                        "variable and need prefix:ubootenv.var.xxx");
    EXPECT_EQ(lines[1], "I/Ubootenv: [Ubootenv.cpp, printValues, N] [ubootenv] key: [arch], value: [arm]");

    EXPECT_EQ(env.set("arch", "arm64", false), 2);
    EXPECT_EQ(env.set("nokey", "1", false), 0);
    EXPECT_EQ(env.set("nokey", "1", true), 1);
    EXPECT_STREQ(env.get("nokey"), "1");
    // Setting the current value writes nothing; an absent one reads as "".
    board().inject(Fault::on("open").at(kDevice));
    EXPECT_EQ(env.updateValue("ubootenv.var.baudrate", "1500000"), 0);
    EXPECT_EQ(env.updateValue("ubootenv.var.absent", ""), 0);
}

TEST_F(UbootenvTest, EntriesOfTwoCharactersAreDroppedAtSave)
{
    Ubootenv env;
    ASSERT_EQ(env.updateValue("ubootenv.var.a", "1"), 0);
    EXPECT_EQ(env.updateValue("ubootenv.var.a", ""), 0);
    EXPECT_THAT(copy_at(0), Not(Contains("a=")));
    EXPECT_EQ(copy_at(0), default_env_entries());
    EXPECT_TRUE(env_logged("E/Ubootenv: [Ubootenv.cpp, formatAttribute, N] [ubootenv] Invalid env data "
                           "key:a, value:"));
}

TEST_F(UbootenvTest, FailedSavesAreRetriedFiveTimes)
{
    Ubootenv env;
    board().inject(Fault::on("write").at(kDevice));
    EXPECT_EQ(env.updateValue("ubootenv.var.bootdelay", "5"), -3);
    const auto lines = env_log();
    EXPECT_EQ(count_of(lines, "E/Ubootenv: [Ubootenv.cpp, updateValue, N] [ubootenv] Cannot write "
                              "/dev/block/by-name/env: -3."),
              5);
    EXPECT_EQ(count_of(lines, "E/Ubootenv: [Ubootenv.cpp, save, N] [ubootenv] SYS_LOGE write, size 65536 "), 5);

    board().clear_faults();
    board().inject(Fault::on("open").at(kDevice));
    EXPECT_EQ(env.updateValue("ubootenv.var.bootdelay", "6"), -1);
    EXPECT_TRUE(env_logged("E/Ubootenv: [Ubootenv.cpp, save, N] [ubootenv] open devices error"));
}

TEST_F(UbootenvTest, SaveThatSucceedsOnTheFifthAttemptIsNotAnnounced)
{
    Ubootenv env;
    Fault four = Fault::on("write").at(kDevice);
    four.times = 4; // a failed write ends its save: the first four saves fail
    board().inject(four);
    EXPECT_EQ(env.updateValue("ubootenv.var.bootdelay", "7"), 0);
    const auto lines = env_log();
    EXPECT_EQ(count_of(lines, "E/Ubootenv: [Ubootenv.cpp, updateValue, N] [ubootenv] Cannot write "
                              "/dev/block/by-name/env: -3."),
              4);
    EXPECT_EQ(count_of(lines, "E/Ubootenv: [Ubootenv.cpp, updateValue, N] [ubootenv] Save ubootenv to "
                              "/dev/block/by-name/env succeed!"),
              0);
    EXPECT_THAT(copy_at(65536), Contains("bootdelay=7"));
}

TEST_F(UbootenvTest, OversizedFieldsAreCutAndMalformedEntriesKeptEmpty)
{
    const std::string long_key(300, 'k');
    write_partition({long_key + "=v", "novalue", "long=" + std::string(5000, 'x'), "ok=1"});
    Ubootenv env;
    EXPECT_STREQ(env.get(std::string(255, 'k').c_str()), "v");
    EXPECT_EQ(std::string(env.get("long")), std::string(4095, 'x'));
    EXPECT_STREQ(env.get("ok"), "1");
    EXPECT_TRUE(env_logged("E/Ubootenv: [Ubootenv.cpp, parseAttribute, N] [ubootenv] error need '=' skip "
                           "this value"));

    // The empty entry left by "novalue" is dropped when the data is rebuilt.
    ASSERT_EQ(env.updateValue("ubootenv.var.ok", "2"), 0);
    EXPECT_EQ(copy_at(0), (std::vector<std::string>{std::string(255, 'k') + "=v",
                                                    "long=" + std::string(4095, 'x'), "ok=2"}));
}

TEST_F(UbootenvTest, DataAreaWithoutTerminatorOrWithTrailingGarbage)
{
    // One string filling the whole data area, with no NUL anywhere.
    const std::string unterminated = image_of_data("x=" + std::string(65530, 'y'));
    board().write_file(kDevice, unterminated + unterminated);
    Ubootenv env;
    EXPECT_EQ(std::string(env.get("x")), std::string(4095, 'y'));

    // What follows the empty string that ends the list is not read.
    const std::string garbage = image_of_data(std::string("k=1\0\0late=2\0", 12));
    board().write_file(kDevice, garbage + garbage);
    env.reInit();
    EXPECT_STREQ(env.get("k"), "1");
    EXPECT_EQ(env.get("late"), nullptr);

    // An empty data area gives one empty entry and one complaint.
    const std::string empty = image_of_data("");
    board().write_file(kDevice, empty + empty);
    board().clear_log();
    env.reInit();
    EXPECT_EQ(count_of(env_log(), "E/Ubootenv: [Ubootenv.cpp, parseAttribute, N] [ubootenv] error need '=' "
                                  "skip this value"),
              1);
    EXPECT_EQ(env.updateValue("ubootenv.var.first", "1"), 0);
    EXPECT_EQ(copy_at(0), std::vector<std::string>{"first=1"});
}

} // namespace
} // namespace vexa::test
