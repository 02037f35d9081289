// The exported C store: the same rules as the class, printed on standard output.
#define VEXASDK_UBOOTENV_SHORT_NAMES
#include <gtest/gtest.h>

#include "env_support.h"
#include "vexasdk/storage.h"

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;
using vexa::sim::Fault;
using vexa::sim::env::make_env_image;

namespace vexa::test {
namespace {

class UbootenvTwinTest : public EnvTest {
protected:
    void SetUp() override
    {
        EnvTest::SetUp();
        ubootenv_destroy();
    }
    void TearDown() override
    {
        ubootenv_destroy();
        EnvTest::TearDown();
    }

    // Runs fn and returns what it printed.
    template <typename Fn> static std::string printed(Fn fn)
    {
        CaptureStdout();
        fn();
        return GetCapturedStdout();
    }
};

TEST_F(UbootenvTwinTest, InitPrintsTheDeviceAndTheReadOnStandardOutput)
{
    int32_t rc = -9;
    EXPECT_EQ(printed([&] { rc = ubootenv_init(); }),
              "use block env by name\n"
              "partition name: /dev/block/by-name/env\n"
              "hello init 224\n"
              "[ubootenv] using /dev/block/by-name/env with size(65536) (65532)"
              "[ubootenv] read /dev/block/by-name/env success \n"
              "[ubootenv] set property count: 0\n");
    EXPECT_EQ(rc, 0);
    EXPECT_STREQ(ubootenv_get_value("ubootenv.var.baudrate"), "1500000");
    EXPECT_STREQ(PROFIX_UBOOTENV_VAR, "ubootenv.var.");
    EXPECT_TRUE(log_of("Ubootenv").empty());
}

TEST_F(UbootenvTwinTest, OtherDevicesAreNamedAsTheyAreChosen)
{
    board().write_file("/dev/nand_env", sim::env::make_env_partition({"dev=nand"}));
    const std::string out = printed([] { ubootenv_init(); });
    EXPECT_EQ(out.substr(0, out.find("hello")), "use nand env\npartition name: /dev/nand_env\n");
    EXPECT_STREQ(ubootenv_get_value("ubootenv.var.dev"), "nand");
}

TEST_F(UbootenvTwinTest, UpdateCreatesAndAnnouncesEverySuccessfulSave)
{
    printed([] { ubootenv_init(); });
    EXPECT_EQ(printed([] { EXPECT_EQ(ubootenv_update_value("ubootenv.var.newkey", "v"), 0); }),
              "[ubootenv] update value name [ubootenv.var.newkey]: value [v] \n"
              "[ubootenv] ubootenv.var.newkey not found, create it.\n"
              "[ubootenv] Save ubootenv to /dev/block/by-name/env succeed!\n");
    EXPECT_EQ(copy_at(65536).back(), "newkey=v");

    // Unlike the class, a save that worked only on the fifth attempt is
    // announced too.
    Fault four = Fault::on("write").at(kDevice);
    four.times = 4;
    board().inject(four);
    const std::string out = printed([] { EXPECT_EQ(ubootenv_update_value("ubootenv.var.newkey", "w"), 0); });
    EXPECT_NE(out.find("[ubootenv] printf write, size 65536 \n[ubootenv] Cannot write /dev/block/by-name/env: -3.\n"),
              std::string::npos);
    EXPECT_NE(out.find("[ubootenv] Save ubootenv to /dev/block/by-name/env succeed!\n"), std::string::npos);
}

TEST_F(UbootenvTwinTest, CrcMessagesUseTheirOwnTexts)
{
    std::string bad = make_env_image({"k=v"});
    bad[9] = 'X';
    board().write_file(kDevice, bad + bad);
    const std::string out = printed([] { EXPECT_EQ(ubootenv_init(), -2); });
    EXPECT_NE(out.find("[ubootenv] CRC Check printf save_crc="), std::string::npos);
    EXPECT_NE(out.find("first env error, try second....\n[ubootenv] CRC2 Check printf save_crc="),
              std::string::npos);
    EXPECT_NE(out.find("[ubootenv] read /dev/block/by-name/env failed \n"), std::string::npos);
}

TEST_F(UbootenvTwinTest, DestroyedStoreRefusesUpdatesAndReinitReadsAgain)
{
    printed([] { ubootenv_init(); });
    ubootenv_destroy();
    EXPECT_EQ(printed([] { EXPECT_EQ(ubootenv_update_value("ubootenv.var.k", "v"), -1); }),
              "[ubootenv] bootenv do not init\n");
    EXPECT_EQ(printed([] { EXPECT_EQ(ubootenv_get_value("plain"), nullptr); }),
              "[ubootenv] plain is not a ubootenv variable and need prefix:ubootenv.var.xxx\n"
              "[ubootenv] key: [], value: []\n");

    write_partition({"k=fresh"});
    printed([] { EXPECT_EQ(ubootenv_reinit(), 0); });
    EXPECT_STREQ(ubootenv_get_value("ubootenv.var.k"), "fresh");
    EXPECT_EQ(dumped([](int fd) { ubootenv_dump(fd); }), "[ubootenv] key: [k], value: [fresh]\n");
    EXPECT_EQ(printed([] { ubootenv_print_values(); }), "[ubootenv] key: [k], value: [fresh]\n");
}

TEST_F(UbootenvTwinTest, ShortNamesWorkOnTheExportedState)
{
    printed([] { ubootenv_init(); });
    EXPECT_STREQ(mEnvPartitionName, kDevice);
    EXPECT_EQ(mEnvPartitionSize, 65536u);
    EXPECT_EQ(mEnvSize, 65532u);
    EXPECT_EQ(mEnvInitDone, 1);
    EXPECT_STREQ(mEnvAttrHeader.key, "arch");
    ASSERT_NE(mEnvData, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(mEnvData) + 4), "arch=arm");

    EXPECT_EQ(is_env("ubootenv.var.x"), 1);
    EXPECT_EQ(is_env("ubootenv.var."), 0);
    EXPECT_STREQ(get_value("devtype"), "mmc");
    EXPECT_EQ(printed([] { EXPECT_EQ(set_value("zz", "1", 1), 1); }),
              "[ubootenv] ubootenv.var.zz not found, create it.\n");
    EXPECT_EQ(set_value("devtype", "usb", 0), 2);
    EXPECT_EQ(save(), 0);
    EXPECT_THAT(copy_at(0), ::testing::Contains("zz=1"));
    EXPECT_THAT(copy_at(65536), ::testing::Contains("devtype=usb"));

    // The store's state is these objects: the lock is the one updates take.
    ASSERT_EQ(pthread_mutex_trylock(&mEnvLock), 0);
    pthread_mutex_unlock(&mEnvLock);
    ubootenv_destroy();
    EXPECT_EQ(mEnvData, nullptr);
    EXPECT_EQ(mEnvInitDone, 0);
    write_partition({"k=v"});
    EXPECT_EQ(printed([] { EXPECT_EQ(read_partition_data(), 0); }), "");
    EXPECT_EQ(get_value("k"), nullptr); // not initialised yet
    printed([] { EXPECT_EQ(property_load(), 0); });
    EXPECT_STREQ(get_value("k"), "v");
}

} // namespace
} // namespace vexa::test
