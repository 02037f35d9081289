// Product, mount, disk, clock and process information on the virtual board.
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
    EXPECT_GT(mounts[3].bsize, 0u);
    EXPECT_GT(mounts[3].blocks, 0u);

    bi_mnt_info_t one{};
    ASSERT_EQ(bi_info_get_special_mnt_info("/data", &one), 0);
    EXPECT_STREQ(one.mount_point, "/data");
    EXPECT_TRUE(logged("D/vexa_system_bi_info:   Mount Point: /data"));
    EXPECT_EQ(bi_info_get_special_mnt_info("/nowhere", &one), -2);
    EXPECT_EQ(bi_info_get_all_mnt_info(nullptr), -1);
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
    bi_sys_info_t si{};
    ASSERT_EQ(bi_info_get_sys_info(&si), 0);
    EXPECT_GT(si.totalram, 0u);
    EXPECT_EQ(log_of("vexa_system_bi_info").size(), 13u);
    EXPECT_EQ(bi_info_test(5), 5);
    EXPECT_EQ(board().log_lines().back(), "D/vexa_system_bi_info: vexa<bi_info_test> 39");
    char usb[256];
    EXPECT_EQ(bi_info_get_usb_list(usb, sizeof usb), 2);
}

} // namespace
