// A caller's path that reaches rm, cp, chmod, chown, mkfs.ext4 or badblocks
// is a plain absolute path, or nothing runs; and no command runs cut short.
#include <functional>
#include <string>

#include "support/board_fixture.h"
#include "vexasdk/product_config.h"
#include "vexasdk/storage.h"

namespace vexa::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PathSafetyTest : public BoardTest {
protected:
    void SetUp() override
    {
        BoardTest::SetUp();
        ASSERT_EQ(bi_base_mount_sub("/dev/block/mmcblk2p22", "/Reserve0"), 0);
        board().write_file("/Reserve0/perProgram/p", "");
        board().write_file("/Reserve0/RescueParty/data/x/f", "");
    }
};

struct Caller {
    const char *func;
    const char *tag;
    std::function<int(const char *)> call; // -1 for the functions without a result
};

int one_path(int32_t (*fn)(const char **, int32_t), const char *path)
{
    const char *paths[] = {"/data/fine", path};
    return fn(paths, 2);
}

const Caller kCallers[] = {
    {"bi_base_delete_file", "vexa_system_bi_base", [](const char *p) { return bi_base_delete_file(p); }},
    {"bi_base_format_ext4_sub", "vexa_system_bi_base",
     [](const char *p) { return bi_base_format_ext4_sub(p); }},
    {"bi_base_copy_dir", "vexa_system_bi_base", [](const char *p) { return bi_base_copy_dir("/data/a", p), -1; }},
    {"bi_base_copy_dir", "vexa_system_bi_base", [](const char *p) { return bi_base_copy_dir(p, "/data/b"), -1; }},
    {"bi_block_check", "vexa_system_bi_block", [](const char *p) { return bi_block_check(p); }},
    {"bi_rescue_backup_custom_data", "vexa_system_bi_rescue",
     [](const char *p) { return one_path(bi_rescue_backup_custom_data, p); }},
    {"bi_rescue_restore_custom_data", "vexa_system_bi_rescue",
     [](const char *p) { return one_path(bi_rescue_restore_custom_data, p); }},
    {"bi_rescue_save_prestore_program", "vexa_system_bi_rescue",
     [](const char *p) { return bi_rescue_save_prestore_program(p); }},
    {"bi_rescue_recover_prestore_program", "vexa_system_bi_rescue",
     [](const char *p) { return bi_rescue_recover_prestore_program(p); }},
};

TEST_F(PathSafetyTest, EveryCallerRefusesEveryPathThatCouldHitTheWrongTarget)
{
    const std::pair<const char *, const char *> refused[] = {
        {"-rf", "it starts with '-'"},
        {"data/x", "not an absolute path"},
        {"/data/../system", "it has a \"..\" component"},
        {"/data/x/..", "it has a \"..\" component"},
        {"/", "it names \"/\""},
        {"//./", "it names \"/\""},
        {"/data/x;reboot", "it holds shell metacharacters"},
        {"/data/x y", "it holds shell metacharacters"},
        {"/data/\xe9t\xe9", "it holds bytes that are not UTF-8"},
    };
    for (const Caller &caller : kCallers) {
        for (const auto &[path, why] : refused) {
            SCOPED_TRACE(std::string(caller.func) + "(\"" + path + "\")");
            board().clear_log();
            board().clear_commands();
            EXPECT_EQ(caller.call(path), -1);
            EXPECT_THAT(board().commands(), IsEmpty());
            EXPECT_EQ(board().log_lines().back(), std::string("E/") + caller.tag + ": " + caller.func +
                                                      ": refusing path \"" + path + "\": " + why);
        }
    }
    EXPECT_TRUE(board().exists("/Reserve0/perProgram/p"));
    EXPECT_TRUE(board().exists("/Reserve0/RescueParty/data/x/f"));
}

TEST_F(PathSafetyTest, PlainAbsolutePathsRunAsWritten)
{
    board().write_file("/data/\xc3\xa9t\xc3\xa9/f", "");
    EXPECT_EQ(bi_base_delete_file("/data/..cache/./x"), 0);
    EXPECT_EQ(bi_block_check("/dev/block/mmcblk2"), 0);
    EXPECT_EQ(bi_base_delete_file("/data/\xc3\xa9t\xc3\xa9"), 0);
    EXPECT_THAT(board().commands(),
                ElementsAre("rm  -rf /data/..cache/./x",
                            "/system/bin/badblocks -v -o /sdcard/block_test_result.txt /dev/block/mmcblk2",
                            "rm  -rf /data/\xc3\xa9t\xc3\xa9"));
    EXPECT_FALSE(board().exists("/data/\xc3\xa9t\xc3\xa9"));
}

TEST_F(PathSafetyTest, ACommandThatDoesNotFitIsNotRunAtAll)
{
    // 499 characters fit "rm -rf %s/*", "mkdir -p %s" and the copy, not the
    // chmod: none of the five runs.
    const std::string dst = "/data/" + std::string(493, 'd');
    bi_base_copy_dir("/a", dst.c_str());
    const std::string long_device = "/dev/" + std::string(460, 'b');
    EXPECT_EQ(bi_block_check(long_device.c_str()), -1);
    EXPECT_EQ(bi_base_delete_file(("/data/" + std::string(250, 'x')).c_str()), -1);
    EXPECT_THAT(board().commands(), IsEmpty());
    EXPECT_THAT(board().log_lines(),
                ElementsAre("E/vexa_system_bi_base: bi_base_copy_dir: command does not fit in 512 bytes: "
                            "chmod -R 0777 %s",
                            "E/vexa_system_bi_block: bi_block_check: command does not fit in 512 bytes: "
                            "/system/bin/badblocks -v -o /sdcard/block_test_result.txt %s",
                            "E/vexa_system_bi_base: bi_base_delete_file: command does not fit in 256 bytes: "
                            "rm  -rf %s"));
}

} // namespace
} // namespace vexa::test
