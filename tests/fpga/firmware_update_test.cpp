#include <fstream>
#include <set>

#include "fpga_fixture.h"
#include "platform/fpga_wire.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char *kFirmware = "/vendor/etc/fpga/fpga_fw.bin";
constexpr const char *kProgramPartition = "/dev/block/by-name/fpga_program";
constexpr int kControl = 60, kConfig = 61, kDone = 62;

class FirmwareUpdateTest : public FpgaTest {
protected:
    void as_module(const std::string &id)
    {
        board().set_module_id(id);
        bi_init_product_config();
        board().clear_log();
    }
    std::string flash(size_t offset, size_t n)
    {
        std::ifstream in(board().host_path("/dev/mtd0"), std::ios::binary);
        in.seekg(std::streamoff(offset));
        std::string bytes(n, '\0');
        in.read(bytes.data(), std::streamsize(n));
        bytes.resize(size_t(in.gcount()));
        return bytes;
    }
};

// Which path an id takes, as the update table lists them.
enum class Path { program, pz50pro, hcu900pro, rejected };
Path expected_path(int id)
{
    static const std::set<int> program = {38409, 38427, 38428, 38429, 38432, 38433, 38434, 38435, 38436,
                                          38437, 38441, 38442, 38443, 38455, 38456, 38457, 38458, 38460,
                                          38462, 38463, 38467};
    if (program.count(id))
        return Path::program;
    if (id == 8470 || id == 8475 || id == 8476 || id == 8478)
        return Path::pz50pro;
    if (id == 4374)
        return Path::hcu900pro;
    return Path::rejected;
}

TEST_F(FirmwareUpdateTest, EveryModuleIdTakesItsPath)
{
    // Each path is stopped early; the log tells which one ran.
    PRODUCT_NUM = 3;
    board().inject(sim::Fault::on("system").at("mtd_debug").always().returns(1 << 8));
    board().inject(sim::Fault::on("hal_fpga_load_program_sync_temp").always().returns(-1));
    std::vector<int> ids = {0, 1, 4097, 8459, 65535};
    for (int id = 4370; id <= 4378; ++id)
        ids.push_back(id);
    for (int id = 8465; id <= 8482; ++id)
        ids.push_back(id);
    for (int id = 38400; id <= 38470; ++id)
        ids.push_back(id);
    for (int id : ids) {
        as_module(std::to_string(id));
        const int32_t result = bi_fpga_firmware_update(kFirmware);
        const auto log = bi_log();
        Path taken = Path::rejected;
        if (std::find(log.begin(), log.end(),
                      "I/vexa_system_bi_fpga: <bi_fpga_update_program> The device is not supported") != log.end())
            taken = Path::program;
        else if (std::find(log.begin(), log.end(),
                           "E/vexa_system_bi_fpga: bi_fpga_firmware_update: bi_fpga_firmware_update_pz50pro "
                           "failed") != log.end())
            taken = Path::pz50pro;
        else if (std::find(log.begin(), log.end(),
                           "E/vexa_system_bi_fpga: bi_fpga_firmware_update: bi_fpga_update_program_hcu900pro "
                           "failed") != log.end())
            taken = Path::hcu900pro;
        else
            EXPECT_EQ(log.back(), "E/vexa_system_bi_fpga: bi_fpga_firmware_update: not support mod_id = " +
                                      std::to_string(id));
        EXPECT_EQ(taken, expected_path(id)) << "module id " << id;
        EXPECT_EQ(result, taken == Path::program ? 0 : -1) << "module id " << id;
    }
}

TEST_F(FirmwareUpdateTest, Pz50ProRewritesTheFlashAndReconfiguresFromIt)
{
    as_module("8470");
    const std::string program = sim::default_fpga_program(2);
    const double ms = elapsed_ms([&] { EXPECT_EQ(bi_fpga_firmware_update(kFirmware), 0); });
    // 208 blocks erased at 150 ms, 196 pages written at 0.4 ms, one wait of
    // the done poll while the FPGA configures (458 ms).
    EXPECT_GE(ms, 208 * 150 + 196 * 0.4 + 500);
    EXPECT_LT(ms, 208 * 150 + 196 * 0.4 + 1000) << "the second read of the done pin finds it high";
    EXPECT_EQ(flash(0, program.size()), program);
    EXPECT_EQ(flash(program.size(), 4096), std::string(4096, '\xFF')) << "erased past the program";
    EXPECT_EQ(running_tag(), tag_of(2));
    EXPECT_EQ(board().line(kDone), 1);
    EXPECT_EQ(board().line(kControl), 1);
    EXPECT_EQ(board().line(kConfig), 1);
    EXPECT_THAT(board().commands(), ElementsAre("mtd_debug erase /dev/mtd0 0 0xD00000",
                                                "mtd_debug write /dev/mtd0 0 50176 /vendor/etc/fpga/fpga_fw.bin"));
    const std::string f = "I/vexa_system_bi_fpga: bi_fpga_firmware_update_pz50pro: ";
    EXPECT_THAT(bi_log(),
                ElementsAre("I/vexa_system_bi_fpga: bi_fpga_firmware_update: fpga_fw_path = "
                            "/vendor/etc/fpga/fpga_fw.bin, mod_id = 8470",
                            f + "is called", f + "/vendor/etc/fpga/fpga_fw.bin exist", f + "fpga_fw_size = 50176",
                            f + "control gpio 60 pull low", f + "config gpio 61 pull low",
                            f + "mtd_debug erase success",
                            f + "cmd = mtd_debug write /dev/mtd0 0 50176 /vendor/etc/fpga/fpga_fw.bin",
                            f + "mtd_debug write success", f + "control gpio 60 pull high",
                            f + "config gpio 61 pull low", f + "config gpio 61 pull high",
                            "D/vexa_system_bi_fpga: fpgaCheckDone: FPGA_DONE is not 1, waiting 0.5 second...",
                            "I/vexa_system_bi_fpga: fpgaCheckDone: FPGA_DONE is 1",
                            f + "fpga done pin check success"));
}

TEST_F(FirmwareUpdateTest, ACutOffWriteLeavesTheFpgaOffItsFlash)
{
    as_module("8476");
    knobs("mtd_cut=4096\n");
    EXPECT_EQ(bi_fpga_firmware_update(kFirmware), -1);
    EXPECT_EQ(board().line(kControl), 0) << "held off its flash";
    EXPECT_EQ(board().line(kDone), 0);
    EXPECT_FALSE(fpga().configured());
    const std::string program = sim::default_fpga_program(2);
    EXPECT_EQ(flash(0, 4096), program.substr(0, 4096));
    EXPECT_EQ(flash(4096, 4096), std::string(4096, '\xFF'));
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: bi_fpga_firmware_update_pz50pro: mtd_debug write "
                                      "exit status: 1",
                                      "E/vexa_system_bi_fpga: bi_fpga_firmware_update: "
                                      "bi_fpga_firmware_update_pz50pro failed"));
}

TEST_F(FirmwareUpdateTest, Pz50ProChecksBeforeTouchingAnything)
{
    as_module("8470");
    board().write_file("/data/a;b.bin", sim::default_fpga_program(2));
    board().write_file("/data/empty.bin", "");
    EXPECT_EQ(bi_fpga_firmware_update_pz50pro("/data/a;b.bin"), -1);
    EXPECT_EQ(bi_fpga_firmware_update_pz50pro("/data/empty.bin"), -1);
    EXPECT_EQ(bi_fpga_firmware_update_pz50pro("/data/none.bin"), -1);
    EXPECT_EQ(bi_fpga_firmware_update(nullptr), -1);
    EXPECT_EQ(bi_fpga_firmware_update("/data/none.bin"), -1);
    EXPECT_THAT(board().commands(), IsEmpty());
    EXPECT_EQ(board().line_direction(kControl), "in") << "no pin was driven";
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: bi_fpga_firmware_update_pz50pro: refusing path "
                                      "\"/data/a;b.bin\": it holds shell metacharacters",
                                      "E/vexa_system_bi_fpga: bi_fpga_firmware_update_pz50pro: invalid "
                                      "pz50pro_fpga_fw size = 0",
                                      "E/vexa_system_bi_fpga: bi_fpga_firmware_update_pz50pro: /data/none.bin not "
                                      "exist",
                                      "E/vexa_system_bi_fpga: bi_fpga_firmware_update: invalid fpga_fw_path is NULL",
                                      "E/vexa_system_bi_fpga: bi_fpga_firmware_update: /data/none.bin file does not "
                                      "exist"));
}

TEST_F(FirmwareUpdateTest, FormatThenWriteBootsTheNewProgram)
{
    EXPECT_EQ(fpgaFlashFormat(), 0);
    EXPECT_EQ(flash(0, 0xD00000), std::string(0xD00000, '\xFF'));
    EXPECT_EQ(board().line(kControl), 1);
    EXPECT_EQ(board().line(kDone), 1) << "the FPGA runs on while its flash is erased";
    EXPECT_EQ(running_tag(), tag_of(1));
    EXPECT_EQ(fpgaFlashWrite(), 0);
    EXPECT_EQ(board().line(kDone), 0) << "the config pulse without screen parameters: the FPGA configures";
    board().advance_clock(458'000'000);
    EXPECT_EQ(running_tag(), tag_of(2));
    EXPECT_EQ(board().line(kDone), 1);
    EXPECT_THAT(board().commands(), ElementsAre("mtd_debug erase /dev/mtd0 0 0xD00000",
                                                "mtd_debug write /dev/mtd0 0 50176 /vendor/etc/fpga/fpga_fw.bin"));
    EXPECT_THAT(fw_log(), Contains("I/vexa_system_fw_update: fpgaFlashWrite: get_block_num_for_screen_params "
                                   "blockNum = 0"));
}

TEST_F(FirmwareUpdateTest, AWriteOverUnerasedFlashOnlyClearsBits)
{
    const std::string old = sim::default_fpga_program(1), fresh = sim::default_fpga_program(2);
    EXPECT_EQ(fpgaFlashWrite(), 0);
    const std::string cells = flash(0, fresh.size());
    for (size_t i = 0; i < fresh.size(); ++i)
        ASSERT_EQ(uint8_t(cells[i]), uint8_t(old[i] & fresh[i])) << "byte " << i;
    board().advance_clock(458'000'000);
    EXPECT_EQ(board().line(kDone), 0) << "the mixed image does not configure";
}

TEST_F(FirmwareUpdateTest, WithScreenParametersTheConfigPinIsLeftAlone)
{
    board().write_file("/dev/block/by-name/screen", sim::make_fpga_block_file({{0x10300000, "abcd"}}));
    std::vector<std::pair<int, int>> drives;
    board().watch_lines([&drives](int id, int level, uint64_t) {
        if (id == kControl || id == kConfig)
            drives.emplace_back(id, level);
    });
    ASSERT_EQ(fpgaFlashFormat(), 0);
    drives.clear();
    EXPECT_EQ(fpgaFlashWrite(), 0);
    EXPECT_THAT(drives, ElementsAre(std::pair{kControl, 0}, std::pair{kControl, 1}));
    board().advance_clock(10'000'000'000);
    EXPECT_EQ(board().line(kDone), 1) << "the FPGA runs on";
    EXPECT_EQ(running_tag(), tag_of(1)) << "releasing control alone does not configure it from the new flash";
}

TEST_F(FirmwareUpdateTest, FlashStepsNeedTheToolAndThePins)
{
    board().remove_file("/vendor/bin/mtd_debug");
    EXPECT_EQ(fpgaFlashFormat(), -1);
    EXPECT_EQ(board().line(kControl), 0) << "pulled low before the tool check";
    EXPECT_EQ(fpgaFlashWrite(), -1);
    config_info->fpga_config_gpio = 0;
    board().write_file("/vendor/bin/mtd_debug", "");
    EXPECT_EQ(fpgaFlashWrite(), -1);
    config_info->fpga_control_gpio = -3;
    EXPECT_EQ(fpgaFlashFormat(), -1);
    EXPECT_THAT(board().commands(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_fw_update: fpgaFlashFormat: mtd_debug tool not exist",
                                      "E/vexa_system_fw_update: fpgaFlashWrite: mtd_debug tool not exist",
                                      "E/vexa_system_fw_update: fpgaFlashWrite: invalid fpga_control_gpio_id = 60 "
                                      "or fpga_config_gpio_id = 0",
                                      "E/vexa_system_fw_update: fpgaFlashFormat: invalid fpga_control_gpio_id = -3"));
}

TEST_F(FirmwareUpdateTest, FwUpdateUsesTheUpdateConfiguration)
{
    EXPECT_EQ(fpgaFwUpdate(nullptr), 0) << "config_info's fpga_fw_path";
    EXPECT_EQ(running_tag(), tag_of(2));
    EXPECT_THAT(fw_log(), Contains("I/vexa_system_fw_update: fpgaCheckDone: FPGA_DONE is 1"));
    EXPECT_EQ(fw_log().back(), "I/vexa_system_fw_update: fpgaFwUpdate: fpga done pin check success");
}

TEST_F(FirmwareUpdateTest, TheProgramPartitionTakesACopy)
{
    EXPECT_EQ(fpga_update_program_to_emmc(kProgramPartition), 0);
    EXPECT_EQ(bi_log().back(), "I/vexa_system_bi_fpga: <fpga_update_program_to_emmc>: fpga_path write dir is equal");
    const std::string program = sim::default_fpga_program(2);
    EXPECT_EQ(fpga_update_program_to_emmc(kFirmware), 0);
    EXPECT_EQ(board().read_file(kProgramPartition).substr(0, program.size()), program);
    EXPECT_EQ(fpga_update_program_to_emmc("/data/none.bin"), -3);
    EXPECT_EQ(fpga_update_program_to_emmc("/vendor/etc"), -4);
    board().inject(sim::Fault::on("hal_block_write").once());
    EXPECT_EQ(fpga_update_program_to_emmc(kFirmware), -7);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: <fpga_update_program_to_emmc>, open /data/none.bin failed",
                                      "E/vexa_system_bi_fpga: <fpga_update_program_to_emmc> fstat fail, is not file?",
                                      "E/vexa_system_bi_fpga: <fpga_update_program_to_emmc> "
                                      "bi_block_write_fpga_program fail"));
    reload(sim::Board::Builder().ini(ini_with("fpga_program_path", std::nullopt)));
    EXPECT_EQ(fpga_update_program_to_emmc(kFirmware), -1);
    EXPECT_EQ(errors(), std::vector<std::string>{"E/vexa_system_bi_fpga: <fpga_update_program_to_emmc>: bi_product "
                                                 "is NULL or fpga_program.path is not set, need to check ini file."});
}

TEST_F(FirmwareUpdateTest, FileSizesAreZeroWhenUnreadable)
{
    EXPECT_EQ(get_file_size(kFirmware), 50176u);
    EXPECT_EQ(get_file_size("/data/none.bin"), 0u);
    EXPECT_EQ(get_file_size(nullptr), 0u);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: open /data/none.bin failed",
                                      "E/vexa_system_bi_fpga: open (null) failed"));
}

// ---- qr3plus/qr5plus ----

class QrUpdateTest : public FirmwareUpdateTest {
protected:
    void SetUp() override
    {
        FirmwareUpdateTest::SetUp();
        PRODUCT_NUM = 2;
    }
    std::string with_header(const std::string &header_text, const std::string &payload)
    {
        std::string header = header_text;
        header.resize(1024, '\0');
        return header + payload;
    }
};

TEST_F(QrUpdateTest, ANewProgramGoesOverSpiAndItsTagIsChecked)
{
    const std::string program = sim::default_fpga_program(2);
    double ms = elapsed_ms([&] { EXPECT_EQ(fpga_update_program_qr3plus_qr5plus(kFirmware), 0); });
    EXPECT_EQ(running_tag(), tag_of(2));
    EXPECT_EQ(board().read_file(kProgramPartition).substr(0, program.size()), program);
    EXPECT_EQ(board().property("persist.vexa.system.fpga.is.update"), "0");
    EXPECT_GE(ms, 13000.0 + 5000 + 5000 + 1000);
    const auto frames = sent(kSpi, 'w');
    ASSERT_EQ(frames.size(), 1u + 96 + 3);
    const uint16_t sum = fpga_wire::sum16(reinterpret_cast<const uint8_t *>(program.data()) + 1024, 49152);
    Bytes info = hex("45 10 00 c0 00 00 00 00 00");
    info.push_back(uint8_t(sum));
    info.push_back(uint8_t(sum >> 8));
    for (uint8_t b : tag_of(2))
        info.push_back(b);
    info.push_back(0);
    EXPECT_EQ(frames[0], info);
    EXPECT_EQ(frames[1].size(), 522u);
    EXPECT_EQ(Bytes(frames[96].begin(), frames[96].begin() + 7), hex("45 11 00 5f 00 00 02")) << "piece 95";
    EXPECT_EQ(frames[97], hex("45 10 10 01 00"));
    EXPECT_EQ(frames[98], hex("45 10 20 01 00"));
    EXPECT_EQ(frames[99], hex("45 10 20 00 00"));
    const std::string f = "I/vexa_system_bi_fpga: <fpga_update_program_qr3plus_qr5plus>";
    EXPECT_THAT(bi_log(), Contains(f + " fpga size:49152 Byte"));
    EXPECT_THAT(bi_log(), Contains(f + " update fpga tags: 20240601-120000"));
    EXPECT_THAT(bi_log(), Contains(f + " bin tag is 20 24 06 01 12 00 00 "));
    EXPECT_THAT(bi_log(), Contains(f + " old tag is 20 24 01 05 09 30 00 "));
    EXPECT_THAT(bi_log(), Contains(f + " count:96, last_size:0"));
    EXPECT_THAT(bi_log(), Contains(f + " tag is equal, update fpga succeed"));
    EXPECT_EQ(bi_log().back(), f + ", update succeed");
}

TEST_F(QrUpdateTest, AnEqualTagOnlyKeepsTheFile)
{
    board().write_file("/data/same.bin", sim::default_fpga_program(1));
    double ms = elapsed_ms([&] { EXPECT_EQ(fpga_update_program_qr3plus_qr5plus("/data/same.bin"), 0); });
    EXPECT_LT(ms, 1000.0);
    EXPECT_THAT(sent(kSpi, 'w'), IsEmpty());
    EXPECT_THAT(bi_log(), Contains("I/vexa_system_bi_fpga: <fpga_update_program_qr3plus_qr5plus> fpga is equle, exit "
                                   "update"));
    EXPECT_EQ(board().property("persist.vexa.system.fpga.is.update"), "0");
}

TEST_F(QrUpdateTest, ATagThatDoesNotChangeFailsTheUpdate)
{
    knobs("tag_update=stuck\n");
    EXPECT_EQ(fpga_update_program_qr3plus_qr5plus(kFirmware), -9);
    EXPECT_EQ(running_tag(), tag_of(1));
    EXPECT_EQ(errors(), std::vector<std::string>{"E/vexa_system_bi_fpga: <fpga_update_program_qr3plus_qr5plus> tag "
                                                 "error, not equal, update fpga fail"});
    EXPECT_EQ(board().read_file(kProgramPartition).substr(0, 200), sim::default_fpga_program(1).substr(0, 200))
        << "the partition keeps the old program";
    EXPECT_EQ(board().property("persist.vexa.system.fpga.is.update"), "0");
}

TEST_F(QrUpdateTest, MalformedFilesAreRefused)
{
    struct Case {
        std::string file;
        int32_t code;
        std::string error;
    };
    std::string broken = sim::default_fpga_program(2);
    broken[2000] ^= 0x01;
    const Case cases[] = {
        {with_header("size=4\nchecksum=0x0\n", "abcd"), -1, "<fpga_update_program_qr3plus_qr5plus> fpga tags is null/not find"},
        {with_header("tags=\n", "abcd"), -1, "<fpga_update_program_qr3plus_qr5plus>, error: fpga bin, time is null"},
        {with_header("tags=2024x315-120000\n", "abcd"), -1, "<fpga_update_program_qr3plus_qr5plus>, is not int string"},
        {with_header("tags=20240315-12a\n", "abcd"), -1, "<fpga_update_program_qr3plus_qr5plus>, time2 is not int string"},
        {broken, -3, "<fpga_update_program_qr3plus_qr5plus> check sum fail"},
        {"short", -1, "<fpga_update_program_qr3plus_qr5plus> read fail"},
    };
    for (const Case &c : cases) {
        board().clear_log();
        board().write_file("/data/update.bin", c.file);
        EXPECT_EQ(fpga_update_program_qr3plus_qr5plus("/data/update.bin"), c.code) << c.error;
        EXPECT_EQ(errors(), std::vector<std::string>{"E/vexa_system_bi_fpga: " + c.error});
    }
    EXPECT_THAT(sent(kSpi, 'w'), IsEmpty());
    EXPECT_EQ(running_tag(), tag_of(1));
}

TEST_F(QrUpdateTest, AnUnreadableOldTagStopsTheUpdate)
{
    knobs("spi=fail\n");
    double ms = elapsed_ms([&] { EXPECT_EQ(fpga_update_program_qr3plus_qr5plus(kFirmware), -2); });
    EXPECT_GE(ms, 1000.0) << "one retry after 1 s";
    EXPECT_EQ(errors().back(), "E/vexa_system_bi_fpga: <fpga_update_program_qr3plus_qr5plus> get old fpga tag fail");
}

} // namespace
} // namespace vexa::test
