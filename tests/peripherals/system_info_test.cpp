// Product, mount, disk, clock and process information on the virtual board.
#include <sys/statvfs.h>

#include <ctime>
#include <string>

#include <cstring>

#include "support/board_fixture.h"
#include "vexasdk/peripherals.h"

namespace {

class InfoTest : public vexa::test::ProductTest {};

TEST_F(InfoTest, ProductInformationIsZeroedThenFilled)
{
    char info[BI_PRODUCT_INFO_SIZE];
    std::memset(info, 'x', sizeof info);
    ASSERT_EQ(bi_info_get_product_info(info), 0);
    EXPECT_STREQ(info + 64, "38432");
    EXPECT_EQ(info[2047], '\0');
    EXPECT_EQ(bi_info_get_product_info(nullptr), -1);
    EXPECT_EQ(board().log_lines().back(), "D/vexa_system_bi_info: ob_product_info is NULL");
    std::strcpy(info + 64, "8459");
    ASSERT_EQ(bi_info_set_product_info(info), 0);
    char back[BI_PRODUCT_INFO_SIZE];
    ASSERT_EQ(bi_info_get_product_info(back), 0);
    EXPECT_STREQ(back + 64, "8459");
}

TEST_F(InfoTest, DiskSizeRoundsUpToTheNominalCapacity)
{
    const std::pair<const char *, double> cases[] = {
        {"15269888", 8}, {"0", 2}, {"4194304", 2}, {"4194305", 2}, {"6291456", 4},
        {"536870912", 256}, {"1258291200", 600},
    };
    for (auto [sectors, nominal] : cases) {
        board().write_file("/sys/block/mmcblk2/size", std::string(sectors) + "\n");
        double gb = -1;
        ASSERT_EQ(bi_info_read_total_disk_size(&gb), 0) << sectors;
        EXPECT_EQ(gb, nominal) << sectors;
    }
    board().clear_log();
    board().write_file("/sys/block/mmcblk2/size", "15269888\n");
    double gb = 0;
    bi_info_read_total_disk_size(&gb);
    EXPECT_EQ(board().log_lines(),
              (std::vector<std::string>{"D/vexa_system_bi_info: the sector count is 15269888",
                                        "D/vexa_system_bi_info: the total bytes is 7818182656",
                                        "D/vexa_system_bi_info: the : 7.00 GB",
                                        "I/vexa_system_bi_info: the : 8.00 GB"}));
    board().write_file("/sys/block/mmcblk2/size", "none\n");
    EXPECT_EQ(bi_info_read_total_disk_size(&gb), -1);
    EXPECT_EQ(board().log_lines().back(), "E/vexa_system_bi_info: bi_info_read_total_disk_size: read file error");
    board().remove_file("/sys/block/mmcblk2/size");
    EXPECT_EQ(bi_info_read_total_disk_size(&gb), -1);
}

TEST_F(InfoTest, ProtocolTypeAcceptsZeroAndOne)
{
    EXPECT_EQ(bi_info_get_protocol_type(), 1);
    configure("fpga_protocol_type", std::string("0"));
    EXPECT_EQ(bi_info_get_protocol_type(), 0);
    configure("fpga_protocol_type", std::string("2"));
    EXPECT_EQ(bi_info_get_protocol_type(), -1);
    EXPECT_EQ(board().log_lines(), std::vector<std::string>{"D/vexa_system_bi_info: vexa protocol type unclear:2"});
}

TEST_F(InfoTest, MountsListTheBoardsTableWithFigures)
{
    int32_t count = 0;
    ASSERT_EQ(bi_info_get_all_mnt_num(&count), 0);
    EXPECT_EQ(count, 4);
    std::vector<bi_mnt_info_t> mounts(static_cast<size_t>(count));
    ASSERT_EQ(bi_info_get_all_mnt_info(mounts.data()), 0);
    EXPECT_STREQ(mounts[0].mount_point, "/");
    EXPECT_STREQ(mounts[2].device, "/dev/block/by-name/userdata");
    EXPECT_STREQ(mounts[2].type, "f2fs");
    EXPECT_STREQ(mounts[3].mount_point, "/sdcard");
    // The board's partitions, not the disk the board folder lies on.
    EXPECT_EQ(mounts[0].frsize, 4096u);
    EXPECT_EQ(mounts[0].blocks * mounts[0].frsize, 2048ull << 20);    // system: 2 GiB
    EXPECT_EQ(mounts[1].blocks * mounts[1].frsize, 512ull << 20);     // vendor
    EXPECT_EQ(mounts[2].blocks * mounts[2].frsize, 4608ull << 20);    // userdata: 4.5 GiB
    EXPECT_EQ(mounts[2].bavail * mounts[2].frsize / 1024, 4718592ull - 1258291ull - 1); // a block's rounding
    EXPECT_EQ(mounts[0].flag & ST_RDONLY, ST_RDONLY);
    EXPECT_EQ(mounts[2].flag, ST_NOSUID | ST_NODEV | ST_NOATIME);

    bi_mnt_info_t one{};
    ASSERT_EQ(bi_info_get_special_mnt_info("/data", &one), 0);
    EXPECT_STREQ(one.mount_point, "/data");
    EXPECT_TRUE(logged("D/vexa_system_bi_info:   Mount Point: /data"));
    EXPECT_EQ(bi_info_get_special_mnt_info("/nowhere", &one), -2);
    EXPECT_EQ(bi_info_get_all_mnt_info(nullptr), -1);
    // The figures are the board table's, whatever it says.
    board().write_file("/.board/fstab", "/dev/block/by-name/vendor /vendor ext4 ro 0 0 1000 600\n");
    ASSERT_EQ(bi_info_get_special_mnt_info("/vendor", &one), 0);
    EXPECT_EQ(one.blocks, 250u);
    EXPECT_EQ(one.bfree, 100u);
}

TEST_F(InfoTest, ProcessesAreFoundAndKilled)
{
    int32_t pids[4] = {};
    EXPECT_EQ(bi_kill_get_process_num("vexa_player", pids, 4), 2);
    EXPECT_EQ(pids[0], 612);
    EXPECT_EQ(pids[1], 613);
    bi_process_info_t ps[4] = {};
    ASSERT_EQ(bi_get_process_info_by_name("logd", ps, 4), 1);
    EXPECT_EQ(ps[0].pid, 210);
    EXPECT_STREQ(ps[0].name, "logd");
    ASSERT_EQ(bi_kill_process_num(612), 0);
    EXPECT_EQ(bi_kill_get_process_num("vexa_player", pids, 4), 1);
    EXPECT_EQ(bi_kill_process_num(612), -1);
    EXPECT_EQ(bi_kill_get_process_num(nullptr, pids, 4), -1);
    EXPECT_EQ(bi_get_process_info_by_name("logd", nullptr, 4), -1);
    EXPECT_EQ(log_of("vexa_system_bi_kill_process"),
              (std::vector<std::string>{"E/vexa_system_bi_kill_process: name is NULL",
                                        "E/vexa_system_bi_kill_process: m_ps is NULL"}));
}

TEST_F(InfoTest, CpuClockAndSysInfo)
{
    bi_cpu_state_t cpu{};
    ASSERT_EQ(bi_info_get_cpu_state(&cpu), 0);
    EXPECT_EQ(cpu.temperature, 45000);
    EXPECT_FLOAT_EQ(cpu.usage, 12.5f);
    EXPECT_GT(bi_info_get_hw_clock(), 1600000000);
    // The board's figures: its meminfo, its load, its process table, its boot.
    board().write_file("/.board/boot", std::to_string(static_cast<long long>(::time(nullptr)) - 3600) + "\n");
    bi_sys_info_t si{};
    ASSERT_EQ(bi_info_get_sys_info(&si), 0);
    EXPECT_EQ(si.mem_unit, 1u);
    EXPECT_EQ(si.totalram, 3970668ull * 1024);
    EXPECT_EQ(si.freeram, 812424ull * 1024);
    EXPECT_EQ(si.bufferram, 61224ull * 1024);
    EXPECT_EQ(si.sharedram, 10772ull * 1024);
    EXPECT_EQ(si.totalswap, 1985332ull * 1024);
    EXPECT_EQ(si.procs, 6u);
    EXPECT_EQ(si.loads[0], 34079u); // 0.52 in 16.16 fixed point
    EXPECT_GE(si.uptime, 3600);
    EXPECT_LT(si.uptime, 3700);
    EXPECT_EQ(log_of("vexa_system_bi_info").size(), 13u);
    ASSERT_EQ(bi_kill_process_num(613), 0);
    ASSERT_EQ(bi_info_get_sys_info(&si), 0);
    EXPECT_EQ(si.procs, 5u);
    EXPECT_EQ(bi_info_test(5), 5);
    EXPECT_EQ(board().log_lines().back(), "D/vexa_system_bi_info: vexa<bi_info_test> 39");
    char usb[256];
    EXPECT_EQ(bi_info_get_usb_list(usb, sizeof usb), 2);
}

} // namespace
