#include "fpga_fixture.h"

namespace vexa::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string record(uint8_t tag_hi, uint8_t tag_lo, const std::string &data, uint32_t length = 0)
{
    if (length == 0)
        length = uint32_t(data.size());
    std::string r = {0, 0, char(tag_hi), char(tag_lo), char(length >> 24), char(length >> 16),
                     char(length >> 8), char(length)};
    return r + data;
}

class SpiStreamTest : public FpgaTest {
protected:
    static constexpr const char *kScreen = "/dev/block/by-name/screen";
    const Bytes kSourceRead = hex("43 00 23 00 00");
    const Bytes kOutputsOn = hex("45 00 24 01 00");
};

TEST_F(SpiStreamTest, EachRecordGoesAsOneFrameThenTheOutputsGoOn)
{
    board().write_file(kScreen, record(0x00, 0x30, "abc") + record(0x01, 0x02, std::string(300, 'x')));
    double ms = slept_ms([&] { EXPECT_EQ(bi_fpga_load_parameter(), 0); });
    const auto frames = sent(kSpi);
    ASSERT_EQ(frames.size(), 5u);
    EXPECT_EQ(frames[0], hex("45 00 30 61 62 63 00"));
    EXPECT_EQ(frames[1].size(), 304u);
    EXPECT_EQ(Bytes(frames[1].begin(), frames[1].begin() + 3), hex("45 01 02"));
    EXPECT_EQ(frames[2], kSourceRead);
    EXPECT_EQ(frames[3], kOutputsOn);
    EXPECT_EQ(frames[4], hex("43 00 24 00 00"));
    // The records landed in the register window.
    EXPECT_EQ(fpga().regs(kWindow + 0x30, 3), bytes("abc"));
    EXPECT_EQ(fpga().reg(kWindow + 0x24), 1) << "Ethernet outputs on";
    EXPECT_GE(ms, 5003.0) << "3 ms before the source read, 5 s before the outputs";
    EXPECT_THAT(bi_log(), Contains("I/vexa_system_bi_fpga: <bi_fpga_load_parameter> source_mode is 48"));
    EXPECT_THAT(bi_log(), Contains("D/vexa_system_bi_fpga: <bi_fpga_load_parameter>, data_size=300"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(SpiStreamTest, AZeroFirstHeaderStillReadsTheSourceAndEnablesTheOutputs)
{
    // The default board's screen partition is all zeros.
    EXPECT_EQ(bi_fpga_load_parameter(), 0);
    EXPECT_THAT(sent(kSpi), ElementsAre(kSourceRead, kOutputsOn, hex("43 00 24 00 00")));
}

TEST_F(SpiStreamTest, NoPictureSourceLeavesTheOutputsAlone)
{
    knobs("source_mode=0x58\n");
    double ms = slept_ms([&] { EXPECT_EQ(bi_fpga_load_parameter(), 0); });
    EXPECT_THAT(sent(kSpi), ElementsAre(kSourceRead));
    EXPECT_LT(ms, 1000.0);
    EXPECT_EQ(fpga().reg(kWindow + 0x24), 0);
}

TEST_F(SpiStreamTest, TheStreamEndsAtABadLength)
{
    board().write_file(kScreen, record(0, 0x40, "ok") + record(0, 0x50, "x", 51201) + record(0, 0x60, "no"));
    EXPECT_EQ(bi_fpga_load_parameter(), 0);
    const auto frames = sent(kSpi);
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(frames[0], hex("45 00 40 6f 6b 00"));
    EXPECT_EQ(frames[1], kSourceRead) << "nothing after the bad record";
}

TEST_F(SpiStreamTest, ARecordPastTheMegabyteIsNotSent)
{
    // Records up to 24 bytes short of 1 MiB, then one that claims more data
    // than the 1 MiB that is read.
    std::string stream;
    for (int i = 0; i < 20; ++i)
        stream += record(0, 0x40, std::string(51200, 'a'));
    stream += record(0, 0x40, std::string(24384, 'a'));
    ASSERT_EQ(stream.size(), 1048552u);
    stream += record(0, 0x50, std::string(8, 'b'), 100);
    board().write_file(kScreen, stream);
    EXPECT_EQ(bi_fpga_load_parameter(), 0);
    EXPECT_EQ(sent(kSpi).size(), 24u) << "21 records, the source read, the outputs";
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: <bi_fpga_load_parameter> the record at 1048552 "
                                      "(100 bytes) runs past the 1048576 bytes read, not sent"));
}

TEST_F(SpiStreamTest, EveryFailureCodeStillReadsTheSource)
{
    struct Case {
        const char *key;
        std::optional<std::string> value;
        int32_t code;
        const char *error;
        bool source_read; // the source read needs a usable spi_fpga
    };
    const Case cases[] = {
        {"fpga_parameter", std::string(""), -2, "<bi_fpga_load_parameter>, devices not found", true},
        {"fpga_parameter", std::nullopt, -3, "<bi_fpga_load_parameter>, devices not foundi, is null", true},
        {"fpga_parameter", std::string("/data/none.bin"), -4, "open /data/none.bin failed", true},
        {"spi_fpga", std::string(""), -4, "<bi_fpga_load_parameter>, devices not found", false},
        {"spi_fpga", std::nullopt, -5, "<bi_fpga_load_parameter>, devices not foundi, is null", false},
        {"spi_fpga", std::string("/dev/spidev9.9"), -6, "/dev/spidev9.9 file inexistence ... ", false},
    };
    for (const Case &c : cases) {
        // The INI changes under the attached board, so no device stands at a
        // new spi_fpga path.
        reload(sim::Board::Builder());
        board().write_file("/vendor/etc/product.ini", ini_with(c.key, c.value));
        bi_init_product_config();
        board().clear_log();
        EXPECT_EQ(bi_fpga_load_parameter(), c.code) << c.key;
        const auto errs = errors();
        ASSERT_FALSE(errs.empty()) << c.key;
        EXPECT_EQ(errs[0], std::string("E/vexa_system_bi_fpga: ") + c.error);
        if (c.source_read)
            EXPECT_THAT(sent(kSpi), ElementsAre(kSourceRead, kOutputsOn, hex("43 00 24 00 00"))) << c.key;
        else
            EXPECT_EQ(errs.back(), "E/vexa_system_bi_fpga: <bi_fpga_load_parameter> read fpga source_mode error");
    }
}

TEST_F(SpiStreamTest, AFailedRecordWriteEndsTheLoad)
{
    board().write_file(kScreen, record(0, 0x40, "one") + record(0, 0x44, "two"));
    board().inject(sim::Fault::on("write").at(kSpi).after(1).once());
    EXPECT_EQ(bi_fpga_load_parameter(), -6);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: write fpga program failed, -1"));
    EXPECT_EQ(sent(kSpi)[1], kSourceRead) << "the second record never went";
}

TEST_F(SpiStreamTest, Family3HandsOverToTheCardsAndOtherFamiliesSendNothing)
{
    PRODUCT_NUM = 3;
    EXPECT_EQ(bi_fpga_load_parameter(), 19) << "a one-byte card write";
    EXPECT_EQ(sent(kSpi)[0], hex("45 04 00 01 00 00 00 01 00 00 01 00 02 01 00 00 5b 55 00"));
    PRODUCT_NUM = 7;
    fpga().clear_record();
    EXPECT_EQ(bi_fpga_load_parameter(), 0);
    EXPECT_THAT(sent(kSpi), IsEmpty());
}

TEST_F(SpiStreamTest, OutputsThatNeverComeOnGiveUpAfter99Rounds)
{
    knobs("net_outputs=stuck\n");
    double ms = slept_ms([&] { EXPECT_EQ(fpga_set_netmouth_enabling(), -1); });
    EXPECT_EQ(sent(kSpi).size(), 198u);
    EXPECT_GE(ms, 99 * 5.0);
    EXPECT_THAT(errors(), ElementsAre("E/vexa_system_bi_fpga: fpga_set_netmouth_enabling: network outputs "
                                      "still off after 99 rounds"));
    knobs("");
    EXPECT_EQ(fpga_set_netmouth_enabling(), 0);
    EXPECT_EQ(bi_log().back(), "I/vexa_system_bi_fpga: fpga_set_netmouth_enabling: network outputs on after 1 rounds");
}

} // namespace
} // namespace vexa::test
