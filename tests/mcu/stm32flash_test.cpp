// The MCU model's bootloader against a real client: Debian's stm32flash
// talks to it through the line's pty.
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "mcu_fixture.h"
#include "vexasdk/mcu.h"

namespace {

using Mode = vexa::sim::McuModel::Mode;

class Stm32flashTest : public vexa::test::McuTest {
protected:
    void SetUp() override
    {
        McuTest::SetUp();
        tool_ = find_tool();
        if (tool_.empty())
            GTEST_SKIP() << "stm32flash is not installed (apt-get install stm32flash)";
        mcu_isp_init(); // BOOT0 high, NRST pulsed: the ROM bootloader runs
        ASSERT_EQ(mcu().mode(), Mode::bootloader);
        dir_ = board().root() + "/stm32flash";
        std::filesystem::create_directories(dir_);
    }

    static std::string find_tool()
    {
        for (const char *path : {"/usr/bin/stm32flash", "/usr/local/bin/stm32flash"})
            if (access(path, X_OK) == 0)
                return path;
        return "";
    }

    // Runs stm32flash with args on the MCU's pty (8N1: a pty carries no parity
    // bits, and stm32flash checks that the line took its settings); its
    // output goes to `output`.
    int run(const std::string &args)
    {
        line("/dev/ttyS9")->reset_line();
        const std::string out_file = dir_ + "/out.txt";
        const std::string command = "timeout 120 " + tool_ + " -b 115200 -m 8n1 " + args + " " +
                                    line("/dev/ttyS9")->pty_path() + " > " + out_file + " 2>&1";
        const int status = std::system(command.c_str());
        std::ifstream in(out_file);
        std::stringstream text;
        text << in.rdbuf();
        output = text.str();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string tool_;
    std::string dir_;
    std::string output;
};

TEST_F(Stm32flashTest, ReadsIdWritesVerifiesReadsBackAndErases)
{
    ASSERT_EQ(run(""), 0) << output;
    EXPECT_NE(output.find("Device ID    : 0x0414"), std::string::npos) << output;

    std::string image(5000, '\0');
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<char>((i * 7u + 3u) & 0xFF);
    std::ofstream(dir_ + "/image.bin", std::ios::binary) << image;
    ASSERT_EQ(run("-w " + dir_ + "/image.bin -v"), 0) << output;
    EXPECT_TRUE(bytes(mcu().flash(5000)) == image);

    ASSERT_EQ(run("-r " + dir_ + "/back.bin -S 0x08000000:5000"), 0) << output;
    std::ifstream back_in(dir_ + "/back.bin", std::ios::binary);
    const std::string back((std::istreambuf_iterator<char>(back_in)), std::istreambuf_iterator<char>());
    EXPECT_TRUE(back == image);

    ASSERT_EQ(run("-o"), 0) << output;
    EXPECT_TRUE(bytes(mcu().flash(5000)) == std::string(5000, '\xFF'));
    ASSERT_FALSE(mcu().erases().empty());
}

TEST_F(Stm32flashTest, GoStartsTheApplication)
{
    ASSERT_EQ(run("-g 0x08000000"), 0) << output;
    EXPECT_EQ(mcu().mode(), Mode::application);
}

} // namespace
