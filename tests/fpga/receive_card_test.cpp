#include "fpga_fixture.h"

namespace vexa::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ReceiveCardTest : public FpgaTest {
protected:
    void SetUp() override
    {
        FpgaTest::SetUp();
        PRODUCT_NUM = 2;
    }
};

TEST_F(ReceiveCardTest, WriteSendsTheFrameThenEnableAndDisable)
{
    uint8_t data[] = {0xAA, 0xBB, 0xCC, 0xDD};
    double ms = elapsed_ms([&] { EXPECT_EQ(bi_fpga_receive_card_test(1, 1, 0x1000, data, 4), 22); });
    // Checksum 0x5555 + bytes 3..18 = 0x5879, little-endian.
    EXPECT_THAT(sent(kSpi), ElementsAre(hex("45 04 00 01 00 00 00 01 00 00 10 00 00 04 00 AA BB CC DD 79 58 00"),
                                        hex("45 01 00 01 00"), hex("45 01 00 00 00")));
    // Every card of the port took the write; the other ports did not.
    EXPECT_EQ(fpga().card_registers(1, 0, 0x1000, 4), Bytes(data, data + 4));
    EXPECT_EQ(fpga().card_registers(1, 1, 0x1000, 4), Bytes(data, data + 4));
    EXPECT_EQ(fpga().card_registers(2, 0, 0x1000, 4), Bytes(4, 0));
    EXPECT_GE(ms, 12.0) << "10 ms before the frame, 1 ms before enable and disable";
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(ReceiveCardTest, ReadPollsUntilReadyAndReturnsTheReply)
{
    uint8_t data[] = {1, 2, 3};
    ASSERT_EQ(bi_fpga_receive_card_test(0, 1, 0x2000100, data, 3), 21);
    fpga().clear_record();
    board().clear_log();
    uint8_t back[3] = {};
    EXPECT_EQ(bi_fpga_receive_card_test(0, 0, 0x2000100, back, 3), 7) << "the reply transfer: 3 + 4 bytes";
    EXPECT_EQ(Bytes(back, back + 3), Bytes(data, data + 3));
    // The card answers 33 ms after the request: the first poll (20 ms) finds
    // it busy, the second (40 ms) ready.
    const auto frames = sent(kSpi);
    ASSERT_EQ(frames.size(), 7u);
    EXPECT_EQ(frames[0], hex("45 04 00 00 00 00 00 00 00 00 01 00 02 03 00 5b 55 00")) << "18-byte read request";
    EXPECT_EQ(frames[3], hex("43 01 00 00 00")) << "the first poll";
    EXPECT_EQ(frames[4], hex("45 01 00 00 00")) << "disabled again after it";
    EXPECT_EQ(frames[5], hex("43 01 00 00 00")) << "the second poll";
    EXPECT_EQ(frames[6], hex("43 08 02 00 00 00 00"));
    EXPECT_THAT(bi_log(), ElementsAre("D/vexa_system_bi_fpga: <bi_fpga_receive_card_test>, read data: 04",
                                      "D/vexa_system_bi_fpga: <bi_fpga_receive_card_test>, read data: 84",
                                      "D/vexa_system_bi_fpga: <bi_fpga_receive_card_test>, read data is ok"));
}

TEST_F(ReceiveCardTest, ACardThatNeverAnswersIsStillReadAfterTenRounds)
{
    knobs("silent_ports=3\n");
    uint8_t back[2] = {9, 9};
    const double ms = elapsed_ms([&] { EXPECT_EQ(bi_fpga_receive_card_test(3, 0, 0x10, back, 2), 6); });
    EXPECT_EQ(back[0], 0);
    EXPECT_EQ(back[1], 0);
    const auto polls = sent(kSpi, 'x');
    ASSERT_EQ(polls.size(), 11u) << "ten polls and the reply read";
    EXPECT_EQ(polls[10], hex("43 08 02 00 00 00"));
    size_t disables = 0;
    for (auto &frame : sent(kSpi, 'w'))
        disables += frame == hex("45 01 00 00 00");
    EXPECT_EQ(disables, 11u) << "one after sending, one after every poll";
    EXPECT_GE(ms, 200.0);
    EXPECT_LT(ms, 260.0);
}

TEST_F(ReceiveCardTest, FrameLengthBounds)
{
    std::vector<uint8_t> data(1025, 0x5A);
    EXPECT_EQ(bi_fpga_receive_card_test(1, 1, 0, data.data(), 1024), 1042);
    ASSERT_EQ(sent(kSpi).size(), 3u);
    EXPECT_EQ(sent(kSpi)[0].size(), 1042u);
    fpga().clear_record();
    board().clear_log();
    EXPECT_EQ(bi_fpga_receive_card_test(1, 1, 0, data.data(), 1025), -2);
    EXPECT_EQ(bi_fpga_receive_card_test(1, 0, 0, data.data(), -1), -2);
    EXPECT_THAT(sent(kSpi), IsEmpty());
    EXPECT_THAT(bi_log(), ElementsAre("E/vexa_system_bi_fpga: <bi_fpga_receive_card_test> len error",
                                      "E/vexa_system_bi_fpga: <bi_fpga_receive_card_test> len error"));
}

TEST_F(ReceiveCardTest, RefusalsComeInTheirOrder)
{
    uint8_t byte = 0;
    PRODUCT_NUM = 0;
    EXPECT_EQ(bi_fpga_receive_card_test(1, 1, 0x80000000, nullptr, 2000), -99);
    PRODUCT_NUM = 3;
    EXPECT_EQ(bi_fpga_receive_card_test(1, 1, 0x80000000, nullptr, 2000), -1);
    EXPECT_EQ(bi_fpga_receive_card_test(1, 1, 0x7FFFFFFF, nullptr, 2000), -2);
    EXPECT_EQ(bi_fpga_receive_card_test(1, 1, 0x7FFFFFFF, nullptr, 1), -3);
    EXPECT_EQ(bi_fpga_receive_card_test(1, 2, 0, &byte, 1), 0) << "neither read nor write";
    EXPECT_THAT(sent(kSpi), IsEmpty());
    EXPECT_THAT(bi_log(), ElementsAre("E/vexa_system_bi_fpga: <bi_fpga_receive_card_test> The device is not supported",
                                      "E/vexa_system_bi_fpga: <bi_fpga_receive_card_test> regaddr error",
                                      "E/vexa_system_bi_fpga: <bi_fpga_receive_card_test> len error",
                                      "E/vexa_system_bi_fpga: <bi_fpga_receive_card_test> data is null"));
}

TEST_F(ReceiveCardTest, RegisterWindowBoundsAndTheRunningTag)
{
    uint8_t out[16];
    EXPECT_EQ(bi_fpga_read_0x02000000(0x2000200, out, 0), 4);
    EXPECT_THAT(sent(kSpi), ElementsAre(hex("43 02 00 00")));
    EXPECT_EQ(bi_fpga_read_0x02000000(0x2000201, out, 0), -1);
    EXPECT_EQ(bi_fpga_read_0x02000000(0x1FFFFFF, out, 0), -1);
    EXPECT_EQ(bi_fpga_read_0x02000000(0x20001F0, out, 17), -2);
    EXPECT_EQ(bi_fpga_read_0x02000000(0x20001F0, out, 16), 20);
    EXPECT_EQ(bi_fpga_read_0x02000000(0x2000000, out, -1), -2);

    uint8_t tag[7];
    EXPECT_EQ(bi_fpga_read_0x02000000(0x20000F0, tag, 7), 11);
    EXPECT_EQ(Bytes(tag, tag + 7), tag_of(1)) << "the default board runs program 1";
    PRODUCT_NUM = 0;
    fpga().clear_record();
    EXPECT_EQ(bi_fpga_read_0x02000000(0x20000F0, tag, 7), 0);
    EXPECT_THAT(sent(kSpi), IsEmpty()) << "no transfer outside families 2 and 3";
}

TEST_F(ReceiveCardTest, FailedTransfersAreReported)
{
    knobs("spi=fail\n");
    uint8_t out[4] = {};
    EXPECT_EQ(bi_fpga_read_0x02000000(0x2000000, out, 4), -3);
    EXPECT_EQ(bi_fpga_receive_card_test(1, 1, 0, out, 4), -4);
    EXPECT_EQ(bi_fpga_receive_card_test(1, 0, 0, out, 4), -5);
    EXPECT_EQ(send_data_to_receive_card(nullptr, 4), -1);
    EXPECT_THAT(bi_log(), ElementsAre("E/vexa_system_bi_fpga: <bi_fpga_read_0x02000000> reag error",
                                      "E/vexa_system_bi_fpga: <send_data_to_receive_card> write_bag fail",
                                      "E/vexa_system_bi_fpga: <bi_fpga_receive_card_test> write fail",
                                      "E/vexa_system_bi_fpga: <send_data_to_receive_card> write_bag fail",
                                      "E/vexa_system_bi_fpga: <bi_fpga_receive_card_test> write fail",
                                      "E/vexa_system_bi_fpga: <send_data_to_receive_card>, data/data_len error"));
    // The enable and the disable fail on their own.
    knobs("");
    board().inject(sim::Fault::on("hal_spi_write").after(1).once());
    EXPECT_EQ(send_data_to_receive_card(out, 4), -3);
    board().inject(sim::Fault::on("hal_spi_write").after(2).once());
    EXPECT_EQ(send_data_to_receive_card(out, 4), -4);
}

TEST_F(ReceiveCardTest, WithoutAnSpiDeviceNothingIsSent)
{
    reload(sim::Board::Builder().ini(ini_with("spi_fpga", std::nullopt)));
    PRODUCT_NUM = 2;
    uint8_t byte = 0;
    EXPECT_EQ(bi_fpga_spi_write(&byte, 1), -1);
    EXPECT_EQ(bi_fpga_spi_write_read(&byte, 1), -1);
    EXPECT_THAT(bi_log(),
                ElementsAre("E/vexa_system_bi_fpga: bi_fpga_spi_write:bi_product is NULL or spi_fpga.path is not set, need to check ini file.",
                            "E/vexa_system_bi_fpga: bi_fpga_spi_write_read:bi_product is NULL or spi_fpga.path is not set, need to check ini file."));
}

} // namespace
} // namespace vexa::test
