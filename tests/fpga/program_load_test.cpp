#include "fpga_fixture.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kDone = 62; // the default INI's fpga_done_gpio
constexpr const char *kFirmware = "/vendor/etc/fpga/fpga_fw.bin";

class ProgramLoadTest : public FpgaTest {};

TEST_F(ProgramLoadTest, TheHalLoaderIsTriedThreeTimes)
{
    knobs("done=never\n");
    PZ_FPGA_LOADER_STATUS = 7;
    EXPECT_EQ(bi_fpga_load_program(), -110) << "-ETIMEDOUT: the done pin never rose";
    EXPECT_EQ(fpga().hal_loads(), 3);
    EXPECT_EQ(bi_fpga_get_fpga_done_status(), -110);
    EXPECT_EQ(board().line(kDone), 0);
    EXPECT_THAT(bi_log(), ElementsAre("I/vexa_system_bi_fpga: fpga_fw_path: /vendor/etc/fpga/fpga_fw.bin fpga_drv_id:0",
                                      "E/vexa_system_bi_fpga: bi_fpga_load_program, fpga load failed, retry 0",
                                      "E/vexa_system_bi_fpga: bi_fpga_load_program, fpga load failed, retry 1",
                                      "E/vexa_system_bi_fpga: bi_fpga_load_program, fpga load failed, retry 2"));
}

TEST_F(ProgramLoadTest, TheHalLoaderConfiguresTheFpga)
{
    PZ_FPGA_LOADER_STATUS = 7;
    EXPECT_EQ(running_tag(), tag_of(1));
    EXPECT_EQ(bi_fpga_load_program(), 0);
    EXPECT_EQ(fpga().hal_loads(), 1);
    EXPECT_EQ(running_tag(), tag_of(2));
    EXPECT_EQ(board().line(kDone), 1);
    EXPECT_EQ(PZ_FPGA_LOADER_STATUS, 0);
    EXPECT_EQ(bi_log().back(), "I/vexa_system_bi_fpga: bi_fpga_load_program, fpga load success");
    // A second failing attempt is retried and the good one counts.
    board().inject(sim::Fault::on("hal_fpga_load_program_sync").once().returns(-5));
    EXPECT_EQ(bi_fpga_load_program(), 0);
}

TEST_F(ProgramLoadTest, AProgramPathMustBeSetAndFitTheRequest)
{
    reload(sim::Board::Builder().ini(ini_with("fpga_fw_path", std::nullopt)));
    EXPECT_EQ(bi_fpga_load_program(), -1);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: bi_fpga_load_program:bi_product is NULL or "
                                      "fpga_fw_path.path is not set, need to check ini file."));
    // 127 bytes fit the request; 128 would be cut and name another file.
    const std::string longer = "/vendor/etc/fpga/" + std::string(111, 'p');
    reload(sim::Board::Builder().ini(ini_with("fpga_fw_path", longer)));
    EXPECT_EQ(bi_fpga_load_program(), -1);
    EXPECT_EQ(fpga().hal_loads(), 0);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: bi_fpga_load_program: fpga_fw_path " + longer +
                                      " is longer than 127 bytes"));
    reload(sim::Board::Builder().ini(ini_with("fpga_fw_path", longer.substr(0, 127))));
    EXPECT_EQ(bi_fpga_load_program(), -2) << "the HAL was asked: -ENOENT";
    EXPECT_EQ(fpga().hal_loads(), 0) << "the file was not there to send";
}

TEST_F(ProgramLoadTest, TheDeviceNodeGetsExactly819200Bytes)
{
    const std::string program = sim::default_fpga_program(2);
    EXPECT_EQ(fpga_load_program_qrxx_rk3566(kFirmware), 0);
    Bytes image = fpga().load_image();
    ASSERT_EQ(image.size(), 819200u);
    EXPECT_EQ(Bytes(image.begin(), image.begin() + long(program.size())), bytes(program));
    EXPECT_EQ(std::count(image.begin() + long(program.size()), image.end(), 0), long(819200 - program.size()))
        << "a shorter file is followed by zeros";
    EXPECT_EQ(PZ_FPGA_LOADER_STATUS, 1);
    EXPECT_EQ(running_tag(), tag_of(2));

    board().write_file("/data/long.bin", sim::default_fpga_program(1) + std::string(900000, '\x5A'));
    EXPECT_EQ(fpga_load_program_qrxx_rk3566("/data/long.bin"), 0);
    image = fpga().load_image();
    ASSERT_EQ(image.size(), 819200u);
    EXPECT_EQ(image.back(), 0x5A) << "a longer file is cut";
    EXPECT_EQ(running_tag(), tag_of(1));
}

TEST_F(ProgramLoadTest, DeviceNodeFailuresLeaveTheStatus)
{
    EXPECT_EQ(fpga_load_program_qrxx_rk3566("/data/none.bin"), -1);
    board().inject(sim::Fault::on("open").at(kFirmware).once());
    EXPECT_EQ(fpga_load_program_qrxx_rk3566(kFirmware), -1);
    board().write_file("/data/junk.bin", "not a program");
    EXPECT_EQ(fpga_load_program_qrxx_rk3566("/data/junk.bin"), -1);
    EXPECT_EQ(board().line(kDone), 0) << "the FPGA refused the image";
    EXPECT_EQ(PZ_FPGA_LOADER_STATUS, 0);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: /data/none.bin file inexistence ... ",
                                      "E/vexa_system_bi_fpga: open /vendor/etc/fpga/fpga_fw.bin failed",
                                      "E/vexa_system_bi_fpga: open failed: Input/output error (errno=5)",
                                      "E/vexa_system_bi_fpga: write fpga program failed "));
}

TEST_F(ProgramLoadTest, TheQrxxLoadTakesTheProgramPartitionThenTheParameters)
{
    ASSERT_EQ(bi_fpga_load_program(), 0);
    EXPECT_EQ(running_tag(), tag_of(2));
    EXPECT_EQ(bi_fpga_load_program_qrxx_rk3566(), 0);
    EXPECT_EQ(running_tag(), tag_of(1)) << "the partition holds program 1";
    EXPECT_THAT(sent(kSpi), Contains(hex("43 00 23 00 00"))) << "then the parameters";
    EXPECT_EQ(bi_log().back(), "I/vexa_system_bi_fpga: bi_fpga_load_program_qrxx_rk3566: load ok");

    knobs("done=never\n");
    EXPECT_EQ(bi_fpga_load_program_qrxx_rk3566(), -2);
    EXPECT_EQ(bi_log().back(), "E/vexa_system_bi_fpga: bi_fpga_load_program_qrxx_rk3566: bi_fpga_load_program failed");
    reload(sim::Board::Builder().ini(ini_with("fpga_program_path", "UNDEF")));
    EXPECT_EQ(bi_fpga_load_program_qrxx_rk3566(), -1);
}

TEST_F(ProgramLoadTest, ConfigDoneWantsAResetThenDone)
{
    // A done pin that stays high: the FPGA never went through a reset.
    knobs("done=stuck_high\n");
    double ms = elapsed_ms([&] { EXPECT_EQ(check_fpga_config_done(), -2); });
    EXPECT_GE(ms, 3000.0);
    EXPECT_THAT(bi_log(), ElementsAre("I/vexa_system_bi_fpga: <check_fpga_config_done>: satrt fpga done is 1",
                                      "I/vexa_system_bi_fpga: <check_fpga_config_done>: sleep 3 fpga done is 1",
                                      "E/vexa_system_bi_fpga: <check_fpga_config_done>: fpga is not reset"));
    EXPECT_EQ(board().line(kDone), 1) << "configuring the pin as an input does not drive it";

    // Low at first (the FPGA is resetting), done at the third poll.
    knobs("");
    board().clear_log();
    sim::Fault low = sim::Fault::on("hal_gpio_get_value").at("62").returns(0);
    low.times = 3;
    board().inject(low);
    ms = elapsed_ms([&] { EXPECT_EQ(check_fpga_config_done(), 0); });
    EXPECT_GE(ms, 300.0);
    EXPECT_LT(ms, 400.0);
    EXPECT_EQ(bi_log().back(), "I/vexa_system_bi_fpga: <check_fpga_config_done>: fpga reset success");
}

TEST_F(ProgramLoadTest, ConfigDoneTimesOutAndChecksItsPin)
{
    knobs("done=never\n");
    ASSERT_NE(bi_fpga_load_program(), 0);
    board().clear_log();
    double ms = elapsed_ms([&] { EXPECT_EQ(check_fpga_config_done(), -3); });
    EXPECT_GE(ms, 101 * 100.0);
    EXPECT_EQ(bi_log().back(), "E/vexa_system_bi_fpga: <check_fpga_config_done>: fpga reset time out");
    for (const char *pin : {"999", "0"}) {
        reload(sim::Board::Builder().ini(ini_with("fpga_done_gpio", pin)));
        EXPECT_EQ(check_fpga_config_done(), -1);
        EXPECT_EQ(bi_log().back(), std::string("E/vexa_system_bi_fpga: <check_fpga_config_done>: bi_product is NULL "
                                               "or invaild gpio_id is ") +
                                       pin + ", need to check ini file.");
    }
}

TEST_F(ProgramLoadTest, CheckDonePollsTwentyTimes)
{
    EXPECT_EQ(fpgaCheckDone(), 1);
    EXPECT_EQ(fw_log(), std::vector<std::string>{"I/vexa_system_fw_update: fpgaCheckDone: FPGA_DONE is 1"});
    knobs("done=never\n");
    ASSERT_NE(bi_fpga_load_program(), 0);
    board().clear_log();
    double ms = elapsed_ms([&] { EXPECT_EQ(fpgaCheckDone(), 0); });
    EXPECT_GE(ms, 10000.0);
    EXPECT_EQ(fw_log().size(), 21u);
    EXPECT_EQ(fw_log().back(), "E/vexa_system_fw_update: fpgaCheckDone: Maximum wait time 10 second exceeded, exiting...");
    config_info->fpga_done_gpio = 0;
    board().clear_log();
    ms = elapsed_ms([&] { EXPECT_EQ(fpgaCheckDone(), 0); });
    EXPECT_LT(ms, 100.0);
    EXPECT_EQ(fw_log(), std::vector<std::string>{"E/vexa_system_fw_update: fpgaCheckDone: invalid fpga_done_gpio_id = 0"});
}

TEST_F(ProgramLoadTest, UpdatesDependOnTheFamily)
{
    PRODUCT_NUM = 3;
    EXPECT_EQ(bi_fpga_update_program(kFirmware), 0);
    EXPECT_THAT(fpga().load_image(), IsEmpty());
    EXPECT_EQ(bi_log().back(), "I/vexa_system_bi_fpga: <bi_fpga_update_program> The device is not supported");

    PRODUCT_NUM = 0;
    EXPECT_EQ(bi_fpga_update_program(kFirmware), 0);
    EXPECT_EQ(running_tag(), tag_of(2));
    const std::string program = sim::default_fpga_program(2);
    EXPECT_EQ(board().read_file("/dev/block/by-name/fpga_program").substr(0, program.size()), program)
        << "kept in the program partition";
    EXPECT_EQ(bi_fpga_update_program(nullptr), -1);
    EXPECT_EQ(bi_fpga_update_program("/data/none.bin"), -2);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: fpga_update_program_qrxx_rk3566:fpga_path is NULL",
                                      "E/vexa_system_bi_fpga: /data/none.bin file inexistence ... ",
                                      "E/vexa_system_bi_fpga: fpga_update_program_qrxx_rk3566: "
                                      "fpga_load_program_qrxx_rk3566 failed"));
}

TEST_F(ProgramLoadTest, TheActiveUpdateLoadsTheFixedFileOnFamily2Only)
{
    EXPECT_EQ(bi_fpga_active_update_program(), 0);
    EXPECT_THAT(sent(kSpi), IsEmpty());
    PRODUCT_NUM = 2;
    EXPECT_EQ(bi_fpga_active_update_program(), 0);
    EXPECT_EQ(running_tag(), tag_of(2)) << "/vendor/etc/fpga.bin holds program 2";
    // An update that never takes is tried once more.
    board().write_file("/vendor/etc/fpga.bin", sim::default_fpga_program(1));
    knobs("tag_update=stuck\n");
    ASSERT_EQ(bi_fpga_load_program(), 0);
    board().clear_log();
    EXPECT_EQ(bi_fpga_active_update_program(), -9);
    EXPECT_THAT(errors(), Contains("E/vexa_system_bi_fpga: bi_fpga_active_update_program: restart update fpga"));
    size_t updates = 0;
    for (auto &line : bi_log())
        updates += line == "I/vexa_system_bi_fpga: <fpga_update_program_qr3plus_qr5plus> check tag is end, start update";
    EXPECT_EQ(updates, 2u);
}

TEST_F(ProgramLoadTest, Pz2kLoadsThenSetsUpBothPorts)
{
    knobs("done=never\n");
    EXPECT_EQ(bi_fpga_load_program_pz2k(), 0);
    EXPECT_THAT(board().commands(),
                ElementsAre("/system/bin/ifconfig eth0 down", "/system/bin/ifconfig eth0 mtu 1500 up",
                            "/system/bin/ifconfig eth1 down", "/system/bin/ifconfig eth1 mtu 1500 up",
                            "/system/bin/busybox arp -i eth1 -s 240.10.10.20 56:b5:6c:ff:01:00"));
    EXPECT_THAT(bi_log(), Contains("E/vexa_system_bi_fpga: bi_fpga_load_program_pz2k: bi_fpga_load_program failed"));
    EXPECT_EQ(bi_log().back(), "I/vexa_system_bi_fpga: bi_fpga_load_program_pz2k: bi_fpga_load_program_pz2k ok");
}

TEST_F(ProgramLoadTest, Hcu900ProLoadsThroughTheDriverThenSendsOverUdp)
{
    double ms = elapsed_ms([&] { EXPECT_EQ(bi_fpga_update_program_hcu900pro(kFirmware), 0); });
    EXPECT_EQ(running_tag(), tag_of(2));
    EXPECT_THAT(board().commands(),
                ElementsAre("/system/bin/ifconfig eth1 down", "/system/bin/ifconfig eth1 mtu 1500",
                            "/system/bin/ifconfig eth1 up",
                            "/system/bin/ip addr add 240.10.10.10/24 broadcast 240.10.10.255 dev eth1"));
    EXPECT_FALSE(fpga().udp_writes().empty()) << "the hex parameters: the screen partition is empty";
    EXPECT_GE(ms, 3000.0 + 600.0);
    EXPECT_EQ(bi_log().back(), "I/vexa_system_bi_fpga: bi_fpga_update_program_hcu900pro: "
                               "bi_fpga_load_screen_params_by_udp ok");

    board().write_file("/data/junk.bin", "junk");
    board().clear_log();
    EXPECT_EQ(bi_fpga_update_program_hcu900pro("/data/junk.bin"), -1);
    EXPECT_EQ(bi_fpga_update_program_hcu900pro(""), -1);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: bi_fpga_update_program_hcu900pro: "
                                      "hal_fpga_load_program_sync_temp failed",
                                      "E/vexa_system_bi_fpga: bi_fpga_update_program_hcu900pro: invalid fpga_fw_path"));
}

TEST_F(ProgramLoadTest, HdrOpensOnlyWithAResolution)
{
    struct Case {
        const char *want, *res;
        int32_t result;
        const char *enabled;
        std::vector<std::string> commands;
    };
    const Case cases[] = {
        {nullptr, nullptr, 0, "false", {}},
        {"true", nullptr, 0, "false", {}},
        {"yes", "1080p60hz", 0, "false", {}},
        {"true", "3840x2160p60hz", 0, "true",
         {"/system/bin/test-systemcontrol --setHDREnable hdr 422,10bit 3840x2160p60hz"}},
        {"true", "1080p;reboot", -1, "", {}},
    };
    std::vector<std::string> hdr_lines; // of the last two cases
    for (const Case &c : cases) {
        reload(sim::Board::Builder());
        if (c.want)
            board().set_property("persist.hdr.wantenable", c.want);
        if (c.res)
            board().set_property("persist.hdr.res", c.res);
        EXPECT_EQ(open_hdr(), c.result) << (c.res ? c.res : "");
        EXPECT_EQ(board().property("sys.hdr.realyenable"), c.enabled);
        EXPECT_EQ(board().commands(), c.commands);
        if (&c >= &cases[3])
            for (const auto &line : board().log_lines())
                if (line.find("hdr") != std::string::npos)
                    hdr_lines.push_back(line);
    }
    // HDR is one of the FPGA functions: its lines go under the FPGA's tag,
    // also when the boot-time load process runs it.
    EXPECT_EQ(hdr_lines, (std::vector<std::string>{
                             "I/vexa_system_bi_fpga: hdr: true, res: 3840x2160p60hz",
                             "I/vexa_system_bi_fpga: open_hdr will open hdr now",
                             "I/vexa_system_bi_fpga: open_hdr: system(/system/bin/test-systemcontrol "
                             "--setHDREnable hdr 422,10bit 3840x2160p60hz) ret = 0",
                             "I/vexa_system_bi_fpga: hdr: true, res: 1080p;reboot",
                             "I/vexa_system_bi_fpga: open_hdr will open hdr now",
                             "E/vexa_system_bi_fpga: open_hdr: refusing shell metacharacters in \"1080p;reboot\"",
                         }));
    EXPECT_EQ(bi_get_ultra_fpga_enable(), 0);
    EXPECT_EQ(bi_set_ultra_fpga_enable(), 0);
}

} // namespace
} // namespace vexa::test
