// The virtual board's own behaviour, through the platform calls the library
// makes and the board's API.
#include <atomic>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>

#include "platform/android.h"
#include "platform/hal.h"
#include "platform/os.h"
#include "platform/shell.h"
#include "support/board_fixture.h"

namespace vexa::test {
namespace {

using ::testing::ElementsAre;

class SimTest : public BoardTest {};

TEST_F(SimTest, AbsolutePathsMapBelowTheRoot)
{
    board().write_file("/vendor/etc/x.txt", "hello");
    EXPECT_TRUE(std::filesystem::exists(board().root() + "/vendor/etc/x.txt"));
    const int fd = os::open("/vendor/etc/x.txt", O_RDONLY);
    ASSERT_GE(fd, 0);
    char buf[16] = {};
    EXPECT_EQ(os::read(fd, buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(os::close(fd), 0);
    // The device's "/.." is "/".
    const int climbed = os::open("/../../vendor/etc/x.txt", O_RDONLY);
    ASSERT_GE(climbed, 0);
    EXPECT_EQ(os::read(climbed, buf, sizeof buf), 5);
    EXPECT_EQ(os::close(climbed), 0);
    EXPECT_EQ(os::access("/vendor/etc/none", F_OK), -1);
}

TEST_F(SimTest, StateIsSharedWithAnotherAttachOfTheSameRoot)
{
    const std::string root = board().root() + "-shared";
    {
        sim::Board first = sim::Board::open(root);
        first.set_line(5, 1);
        first.set_property("persist.vexa.test", "a b");
        __android_log_print(ANDROID_LOG_WARN, "tag", "one %d\n", 1);
        os::system("echo hi > /dev/null");
        os::reboot("recovery");
    }
    sim::Board second = sim::Board::open(root);
    EXPECT_EQ(second.line(5), 1);
    EXPECT_EQ(second.property("persist.vexa.test"), "a b");
    EXPECT_THAT(second.log_lines(), ElementsAre("W/tag: one 1"));
    EXPECT_THAT(second.commands(), ElementsAre("echo hi > /dev/null"));
    EXPECT_THAT(second.reboots(), ElementsAre("recovery"));
    std::filesystem::remove_all(root);
}

TEST_F(SimTest, ServicesAnswerCallsByName)
{
    board().serve("echo-model", [](const std::string &request) { return "re:" + request; });
    EXPECT_EQ(board().call("echo-model", std::string("a\0b", 3)), std::string("re:a\0b", 6));
    errno = 0;
    EXPECT_FALSE(board().call("no-such-model", "x").has_value());
    EXPECT_EQ(errno, ENODEV);
}

TEST_F(SimTest, FileWatchersSeeEveryWriterOfTheirFile)
{
    std::vector<std::string> seen;
    board().watch_file("/sys/x/value", [&](const std::string &path, const std::string &contents) {
        seen.push_back(path + "=" + contents);
    });
    EXPECT_EQ(os::system("echo 1 > /sys/x/value"), 0);
    const int fd = os::open("/sys/x/value", O_WRONLY | O_TRUNC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(os::write(fd, "0", 1), 1);
    EXPECT_EQ(os::close(fd), 0);
    EXPECT_EQ(hal_sys_write("/sys/x/value", "7", 1), 1);
    board().write_file("/sys/x/value", "9");
    // Reading the file or writing another one is nobody's business.
    const int rd = os::open("/sys/x/value", O_RDONLY);
    EXPECT_EQ(os::close(rd), 0);
    board().write_file("/sys/x/other", "5");
    EXPECT_THAT(seen, ElementsAre("/sys/x/value=1\n", "/sys/x/value=0", "/sys/x/value=7",
                                  "/sys/x/value=9"));
}

TEST_F(SimTest, LogKeepsMultiLineTextAsOneRecord)
{
    __android_log_print(ANDROID_LOG_DEBUG, "t", "a\tb\nc\\d\n");
    ASSERT_EQ(board().log().size(), 1u);
    EXPECT_EQ(board().log()[0].text, "a\tb\nc\\d\n");
    EXPECT_EQ(board().log()[0].line(), "D/t: a\tb\nc\\d");
}

TEST_F(SimTest, PropertiesHaveAndroidsLimits)
{
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("sys.none", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");
    EXPECT_EQ(property_set("sys.x", "1"), 0);
    EXPECT_EQ(property_get("sys.x", value, "dflt"), 1);
    EXPECT_STREQ(value, "1");
    EXPECT_EQ(property_set("sys.long", std::string(PROPERTY_VALUE_MAX, 'v').c_str()), -1);
}

TEST_F(SimTest, FaultsSkipFireAndStop)
{
    board().inject(sim::Fault::on("hal_gpio_set_value").at("7").after(1).returns(-9).once());
    EXPECT_EQ(hal_gpio_set_value(7, 1), 0);  // let through
    EXPECT_EQ(hal_gpio_set_value(8, 1), 0);  // another line: not counted
    EXPECT_EQ(hal_gpio_set_value(7, 1), -9); // fires once
    EXPECT_EQ(hal_gpio_set_value(7, 1), 0);

    board().inject(sim::Fault::on("open").at("/data/f").returns(-1, EACCES));
    EXPECT_EQ(os::open("/data/f", O_RDONLY), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(os::open("/data/f", O_RDONLY), -1);
    board().clear_faults();
    EXPECT_EQ(os::fopen("/data/f", "r"), nullptr); // no file, no fault
}

TEST_F(SimTest, ByteBudgetCutsWritesLikeAPowerLoss)
{
    board().write_file("/dev/block/part", std::string(16, '.'));
    board().inject(sim::Fault::on("pwrite").at("/dev/block/part").cut_after(5));
    const int fd = os::open("/dev/block/part", O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(os::pwrite(fd, "abc", 3, 0), 3);
    EXPECT_EQ(os::pwrite(fd, "defg", 4, 3), 2); // the cut
    EXPECT_EQ(os::pwrite(fd, "h", 1, 5), -1);
    os::close(fd);
    EXPECT_EQ(board().read_file("/dev/block/part"), "abcde" + std::string(11, '.'));
}

TEST_F(SimTest, FastClockSleepsWithoutWaiting)
{
    const uint64_t before = os::monotonic_ns();
    os::sleep_us(10'000'000);
    const uint64_t after = os::monotonic_ns();
    EXPECT_GE(after - before, 10'000'000'000ull);
    EXPECT_GE(board().now_ns(), after);
}

TEST_F(SimTest, TimersFireWhenASleepPassesThem)
{
    // With a fast clock a timer fires in the thread whose sleep moves the
    // clock past it, before that sleep returns, in order of time.
    std::vector<std::string> fired;
    const uint64_t t0 = board().now_ns();
    board().set_timer(t0 + 30'000'000, [&] { fired.push_back("30 ms"); });
    board().set_timer(t0 + 10'000'000, [&] {
        fired.push_back("10 ms");
        // A timer may set another; one already due fires in the same sleep.
        board().set_timer(0, [&] { fired.push_back("set by 10 ms"); });
    });
    const uint64_t cancelled = board().set_timer(t0 + 20'000'000, [&] { fired.push_back("20 ms"); });
    EXPECT_TRUE(board().cancel_timer(cancelled));
    EXPECT_FALSE(board().cancel_timer(cancelled));
    os::sleep_us(5'000);
    EXPECT_TRUE(fired.empty()) << "nothing is due 5 ms on";
    os::sleep_us(10'000);
    EXPECT_THAT(fired, ElementsAre("10 ms", "set by 10 ms"));
    board().advance_clock(20'000'000);
    EXPECT_THAT(fired, ElementsAre("10 ms", "set by 10 ms", "30 ms"));
}

TEST_F(SimTest, InRealTimeTimersFireOnTheirOwn)
{
    board().set_fast_clock(false);
    std::mutex mu;
    std::condition_variable fired_cv;
    std::optional<uint64_t> fired_at;
    const uint64_t at = board().now_ns() + 20'000'000;
    board().set_timer(at, [&] {
        std::lock_guard<std::mutex> lock(mu);
        fired_at = board().now_ns();
        fired_cv.notify_all();
    });
    std::unique_lock<std::mutex> lock(mu);
    ASSERT_TRUE(fired_cv.wait_for(lock, std::chrono::seconds(10), [&] { return fired_at.has_value(); }));
    EXPECT_GE(*fired_at, at);
}

TEST_F(SimTest, CommandsAreJournaledAndHandled)
{
    board().on_command("badblocks", [](const std::vector<std::string> &argv, const std::string &) {
        return sim::CommandResult{argv.size() == 3 ? 0 : 256, "checked " + argv.back() + "\n"};
    });
    FILE *pipe = os::popen("/system/bin/badblocks -v /dev/x", "r");
    ASSERT_NE(pipe, nullptr);
    char line[64] = {};
    ASSERT_NE(std::fgets(line, sizeof line, pipe), nullptr);
    EXPECT_STREQ(line, "checked /dev/x\n");
    EXPECT_EQ(os::pclose(pipe), 0);
    EXPECT_EQ(os::system("badblocks /dev/y"), 256);
    EXPECT_EQ(os::system("unknown --flag"), 0);
    EXPECT_THAT(board().commands(),
                ElementsAre("/system/bin/badblocks -v /dev/x", "badblocks /dev/y", "unknown --flag"));
}

// A request whose number tells its argument's size, as the kernel's do.
constexpr unsigned long kProbe = _IOWR('v', 0x34, int);

class CountingModel : public sim::DeviceModel {
public:
    // Counted on the host's thread while another process waits for the
    // reply: an atomic, since the sanitizer cannot see that hand-over.
    std::atomic<int> ioctls{0};
    int ioctl(int, unsigned long request, void *arg) override
    {
        ++ioctls;
        *static_cast<int *>(arg) = static_cast<int>(request);
        return 0;
    }
};

// A node whose read is a transfer: it answers the request the caller put in
// the buffer, as an SPI driver does.
class TransferModel : public sim::DeviceModel {
public:
    ssize_t read(int, void *buf, size_t count) override
    {
        auto *bytes = static_cast<unsigned char *>(buf);
        for (size_t i = 1; i < count; ++i)
            bytes[i] = static_cast<unsigned char>(bytes[0] + i);
        return static_cast<ssize_t>(count);
    }
    bool read_takes_buffer() const override { return true; }
};

TEST_F(SimTest, ModelsServeTheirNodes)
{
    auto model = std::make_shared<CountingModel>();
    board().write_file("/dev/thing", "data");
    board().add_model("/dev/thing", model);
    EXPECT_EQ(os::access("/dev/thing", F_OK), 0);
    const int fd = os::open("/dev/thing", O_RDWR);
    ASSERT_GE(fd, 0);
    int out = 0;
    EXPECT_EQ(os::ioctl(fd, kProbe, &out), 0);
    EXPECT_EQ(out, static_cast<int>(kProbe));
    char buf[4];
    EXPECT_EQ(os::read(fd, buf, 4), 4); // the default passes through
    os::close(fd);
    EXPECT_EQ(model->ioctls, 1);
}

// A child process is a client of the board's host (this test): it reaches
// the host's models each way a model can be reached.
TEST_F(SimTest, AnotherProcessReachesTheHostsModels)
{
    auto model = std::make_shared<CountingModel>();
    board().write_file("/dev/thing", "data");
    board().add_model("/dev/thing", model);
    board().write_file("/dev/spi", "");
    board().add_model("/dev/spi", std::make_shared<TransferModel>());
    board().serve("echo-model", [](const std::string &request) { return "re:" + request; });
    board().on_command("probe", [](const std::vector<std::string> &argv, const std::string &) {
        return sim::CommandResult{3 << 8, "probed " + argv.back()};
    });
    std::mutex mu;
    std::vector<std::string> written;
    std::vector<int> levels;
    board().watch_file("/sys/x/value", [&](const std::string &, const std::string &contents) {
        std::lock_guard<std::mutex> lock(mu);
        written.push_back(contents);
        std::ofstream(board().host_path("/sys/x/seen")) << contents;
    });
    board().watch_lines([&](int id, int level, uint64_t) {
        std::lock_guard<std::mutex> lock(mu);
        if (id == 77)
            levels.push_back(level);
    });
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int failed = 0;
        if (board().hosting() || board().call("echo-model", "x") != std::optional<std::string>("re:x"))
            failed |= 1;
        FILE *pipe = os::popen("probe it", "r");
        char text[32] = {};
        if (!pipe || !std::fgets(text, sizeof text, pipe) || std::string(text) != "probed it" ||
            os::pclose(pipe) != (3 << 8))
            failed |= 2;
        const int fd = os::open("/dev/thing", O_RDWR);
        int out = 0;
        if (fd < 0 || os::ioctl(fd, kProbe, &out) != 0 || out != static_cast<int>(kProbe))
            failed |= 4;
        char buf[4] = {};
        if (os::read(fd, buf, 4) != 4 || std::memcmp(buf, "data", 4) != 0)
            failed |= 8;
        os::close(fd);
        const int spi = os::open("/dev/spi", O_RDWR);
        unsigned char transfer[3] = {0x0b, 0, 0};
        if (spi < 0 || os::read(spi, transfer, 3) != 3 || transfer[1] != 0x0c || transfer[2] != 0x0d)
            failed |= 32;
        os::close(spi);
        // The write reaches the host's watcher before the call returns.
        for (const char *level : {"1", "0", "1"})
            if (hal_sys_write("/sys/x/value", level, 1) != 1 || board().read_file("/sys/x/seen") != level)
                failed |= 16;
        hal_gpio_set_value(77, 1);
        hal_gpio_set_value(77, 0);
        _exit(failed);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "bit 1 service, 2 command, 4 ioctl, 8 read, 16 write, 32 transfer";
    EXPECT_EQ(model->ioctls, 1);
    {
        std::lock_guard<std::mutex> lock(mu);
        EXPECT_THAT(written, ElementsAre("1", "0", "1"));
    }
    // The host follows the child's drives, both of them, in order.
    for (int i = 0; i < 2000; ++i) {
        {
            std::lock_guard<std::mutex> lock(mu);
            if (levels.size() >= 2)
                break;
        }
        usleep(1000);
    }
    {
        std::lock_guard<std::mutex> lock(mu);
        EXPECT_THAT(levels, ElementsAre(1, 0));
    }
    // Not under mu: the host holds its own lock while a watcher takes mu.
    EXPECT_EQ(board().line(77), 0);
}

TEST_F(SimTest, MountsAreRecorded)
{
    board().write_file("/dev/block/p1", "");
    board().write_file("/mnt/x/.keep", "");
    EXPECT_EQ(os::mount("/dev/block/p1", "/mnt/x", "ext4", 0, nullptr), 0);
    EXPECT_EQ(os::mount("/dev/block/p1", "/mnt/x", "ext4", 0, nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(os::umount("/mnt/x"), 0);
    EXPECT_EQ(os::umount("/mnt/x"), -1);
    EXPECT_EQ(os::mount("/dev/block/none", "/mnt/x", "ext4", 0, nullptr), -1);
}

TEST_F(SimTest, DetachedBoardFailsCallsInsteadOfFallingBack)
{
    const std::string root = board().root();
    TearDown();
    EXPECT_EQ(hal_gpio_set_value(1, 1), -1);
    EXPECT_EQ(errno, ENODEV);
    SetUp();
    EXPECT_NE(board().root(), root);
}

TEST(ShellGuard, AcceptsPlainWordsOnly)
{
    // Characters beyond ASCII are plain to the shell: two, three and four
    // bytes of UTF-8, the last of each range.
    for (const char *ok : {"/dev/block/mmcblk2p22", "a-b_c.d:e,f=g+h@i%j", "Reserve0", "/data/\xc3\xa9t\xc3\xa9",
                           "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xef\xbf\xbf", "\xf0\x9f\x98\x80",
                           "\xf4\x8f\xbf\xbf"})
        EXPECT_TRUE(shell_word_safe(ok)) << ok;
    for (const char *bad : {"", "a b", "a;b", "$(x)", "`x`", "a|b", "a&b", "a>b", "a<b", "a'b", "a\"b", "a\\b",
                            "a*", "a?", "~root", "a\nb", "{a,b}", "a#b", "!x", "a\tb"})
        EXPECT_FALSE(shell_word_safe(bad)) << bad;
    // Bytes that are not well-formed UTF-8: Latin-1, a cut sequence, a lone
    // continuation byte, an overlong '/', a surrogate, beyond U+10FFFF, and
    // a sequence whose continuation is a metacharacter.
    for (const char *bad : {"/data/\xe9t\xe9", "a\xc3", "\xe2\x82", "\x80", "\xc0\xaf", "\xe0\x9f\xbf",
                            "\xed\xa0\x80", "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80",
                            "\xc3;", "\xe2\x82|"})
        EXPECT_FALSE(shell_word_safe(bad)) << bad;
    EXPECT_FALSE(shell_word_safe(nullptr));
}

} // namespace
} // namespace vexa::test
