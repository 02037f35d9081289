// The configurable self-test on the default board.
#include <cstring>

#include "selftest/test_items.h"
#include "sim/i2c/i2c_chips.h"
#include "support/board_fixture.h"
#include "support/ini_text.h"
#include "vexasdk/selftest.h"

namespace {

class SelfTest : public vexa::test::BoardTest {
protected:
    void SetUp() override
    {
        BoardTest::SetUp();
        for (auto &entry : test_option_table)
            entry.enable = 0;
    }
    // Loads the configuration with self_test_items set to items.
    int configure(const std::string &items)
    {
        rebuild(vexa::sim::Board::Builder().ini(vexa::test::ini_with("self_test_items", items)));
        EXPECT_EQ(parseConfigInfo(), 0);
        board().clear_log();
        return parseAndConfigTestItem();
    }
    std::string run(bool *failed = nullptr, int *count = nullptr)
    {
        uint8_t reply[600];
        std::memset(reply, 0xee, sizeof reply);
        const int n = runSelfTestAndGetResult(reply, sizeof reply);
        EXPECT_GE(n, 10);
        if (n < 10)
            return "";
        EXPECT_EQ(reply[0], 0xF4);
        EXPECT_EQ(reply[1], 0xFF);
        EXPECT_EQ(reply[3], 0xFF);
        EXPECT_EQ(reply[4] | reply[5], 0);
        EXPECT_EQ(reply[6] | (reply[7] << 8), n - 10 + 2);
        EXPECT_EQ(reply[n], 0); // the rest of the buffer is zeroed
        if (failed)
            *failed = reply[8] == 1;
        if (count)
            *count = reply[9];
        return std::string(reinterpret_cast<char *>(reply + 10), static_cast<size_t>(n - 10));
    }
};

TEST_F(SelfTest, TableHoldsTheTwelveItemsInOrder)
{
    const char *names[] = {"RTC-Status", "ES8316", "AP-Status", "WIFI-Status", "IClock-Chip",
                           "ARM-Temperature", "Available-Memory", "CPU-Usage-Rate", "Resolution",
                           "Display-Interface-Switch", "Network-Card-Phy", "FPGA-Done-Status"};
    for (int i = 0; i < BI_SELF_TEST_ITEMS; ++i) {
        EXPECT_EQ(test_option_table[i].id, i + 1);
        EXPECT_STREQ(test_option_table[i].name, names[i]);
        char buf[64] = {};
        EXPECT_EQ(test_option_table[i].check(nullptr, buf, 64), -1) << names[i];
    }
}

TEST_F(SelfTest, ItemListEnablesKnownIdsOnly)
{
    EXPECT_EQ(configure("1-12-99"), 3);
    for (const auto &entry : test_option_table)
        EXPECT_EQ(entry.enable, entry.id == 1 || entry.id == 12) << entry.name;
    EXPECT_TRUE(logged("D/vexa_system_hidl_service: parseAndConfigTestItem: count = 3"));
    EXPECT_TRUE(logged("D/vexa_system_hidl_service: parseAndConfigTestItem: test_option_table[11].enable = 1"));
    int count = 0;
    const std::string text = run(nullptr, &count);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(text.rfind("RTC-Status:OK\r\nFPGA-Done-Status:", 0), 0u) << text;
}

TEST_F(SelfTest, LinesComeInTableOrderWithTheBoardsValues)
{
    EXPECT_EQ(configure("12-11-10-9-8-7-6-5-4-3-2-1"), 12);
    bool failed = true;
    const std::string text = run(&failed);
    const std::string expected_head = "RTC-Status:OK\r\nES8316:OK\r\nAP-Status:OK\r\nWIFI-Status:OK\r\n"
                                      "IClock-Chip:OK\r\nARM-Temperature:45.00\u00b0C\r\n"
                                      "Available-Memory:2.20G\r\nCPU-Usage-Rate:12.50%\r\n"
                                      "Resolution:1920x1080p60\r\nDisplay-Interface-Switch:enabled\r\n"
                                      "Network-Card-Phy:OK\r\nFPGA-Done-Status:";
    EXPECT_EQ(text.substr(0, expected_head.size()), expected_head);
    EXPECT_FALSE(failed); // "Error" lines do not set the flag: only a check that fails to run
    // The result file holds each line and one more newline.
    const std::string file = board().read_file("/sdcard/self_test_results.txt");
    EXPECT_EQ(file.rfind("RTC-Status:OK\r\n\nES8316:OK\r\n\n", 0), 0u);
}

TEST_F(SelfTest, FaultsShowAsErrorLines)
{
    EXPECT_EQ(configure("1-2-5-10"), 4);
    vexa::sim::set_i2c_register(board(), "/dev/i2c-3", 0x51, 0x02, 0x80);
    vexa::sim::set_i2c_silent(board(), "/dev/i2c-1", 0x1a, true);
    vexa::sim::set_i2c_register(board(), "/dev/i2c-3", 0x68, 0x0f, 0x01);
    board().write_file("/d/dri/0/summary", "Video Port0: DISABLED\n");
    bool failed = true;
    EXPECT_EQ(run(&failed), "RTC-Status:Error\r\nES8316:Error\r\nIClock-Chip:Error\r\n"
                            "Display-Interface-Switch:disenabled<DISABLED>\r\n");
    EXPECT_FALSE(failed);
}

TEST_F(SelfTest, ResultFileIsReplacedOnEveryRun)
{
    configure("1");
    run();
    run();
    EXPECT_EQ(board().read_file("/sdcard/self_test_results.txt"), "RTC-Status:OK\r\n\n");
}

TEST_F(SelfTest, RefusesWithoutItemsOrRoom)
{
    rebuild(vexa::sim::Board::Builder().ini(vexa::test::ini_with("self_test_items", std::nullopt)));
    ASSERT_EQ(parseConfigInfo(), 0);
    board().clear_log();
    EXPECT_EQ(parseAndConfigTestItem(), -1);
    EXPECT_EQ(board().log_lines(),
              std::vector<std::string>{"E/vexa_system_hidl_service: parseAndConfigTestItem: self_test_items not "
                                       "config in ini, please check ini file"});
    EXPECT_EQ(runSelfTestAndGetResult(nullptr, 10), -1);
    configure("1-2");
    uint8_t small[20];
    EXPECT_EQ(runSelfTestAndGetResult(small, sizeof small), -1);
}

TEST(SelfTestItems, ListIsSplitAtDashes)
{
    using vexa::selftest::parse_item_list;
    EXPECT_EQ(parse_item_list("1-12-99"), (std::vector<long>{1, 12, 99}));
    EXPECT_EQ(parse_item_list("1--2-"), (std::vector<long>{1, 2}));
    EXPECT_EQ(parse_item_list(""), std::vector<long>{});
    EXPECT_EQ(parse_item_list(std::string(200, '1').c_str()).size(), 1u);
    std::string many;
    for (int i = 0; i < 40; ++i)
        many += "1-";
    EXPECT_EQ(parse_item_list(many.c_str()).size(), 32u); // cut at 63 characters
}

} // namespace
