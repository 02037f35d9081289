#include <fcntl.h>

#include <cstring>
#include <string>

#include "platform/os.h"
#include "support/board_fixture.h"
#include "vexasdk/product_config.h"
#include "vexasdk/storage.h"

namespace vexa::test {
namespace {

using ::testing::ElementsAre;

class VendorStorageTest : public BoardTest {
protected:
    void SetUp() override
    {
        BoardTest::SetUp();
        bi_init_product_config();
        board().clear_log();
    }
};

// The kernel node's request: tag "QERV", item, length, data.
struct NodeRequest {
    uint32_t tag;
    uint16_t id;
    uint16_t len;
    uint8_t data[64];
};

TEST_F(VendorStorageTest, ItemsAreLoggedAsText)
{
    char text[16] = "serial-0042";
    ASSERT_EQ(bi_block_write_vendor_storage(9, text, sizeof(text), 0), int(sizeof(text)));
    char back[16] = {};
    ASSERT_EQ(bi_block_read_vendor_storage(9, back, sizeof(back), 0), int(sizeof(back)));
    EXPECT_STREQ(back, "serial-0042");
    EXPECT_THAT(log_of("vexa_system_bi_block"),
                ElementsAre("D/vexa_system_bi_block: write vendor info num:9, info str:serial-0042",
                            "D/vexa_system_bi_block: read vendor info num:9, info str:serial-0042"));
}

TEST_F(VendorStorageTest, FailedReadLogsTheBufferBeforeTheFailure)
{
    char buf[8] = {'s', 't', 'a', 'l', 'e', 0, 0, 0};
    EXPECT_LT(bi_block_read_vendor_storage(12, buf, sizeof(buf), 0), 0);
    board().inject(sim::Fault::on("hal_vendor_storage_write").once().returns(-3));
    EXPECT_EQ(bi_block_write_vendor_storage(12, buf, sizeof(buf), 0), -3);
    EXPECT_EQ(bi_block_read_vendor_storage(12, nullptr, 4, 0), -1);
    // A buffer without a terminator is logged only up to its length.
    char unterminated[4] = {'a', 'b', 'c', 'd'};
    EXPECT_LT(bi_block_read_vendor_storage(13, unterminated, sizeof(unterminated), 0), 0);
    EXPECT_THAT(log_of("vexa_system_bi_block"),
                ElementsAre("D/vexa_system_bi_block: read vendor info num:12, info str:stale",
                            "D/vexa_system_bi_block: bi_block_read_vendor_storage: read failed.",
                            "D/vexa_system_bi_block: write vendor info num:12, info str:stale",
                            "D/vexa_system_bi_block: bi_block_write_vendor_storage: write failed.",
                            "D/vexa_system_bi_block: info buffer is NULL",
                            "D/vexa_system_bi_block: read vendor info num:13, info str:abcd",
                            "D/vexa_system_bi_block: bi_block_read_vendor_storage: read failed."));
}

TEST_F(VendorStorageTest, NodeAndHalShareOneStoreInTheBoardRoot)
{
    ASSERT_EQ(bi_block_write_vendor_storage(45, "OSER-record", 11, 0), 11);
    const int fd = os::open("/dev/vendor_storage", O_RDWR);
    ASSERT_GE(fd, 0);
    NodeRequest req{0x56524551, 45, 64, {}};
    ASSERT_EQ(os::ioctl(fd, 0x40047601, &req), 0);
    EXPECT_EQ(req.len, 11);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(req.data), req.len), "OSER-record");

    NodeRequest write{0x56524551, 46, 3, {'a', 'b', 'c'}};
    ASSERT_EQ(os::ioctl(fd, 0x40047602, &write), 0);
    NodeRequest bad_tag{0x12345678, 46, 3, {}};
    EXPECT_EQ(os::ioctl(fd, 0x40047601, &bad_tag), -1);
    NodeRequest missing{0x56524551, 99, 8, {}};
    EXPECT_EQ(os::ioctl(fd, 0x40047601, &missing), -1);
    os::close(fd);

    // The HAL sees what the node wrote.
    char back[4] = {};
    EXPECT_EQ(bi_block_read_vendor_storage(46, back, 3, 0), 3);
    EXPECT_STREQ(back, "abc");
    EXPECT_TRUE(board().exists("/.board/vendor_storage/46"));
}

} // namespace
} // namespace vexa::test
