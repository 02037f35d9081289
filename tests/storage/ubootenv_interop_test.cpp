// The store and U-Boot's own tools read and write the same partition.
#include "vexasdk/Ubootenv.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "env_support.h"

namespace vexa::test {
namespace {

class UbootenvInteropTest : public EnvTest {
protected:
    void SetUp() override
    {
        EnvTest::SetUp();
        if (::access("/usr/bin/mkenvimage", X_OK) != 0 || ::access("/usr/bin/fw_printenv", X_OK) != 0)
            GTEST_SKIP() << "mkenvimage or fw_printenv missing: install u-boot-tools and libubootenv-tool";
    }

    std::string host(const std::string &name) { return board().root() + "/" + name; }

    static std::string run(const std::string &command)
    {
        std::string out;
        FILE *p = ::popen(command.c_str(), "r");
        if (p == nullptr)
            return out;
        char buf[512];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, p)) > 0)
            out.append(buf, n);
        ::pclose(p);
        return out;
    }

    // fw_printenv / fw_setenv configured for one copy of the partition.
    std::string config(const char *offset)
    {
        const std::string path = host(std::string("fw_env_") + offset + ".config");
        std::ofstream(path) << board().host_path(kDevice) << " " << offset << " 0x10000\n";
        return path;
    }
};

TEST_F(UbootenvInteropTest, MkenvimageImageLoadsAndFwPrintenvReadsBothCopiesAfterAnUpdate)
{
    std::ofstream(host("env.txt")) << "bootdelay=2\nfoo=bar baz\n";
    ASSERT_EQ(std::system(("mkenvimage -s 65536 -o " + host("env.bin") + " " + host("env.txt")).c_str()), 0);
    std::ifstream in(host("env.bin"), std::ios::binary);
    std::stringstream image;
    image << in.rdbuf();
    ASSERT_EQ(image.str().size(), 65536u);
    board().write_file(kDevice, image.str() + std::string(65536, '\0'));

    Ubootenv env;
    EXPECT_STREQ(env.getValue("ubootenv.var.foo"), "bar baz");
    ASSERT_EQ(env.updateValue("ubootenv.var.foo", "changed"), 0);

    EXPECT_EQ(run("fw_printenv -c " + config("0x0") + " foo 2>&1"), "foo=changed\n");
    EXPECT_EQ(run("fw_printenv -c " + config("0x10000") + " foo 2>&1"), "foo=changed\n");
    EXPECT_EQ(run("fw_printenv -c " + config("0x0") + " bootdelay 2>&1"), "bootdelay=2\n");
}

TEST_F(UbootenvInteropTest, FwSetenvChangeOfTheFirstCopyLoads)
{
    if (::access("/usr/bin/fw_setenv", X_OK) != 0)
        GTEST_SKIP() << "fw_setenv missing: install libubootenv-tool";
    ASSERT_EQ(std::system(("fw_setenv -c " + config("0x0") + " bootdelay 9").c_str()), 0);
    Ubootenv env;
    EXPECT_STREQ(env.getValue("ubootenv.var.bootdelay"), "9");
    EXPECT_STREQ(env.getValue("ubootenv.var.baudrate"), "1500000");
}

} // namespace
} // namespace vexa::test
