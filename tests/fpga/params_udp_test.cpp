#include "fpga_fixture.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char *kHex = "/vendor/etc/fpga/hex_parameter.bin";

std::string pattern(size_t n, uint8_t seed)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i)
        s[i] = char(seed + i * 13);
    return s;
}

class UdpParamsTest : public FpgaTest {
protected:
    // The UDP writes as (address, length).
    std::vector<std::pair<uint32_t, size_t>> writes()
    {
        std::vector<std::pair<uint32_t, size_t>> out;
        for (auto &w : fpga().udp_writes())
            out.emplace_back(w.address, w.data.size());
        return out;
    }
    using W = std::pair<uint32_t, size_t>;
};

TEST_F(UdpParamsTest, BlocksGoOverUdpExceptTheLast)
{
    const std::string a = pattern(1025, 1), b = pattern(1024, 2);
    const std::string file = sim::make_fpga_block_file({{0x200000, a}, {0x300000, b}, {0x100060, "\x01"}});
    board().write_file("/data/params.bin", file);
    double ms = slept_ms([&] { EXPECT_EQ(bi_fpga_load_screen_params_by_udp("/data/params.bin", kHex), 0); });
    EXPECT_THAT(writes(), ElementsAre(W{0x100050, 1}, W{0x200000, 1024}, W{0x200800, 1}, W{0x300000, 1024},
                                      W{0x1DE, 1}, W{0x100050, 1}));
    const auto udp = fpga().udp_writes();
    EXPECT_EQ(udp[0].data, Bytes{0x02}) << "black screen";
    EXPECT_EQ(udp[1].data, bytes(a.substr(0, 1024)));
    // The tail byte comes from the data 2048 bytes into the block, as sent.
    EXPECT_EQ(udp[2].data, Bytes{uint8_t(file[12 + 2048])});
    EXPECT_EQ(udp[4].data, Bytes{0x5A}) << "network outputs";
    EXPECT_EQ(udp[5].data, Bytes{0x00}) << "picture on";
    EXPECT_EQ(fpga().reg(0x1DE), 0x5A);
    EXPECT_EQ(fpga().reg(0x100060), 0) << "the last block is never written";
    EXPECT_GE(ms, 600.0) << "seven stable readings 100 ms apart";
    EXPECT_LT(ms, 900.0);
    EXPECT_THAT(fw_log(), Contains("I/vexa_system_fw_update: Enable the input source once it has stabilized"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(UdpParamsTest, EveryBlockLengthSplitsAsTheFpgaExpects)
{
    struct Case {
        uint32_t length;
        std::vector<W> chunks; // offset from the base, length
    };
    const Case cases[] = {
        {1, {{0, 1}}},
        {1024, {{0, 1024}}},
        {1025, {{0, 1024}, {2048, 1}}},
        {2048, {{0, 1024}, {2048, 1024}}},
        {2049, {{0, 1024}, {1024, 1024}, {4096, 1}}},
        {3072, {{0, 1024}, {1024, 1024}, {4096, 1024}}},
        {3073, {{0, 1024}, {1024, 1024}, {2048, 1024}, {6144, 1}}},
    };
    for (const Case &c : cases) {
        fpga().clear_record();
        const std::string file =
            sim::make_fpga_block_file({{0x400000, pattern(c.length, 3)}, {0x100060, "\x01"}});
        EXPECT_EQ(fpgaSendParaDatabyUdp(reinterpret_cast<const uint8_t *>(file.data()), 2, uint32_t(file.size())),
                  0);
        std::vector<W> expected = {{0x100050, 1}};
        for (auto [offset, n] : c.chunks)
            expected.emplace_back(0x400000 + offset, n);
        expected.insert(expected.end(), {{0x1DE, 1}, {0x100050, 1}});
        EXPECT_EQ(writes(), expected) << c.length << " bytes";
    }
}

TEST_F(UdpParamsTest, ACountOf0Or0xFFFFFFFFFallsBackToTheHexFile)
{
    for (const std::string &screen : {std::string(16, '\0'), std::string(4096, '\xFF')}) {
        fpga().clear_record();
        board().clear_log();
        board().write_file("/data/screen.bin", screen);
        EXPECT_EQ(bi_fpga_load_screen_params_by_udp("/data/screen.bin", kHex), 0);
        // The default hex file: 2048 bytes at 0x200000, 512 at 0x300000, the enable.
        EXPECT_THAT(writes(), ElementsAre(W{0x100050, 1}, W{0x200000, 1024}, W{0x200800, 1024},
                                          W{0x300000, 512}, W{0x1DE, 1}, W{0x100050, 1}));
        EXPECT_THAT(fw_log(),
                    Contains("E/vexa_system_fw_update: bi_fpga_load_screen_params_by_udp: verify_screen failed !!!"));
    }
    EXPECT_THAT(fw_log(), Contains("E/vexa_system_fw_update: verify_param invalid blocknum = -1, set blocknum as 0"));
}

TEST_F(UdpParamsTest, ASourceThatNeverSettlesIsWaitedForThreeSeconds)
{
    knobs("source=none\n");
    // The wait counts the board's time, the host's included; the sleeps
    // are 100 ms each.
    double slept = 0;
    const double ms = elapsed_ms([&] {
        slept = slept_ms([&] { EXPECT_EQ(bi_fpga_load_screen_params_by_udp(kHex, kHex), 0); });
    });
    EXPECT_GE(ms, 3000.0);
    EXPECT_LT(slept, 3200.0);
    EXPECT_THAT(fw_log(), Contains("I/vexa_system_fw_update: fpgaSendParaDatabyUdp: More than 2 second passed, "
                                   "continuing..."));
    knobs("source=dvi\n");
    slept = slept_ms([&] { EXPECT_EQ(bi_fpga_load_screen_params_by_udp(kHex, kHex), 0); });
    EXPECT_LT(slept, 900.0) << "a stable DVI source counts too";
}

TEST_F(UdpParamsTest, BrokenFilesAreRefused)
{
    board().write_file("/data/short.bin", sim::make_fpga_block_file({{0x200000, std::string(5000, 'a')}}).substr(0, 100));
    board().write_file("/data/zero.bin", sim::make_fpga_block_file({{0x200000, ""}}));
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp("/data/short.bin", kHex), -1);
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp("/data/zero.bin", kHex), -1);
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp("/data/none.bin", kHex), -1);
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp(nullptr, kHex), -1);
    const std::string longer = "/data/" + std::string(60, 'p') + ".bin";
    board().write_file(longer, sim::make_fpga_block_file({{0x200000, "ab"}, {0x100060, "\x01"}}));
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp(longer.c_str(), kHex), -1);
    EXPECT_THAT(writes(), IsEmpty());
    EXPECT_THAT(errors(),
                ElementsAre("E/vexa_system_fw_update: bi_fpga_load_screen_params_by_udp: the blocks of "
                            "/data/short.bin run past its end (5012 > 100 bytes)",
                            "E/vexa_system_fw_update: cal_block_para_length invalid dataLen = 0",
                            "E/vexa_system_fw_update: read_para_blcoknum_offest error",
                            "E/vexa_system_fw_update: the para(/data/none.bin) doesn't exist.",
                            "E/vexa_system_fw_update: read_para_blcoknum_offest error",
                            "E/vexa_system_fw_update: screen_path or hex_path is NULL",
                            "E/vexa_system_fw_update: bi_fpga_load_screen_params_by_udp: " + longer +
                                " is longer than 63 bytes"));
}

TEST_F(UdpParamsTest, AnFpgaThatDoesNotAnswerFailsTheTransfer)
{
    knobs("udp=silent\n");
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp(kHex, kHex), -1);
    EXPECT_THAT(fw_log(), Contains("D/vexa_system_fw_update: fpgaSendParaDatabyUdp: WriteFPGABlock_setblack ret = -1"));
    knobs("");
    board().inject(sim::Fault::on("WriteFPGABlock").at("0x300000"));
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp(kHex, kHex), -1);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_fw_update: send_emmc_block_param: WriteFPGABlock failed, ret = -1",
                                      "E/vexa_system_fw_update: fpgaSendParaDatabyUdp: send_emmc_block_param_error, "
                                      "ret = -1"));
    board().clear_faults();
    board().inject(sim::Fault::on("WriteFPGABlock").at("0x1de"));
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp(kHex, kHex), -1);
    EXPECT_THAT(fw_log(), Contains("D/vexa_system_fw_update: fpgaSendParaDatabyUdp: WriteFPGABlock_netenable ret = -1"));
    EXPECT_EQ(fpga().reg(0x100050), 0x02) << "the screen stays black";
}

} // namespace
} // namespace vexa::test
