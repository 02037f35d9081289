#include "fpga_fixture.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using P = std::pair<uint32_t, size_t>;

class ScreenSpiTest : public FpgaTest {
protected:
    static constexpr const char *kScreen = "/dev/block/by-name/screen";

    // The packets of the default "/system/etc/led_screen.hex", before the
    // status wait.
    std::vector<P> default_packets()
    {
        return {
            // topology: four lines of the block at 0x10B00000
            {0x10B00000, 22}, {0x10B00010, 22}, {0x10B00020, 22}, {0x10B00030, 22},
            // the blocks in table order
            {0x10000103, 8}, {0x1000010B, 7}, {0x10018000, 5126}, {0x10300000, 4102}, {0x10A43000, 518},
            {0x10400000, 2054}, {0x10410000, 2054}, {0x10420000, 2054}, {0x10810000, 4102},
            // the fixed packets and colour space
            {0x00000020, 7}, {0x10000700, 7}, {0x10000706, 7}, {0x10000707, 7}, {0x03000000, 7},
            {0x001508A0, 33}, {0x10A40000, 33}, {0x10A40200, 33},
            // per-block extras, the start, the network gaps
            {0x1000011B, 7}, {0x10A43000, 262}, {0x10A43100, 262}, {0x10000100, 7}, {0x10800000, 7},
        };
    }
    Bytes packet_to(uint32_t address)
    {
        for (auto &p : sent(kFpgaSpi, 'w'))
            if (p.size() >= 5 && (uint32_t(p[1]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 8 | p[4]) == address)
                return p;
        return {};
    }
};

TEST_F(ScreenSpiTest, TheDefaultParametersGoAsTheirPackets)
{
    // The screen partition is empty: the parameters come from led_screen.hex.
    double ms = slept_ms([&] { EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0); });
    EXPECT_EQ(packets(), default_packets());
    EXPECT_GE(ms, 26 * 10.0 + 3 * 100.0) << "10 ms a packet, 100 ms after each gamma packet";
    EXPECT_EQ(packet_to(0x00000020), hex("02 00 00 00 20 01 00"));
    EXPECT_EQ(packet_to(0x10000700), hex("02 10 00 07 00 05 00"));
    EXPECT_EQ(packet_to(0x10000706), hex("02 10 00 07 06 10 00"));
    EXPECT_EQ(packet_to(0x10000707), hex("02 10 00 07 07 06 00"));
    EXPECT_EQ(packet_to(0x03000000), hex("02 03 00 00 00 05 00"));
    EXPECT_EQ(packet_to(0x001508A0), hex("02 00 15 08 a0 b4 12 00 00 00 00 a9 fd 00 00 b4 12 00 00 a9 fd 00 "
                                         "00 00 00 b4 12 a9 fd 01 00 00 00"));
    EXPECT_EQ(packet_to(0x10A40000), hex("02 10 a4 00 00 ce 06 e3 16 50 02 00 00 55 fc ab f3 00 10 00 20 00 "
                                         "10 78 f1 88 fe 00 20 00 00 00 00"));
    EXPECT_EQ(packet_to(0x10A40200), hex("02 10 a4 02 00 00 10 00 00 32 19 ce e6 00 10 01 fd 83 f8 7c 0a 00 "
                                         "10 b1 1d 00 00 4f e2 01 00 00 00"));
    EXPECT_EQ(packet_to(0x10000100), hex("02 10 00 01 00 01 00"));
    EXPECT_EQ(packet_to(0x10800000), hex("02 10 80 00 00 01 00")) << "the gap table at 0x10810000";
    // The block at 0x10000100 (bytes 1 + 7i): two bytes at 3, byte 11, byte 27.
    EXPECT_EQ(packet_to(0x10000103), hex("02 10 00 01 03 16 1d 00"));
    EXPECT_EQ(packet_to(0x1000010B), hex("02 10 00 01 0b 4e 00"));
    EXPECT_EQ(packet_to(0x1000011B), hex("02 10 00 01 1b be 00"));

    EXPECT_EQ(free_routing_topology[0], 4u);
    EXPECT_EQ(free_routing_topology[1], 0u);
    EXPECT_EQ(st_func_offset_map_tab[1].fpga_addr, 0x10018000u);
    EXPECT_EQ(st_func_offset_map_tab[1].data_len, 5120u);
    EXPECT_EQ(st_func_offset_map_tab[1].offset, 32u);
    EXPECT_EQ(buffer[25], 1) << "the status record was read";
    EXPECT_EQ(buffer[23], 3);
    EXPECT_THAT(fw_log(), Contains("D/vexa_system_fw_update: send_gamma_paramter 0x10400000 "));
    EXPECT_THAT(fw_log(), Contains("D/vexa_system_fw_update: send_netgape_paramter 0x10810000 "));
    EXPECT_EQ(fw_log().back(), "I/vexa_system_fw_update: fpgaLoadScreenParamsBySpi already net enable");
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(ScreenSpiTest, HdrSendsTheYuvColourSpaceAndTheGammaSwitch)
{
    board().set_property("sys.hdr.realyenable", "true");
    EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0);
    EXPECT_EQ(packet_to(0x001508A0), hex("02 00 15 08 a0 5a 09 00 00 7b 0d 5a f1 5a 09 7f fe c7 fa 8f 05 5a "
                                         "09 34 11 00 00 a1 ed 02 00 00 00"));
    auto p = packets();
    const auto start = std::find(p.begin(), p.end(), P{0x10000100, 7});
    ASSERT_NE(start, p.end());
    EXPECT_EQ(*(start - 1), (P{0x10200109, 7})) << "the gamma switch just before the start";
    EXPECT_EQ(packet_to(0x10200109), hex("02 10 20 01 09 a5 00"));
    EXPECT_THAT(fw_log(), Contains("D/vexa_system_fw_update: sendFixedParameter spi_send_data send_csc_1_yuv 666"));
    EXPECT_THAT(fw_log(),
                Contains("D/vexa_system_fw_update: sendFixedParameter spi_send_data send_gamma_sdr_10bit 777"));
}

TEST_F(ScreenSpiTest, TheScreenPartitionComesFirst)
{
    std::string block(4096 + 300, '\0');
    block[265] = '\x77';
    board().write_file(kScreen, sim::make_fpga_block_file({{0x10200000, block}}));
    EXPECT_EQ(get_block_num_for_screen_params(), 1);
    EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0);
    EXPECT_THAT(packets(), ElementsAre(P{0x10200000, 4102}, P{0x00000020, 7}, P{0x10000700, 7}, P{0x10000706, 7},
                                       P{0x10000707, 7}, P{0x03000000, 7}, P{0x001508A0, 33}, P{0x10A40000, 33},
                                       P{0x10A40200, 33}, P{0x10200109, 7}, P{0x10000100, 7}, P{0x10800000, 7}));
    EXPECT_EQ(packet_to(0x10200109), hex("02 10 20 01 09 77 00")) << "data byte 265";
    EXPECT_EQ(packet_to(0x10800000), hex("02 10 80 00 00 00 00")) << "no gap table";
}

TEST_F(ScreenSpiTest, ACountOf61FallsBackToLedScreenHex)
{
    board().write_file(kScreen, sim::make_fpga_block_file(std::vector<std::pair<uint32_t, std::string>>(
                                    61, {0x10300000, std::string(16, 'x')})));
    EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0);
    EXPECT_EQ(packets(), default_packets());
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_fw_update: parse_emmc_block invalid blocknum = 61, set "
                                      "blocknum as 0"));
}

TEST_F(ScreenSpiTest, WithoutParametersNothingIsSent)
{
    board().write_file("/system/etc/led_screen.hex", std::string(4, '\0'));
    EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0);
    board().remove_file("/system/etc/led_screen.hex");
    EXPECT_EQ(fpgaLoadScreenParamsBySpi(), -1);
    EXPECT_THAT(sent(kFpgaSpi), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_fw_update: fpgaLoadScreenParamsBySpi: first_one = 1 failed "
                                      "to read screen paramter"));
}

TEST_F(ScreenSpiTest, AStatusThatNeverShowsReadyIsWaitedForFourSeconds)
{
    knobs("status=never\n");
    // The wait counts the board's time, the host's included.
    double ms = elapsed_ms([&] { EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0); });
    EXPECT_GE(ms, 4000.0 + 26 * 10.0 + 300.0);
    EXPECT_THAT(fw_log(),
                Contains("I/vexa_system_fw_update: fpgaLoadScreenParamsBySpi: More than 3 second passed, continuing..."));
    EXPECT_EQ(packets().back(), (P{0x10800000, 7})) << "the gaps are enabled all the same";
}

TEST_F(ScreenSpiTest, TheParseStopsAtAZeroBlockAndAtTheEndOfTheImage)
{
    std::vector<uint8_t> image(BI_FPGA_SCREEN_BUFFER_SIZE, 0), packed(BI_FPGA_SCREEN_BUFFER_SIZE, 0);
    std::string file = sim::make_fpga_block_file({{0x10300000, "abcd"}, {0, "zz"}, {0x10310000, "ef"}});
    std::copy(file.begin(), file.end(), image.begin());
    EXPECT_EQ(parse_emmc_block(packed.data(), image.data()), 3) << "the header's count";
    EXPECT_EQ(st_func_offset_map_tab[0].fpga_addr, 0x10300000u);
    EXPECT_EQ(st_func_offset_map_tab[1].fpga_addr, 0u);
    EXPECT_EQ(std::string(packed.begin(), packed.begin() + 4), "abcd");

    file = sim::make_fpga_block_file({{0x10300000, "abcd"}});
    std::copy(file.begin(), file.end(), image.begin());
    image[8] = image[9] = 0x7F; // a length of 0x7F7F0004
    EXPECT_EQ(parse_emmc_block(packed.data(), image.data()), 1);
    EXPECT_EQ(st_func_offset_map_tab[0].fpga_addr, 0u) << "nothing past the image is taken";
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_fw_update: parse_emmc_block invalid fpgaAddr, or datalen.",
                                      "E/vexa_system_fw_update: parse_emmc_block: block 0 (0x7f7f0004 bytes) runs "
                                      "past the screen parameters"));
}

TEST_F(ScreenSpiTest, ABrokenPacketWriteDoesNotStopTheSequence)
{
    board().inject(sim::Fault::on("open").at(kFpgaSpi).after(2).once());
    EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0);
    auto expected = default_packets();
    expected.erase(expected.begin() + 2);
    EXPECT_EQ(packets(), expected);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_fw_update: spi_send_data: open /dev/fpga_spi failed !!!"));
}

} // namespace
} // namespace vexa::test
