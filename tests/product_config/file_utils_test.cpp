#include <cJSON.h>

#include <memory>
#include <string>

#include "support/board_fixture.h"
#include "vexasdk/product_config.h"

using ::testing::ElementsAre;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using vexa::sim::Fault;

namespace vexa::test {
namespace {

class FileUtilsTest : public BoardTest {
protected:
    std::vector<std::string> base_log() { return log_of("vexa_system_bi_base"); }
};

TEST_F(FileUtilsTest, FlagFilesAreWrittenAndReadAtTheirOffsets)
{
    board().write_file("/data/other", "");
    EXPECT_EQ(bi_base_save_flag("/data/flag.bin", 10, 3, "abc"), 0);
    EXPECT_EQ(bi_base_save_flag("/data/flag.bin", 1, 1, "Z"), 0);
    EXPECT_EQ(board().read_file("/data/flag.bin"), std::string("\0Z", 2) + std::string(8, '\0') + "abc");
    EXPECT_THAT(base_log(), ElementsAre("D/vexa_system_bi_base: new file"));
    char got[4] = {0};
    EXPECT_EQ(bi_base_gain_flag("/data/flag.bin", 10, 3, got), 0);
    EXPECT_STREQ(got, "abc");

    board().write_file("/data/flag.bin", std::string(100, 'x'));
    EXPECT_EQ(bi_base_init_flag("/data/flag.bin"), 0);
    EXPECT_EQ(board().read_file("/data/flag.bin"), std::string(64, '\0') + std::string(36, 'x'));

    CaptureStderr();
    EXPECT_EQ(bi_base_gain_flag("/data/missing.bin", 0, 1, got), -1);
    EXPECT_EQ(bi_base_save_flag("/no/such/dir/flag.bin", 0, 1, "x"), -1);
    EXPECT_EQ(bi_base_init_flag("/no/such/dir/flag.bin"), -1);
    EXPECT_EQ(GetCapturedStderr(), "open file error!: No such file or directory\n"
                                   "open file error!: No such file or directory\n"
                                   "open file error!: No such file or directory\n");
    EXPECT_EQ(bi_base_save_flag(nullptr, 0, 1, "x"), -1);
}

TEST_F(FileUtilsTest, CopyFileCopiesAcrossChunks)
{
    std::string data(300000, '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i * 7 + i / 251);
    board().write_file("/data/src/big.bin", data);
    board().write_file("/data/dst/big.bin", "old contents that are longer than nothing");
    bi_base_copy_file("/data/dst", "/data/src", "big.bin");
    EXPECT_EQ(board().read_file("/data/dst/big.bin"), data);

    CaptureStderr();
    bi_base_copy_file("/data/dst", "/data/src", "absent.bin");
    EXPECT_EQ(GetCapturedStderr(), "open file error!: No such file or directory\n");
}

TEST_F(FileUtilsTest, CopyDirReplacesTheDestinationAndStopsAtAFailedStep)
{
    board().write_file("/data/src/a.txt", "A");
    board().write_file("/data/src/sub/b.txt", "B");
    board().write_file("/data/dst/old.txt", "old");
    bi_base_copy_dir("/data/src", "/data/dst");
    EXPECT_THAT(board().commands(),
                ElementsAre("rm -rf /data/dst/*", "mkdir -p /data/dst", "cp -rf /data/src/. /data/dst",
                            "chmod -R 0777 /data/dst", "chown -R system /data/dst"));
    EXPECT_EQ(board().read_file("/data/dst/sub/b.txt"), "B");
    EXPECT_FALSE(board().exists("/data/dst/old.txt"));

    board().clear_commands();
    board().inject(Fault::on("system").at("mkdir").once());
    bi_base_copy_dir("/data/src", "/data/dst");
    bi_base_copy_dir("/data/none", "/data/dst");
    bi_base_copy_dir(nullptr, "/data/dst");
    EXPECT_EQ(board().commands().size(), 2u + 3u);
    EXPECT_THAT(base_log(), ElementsAre("E/vexa_system_bi_base: Failed to create directory: /data/dst",
                                        "E/vexa_system_bi_base: Failed to copy files from /data/none to /data/dst",
                                        "E/vexa_system_bi_base: bi_base_copy_dir, dir is null"));
}

TEST_F(FileUtilsTest, DeleteFileRunsRmWithTwoBlanks)
{
    board().write_file("/data/gone/file", "x");
    EXPECT_EQ(bi_base_delete_file("/data/gone"), 0);
    EXPECT_THAT(board().commands(), ElementsAre("rm  -rf /data/gone"));
    EXPECT_EQ(bi_base_dir_check("/data/gone"), -1);
    EXPECT_EQ(bi_base_dir_check("/data"), 0);
    EXPECT_EQ(bi_base_delete_file(nullptr), -1);
    EXPECT_EQ(board().commands().size(), 1u);
    EXPECT_THAT(base_log(), ElementsAre("E/vexa_system_bi_base: bi_base_delete_file, dir is null"));
}

TEST_F(FileUtilsTest, JsonFileTopLevelStringsBecomeProperties)
{
    board().write_file("/data/p.json", R"({"persist.a":"1","b":{"persist.c":"2"},"d":[{"persist.e":"3"}],"n":5})");
    std::unique_ptr<char, decltype(&free)> text(bi_base_open_json("/data/p.json"), free);
    ASSERT_TRUE(text);
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> tree(cJSON_Parse(text.get()), cJSON_Delete);
    ASSERT_TRUE(tree);
    EXPECT_EQ(bi_base_analyze_json_pro(tree.get()), 4);
    EXPECT_EQ(board().property("persist.a"), "1");
    EXPECT_EQ(board().property("persist.c") + board().property("persist.e"), "");
    EXPECT_EQ(bi_base_analyze_json(tree.get()), 4);
    EXPECT_EQ(bi_base_analyze_json(nullptr), 0);

    board().write_file("/data/empty.json", "");
    EXPECT_EQ(bi_base_open_json("/data/empty.json"), nullptr);
    EXPECT_EQ(bi_base_open_json("/data/missing.json"), nullptr);
    EXPECT_THAT(base_log(), ElementsAre("D/vexa_system_bi_base: bi_base_open_json 读取文件失败!",
                                        "D/vexa_system_bi_base: bi_base_open_json Open file fail!"));
}

TEST_F(FileUtilsTest, MountAttachesTheReservePartitionOnce)
{
    EXPECT_EQ(bi_base_mount_sub("/dev/block/mmcblk2p22", "/Reserve0"), 0);
    EXPECT_TRUE(board().exists("/Reserve0/lost+found"));
    // lost+found at the mount point counts as mounted.
    EXPECT_EQ(bi_base_mount_sub("/dev/block/mmcblk2p22", "/Reserve0"), 0);
    EXPECT_EQ(board().read_file("/.board/mounts"), "/dev/block/mmcblk2p22 /Reserve0 ext4 16\n");
    EXPECT_EQ(bi_base_umount_sub("/Reserve0"), 0);
    EXPECT_EQ(bi_base_mount_sub(nullptr, "/Reserve0"), -1);
    EXPECT_THAT(base_log(), ElementsAre("D/vexa_system_bi_base: /dev/block/mmcblk2p22 Has been mounted",
                                        "E/vexa_system_bi_base: bi_base_mount_sub, dir is null"));

    // Formatting empties the file system.
    board().write_file("/Reserve0/flag.hex", "x");
    EXPECT_EQ(bi_base_format_ext4_sub("/dev/block/mmcblk2p22"), 0);
    EXPECT_FALSE(board().exists("/Reserve0/flag.hex"));
    EXPECT_TRUE(board().exists("/Reserve0/lost+found"));
}

TEST_F(FileUtilsTest, FailedMountIsRetriedAfterAnUnmount)
{
    // Unformatted: the mount fails, and so does the unmount of a free dir.
    board().write_file("/dev/block/mmcblk2p22", "");
    board().remove_file("/.board/fs/_dev_block_mmcblk2p22");
    CaptureStderr();
    EXPECT_EQ(bi_base_mount_sub("/dev/block/mmcblk2p22", "/Reserve0"), -1);
    EXPECT_EQ(GetCapturedStderr(), "error: Invalid argument\n");
    // Formatting gives an empty file system that then mounts.
    EXPECT_EQ(bi_base_format_ext4_sub("/dev/block/mmcblk2p22"), 0);
    EXPECT_THAT(board().commands(), ElementsAre("mkfs.ext4 -F /dev/block/mmcblk2p22"));
    EXPECT_EQ(bi_base_mount_sub("/dev/block/mmcblk2p22", "/Reserve0"), 0);
    EXPECT_EQ(bi_base_format_ext4_sub(nullptr), -1);
}

} // namespace
} // namespace vexa::test
