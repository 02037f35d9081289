// Board paths stay in the board's folder: through the library's calls, the
// OS layer, every shell command the board carries out and the mounts, a path
// that climbs with ".." lands on the board's own file (as "/.." is "/" on
// the device), and a link a person placed in the folder that leads outside
// is refused. A folder beside the board, with a sentinel file in it, shows
// whether anything outside was touched.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/os.h"
#include "sim/board.h"
#include "vexasdk/mcu.h"
#include "vexasdk/product_config.h"
#include "vexasdk/storage.h"

namespace fs = std::filesystem;

namespace vexa::test {
namespace {

const char kOutsideText[] = "outside!\n"; // 9 bytes, found nowhere on the board

std::string read_host(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void write_host(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

class PathsTest : public ::testing::Test {
protected:
    // TOP/board is the board; TOP/outside holds the sentinel. The board holds
    // links as a person might place them: /data/out to the outside folder,
    // /data/up climbing to it ("../../outside"), /data/file to the sentinel.
    void SetUp() override
    {
        const char *tmp = std::getenv("TMPDIR");
        std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/vexapaths-XXXXXX";
        ASSERT_NE(::mkdtemp(templ.data()), nullptr);
        top_ = templ;
        outside_ = top_ + "/outside";
        fs::create_directories(outside_);
        write_host(outside_ + "/sentinel", kOutsideText);
        ::chmod((outside_ + "/sentinel").c_str(), 0640);
        board_.emplace(sim::Board::Builder().root(top_ + "/board").build());
        board().write_file("/data/src", "board source\n");
        link(outside_, "/data/out");
        link("../../outside", "/data/up");
        link(outside_ + "/sentinel", "/data/file");
        before_ = outside_state();
    }

    void TearDown() override
    {
        board_.reset();
        std::error_code ec;
        fs::remove_all(top_, ec);
    }

    sim::Board &board() { return *board_; }

    void link(const std::string &target, const std::string &board_path)
    {
        const std::string at = board().root() + board_path;
        fs::create_directories(fs::path(at).parent_path());
        ASSERT_EQ(::symlink(target.c_str(), at.c_str()), 0);
    }

    // Every name beside the board folder, with its type, mode and contents.
    std::map<std::string, std::string> outside_state() const
    {
        std::map<std::string, std::string> state;
        for (auto it = fs::recursive_directory_iterator(top_); it != fs::recursive_directory_iterator(); ++it) {
            const std::string path = it->path().string();
            if (path == top_ + "/board") {
                it.disable_recursion_pending();
                continue;
            }
            struct stat st;
            ::lstat(path.c_str(), &st);
            std::ostringstream entry;
            entry << std::oct << st.st_mode << ' ' << (S_ISREG(st.st_mode) ? read_host(path) : "");
            state[path] = entry.str();
        }
        return state;
    }

    // Board files (not the journals) that hold the sentinel's text: what a
    // door would have read from outside and written in.
    std::vector<std::string> board_files_holding_outside_text() const
    {
        std::vector<std::string> found;
        const std::string root = board_->root();
        for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
            struct stat st;
            if (::lstat(it->path().c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > (1 << 20))
                continue;
            if (read_host(it->path().string()).find(kOutsideText) != std::string::npos)
                found.push_back(it->path().string().substr(root.size()));
        }
        return found;
    }

    void expect_outside_untouched(const std::string &what)
    {
        EXPECT_EQ(outside_state(), before_) << what;
        EXPECT_EQ(board_files_holding_outside_text(), std::vector<std::string>()) << what;
    }

    std::string top_, outside_;
    std::map<std::string, std::string> before_;

private:
    std::optional<sim::Board> board_;
};

// The four library calls that reached the host's files: with a climbing
// path each lands on the board's /sentinel, as on the device; through a
// link that leads out each is refused.
TEST_F(PathsTest, LibraryCallsStayInTheBoard)
{
    struct Call {
        const char *name;
        std::function<int64_t(const char *)> call;
        std::string board_before; // the board's /sentinel before ("": none)
        int64_t result;
        std::string board_after;
    };
    const Call calls[] = {
        {"file_write", [](const char *p) { return file_write(p, reinterpret_cast<const uint8_t *>("board"), 5); },
         "", 5, "board"},
        {"bi_block_write_data", [](const char *p) { return int64_t(bi_block_write_data(p, 2, "board", 5)); },
         "", 5, std::string("\0\0board", 7)},
        {"bi_base_save_flag", [](const char *p) { return int64_t(bi_base_save_flag(p, 1, 5, "board")); },
         "", 0, std::string("\0board", 6)},
        {"file_size", [](const char *p) { return file_size(p); }, "on the board\n", 13, "on the board\n"},
    };
    const char *climbing[] = {"/../sentinel", "/data/../../../sentinel", "../sentinel"};
    const char *leading_out[] = {"/data/file", "/data/out/sentinel", "/data/up/sentinel"};
    for (const auto &c : calls) {
        for (const char *path : climbing) {
            board().remove_file("/sentinel");
            if (!c.board_before.empty())
                board().write_file("/sentinel", c.board_before);
            EXPECT_EQ(c.call(path), c.result) << c.name << " " << path;
            EXPECT_EQ(board().read_file("/sentinel"), c.board_after) << c.name << " " << path;
            expect_outside_untouched(std::string(c.name) + " " + path);
        }
        for (const char *path : leading_out) {
            errno = 0;
            EXPECT_EQ(c.call(path), -1) << c.name << " " << path;
            EXPECT_EQ(errno, EXDEV) << c.name << " " << path;
            expect_outside_untouched(std::string(c.name) + " " + path);
        }
    }
}

// Every call of the OS layer that takes a path, on paths through a link
// that leads out (absolute, and relative climbing past the root).
TEST_F(PathsTest, EveryOsCallRefusesALinkThatLeadsOut)
{
    struct Door {
        const char *name;
        std::function<long(const std::string &link)> call;
    };
    struct stat st;
    const Door doors[] = {
        {"open", [](const std::string &l) { return long(os::open((l + "/sentinel").c_str(), O_RDONLY)); }},
        {"open O_CREAT", [](const std::string &l) {
             return long(os::open((l + "/new").c_str(), O_WRONLY | O_CREAT, 0644));
         }},
        {"fopen", [](const std::string &l) { return os::fopen((l + "/sentinel").c_str(), "r+") ? 0L : -1L; }},
        {"stat", [&](const std::string &l) { return long(os::stat((l + "/sentinel").c_str(), &st)); }},
        {"access", [](const std::string &l) { return long(os::access((l + "/sentinel").c_str(), F_OK)); }},
        {"opendir", [](const std::string &l) { return os::opendir(l.c_str()) ? 0L : -1L; }},
        {"mkdir", [](const std::string &l) { return long(os::mkdir((l + "/made").c_str(), 0755)); }},
        {"remove", [](const std::string &l) { return long(os::remove((l + "/sentinel").c_str())); }},
        {"rename from", [](const std::string &l) {
             return long(os::rename((l + "/sentinel").c_str(), "/data/taken"));
         }},
        {"rename to", [](const std::string &l) { return long(os::rename("/data/src", (l + "/put").c_str())); }},
        {"mount target", [](const std::string &l) {
             return long(os::mount("/dev/block/mmcblk2p22", l.c_str(), "ext4", 0, nullptr));
         }},
        {"mount source", [](const std::string &l) {
             return long(os::mount((l + "/sentinel").c_str(), "/data", "ext4", 0, nullptr));
         }},
    };
    for (const auto &door : doors) {
        for (const std::string through : {"/data/out", "/data/up"}) {
            errno = 0;
            EXPECT_EQ(door.call(through), -1) << door.name << " " << through;
            EXPECT_EQ(errno, EXDEV) << door.name << " " << through;
            expect_outside_untouched(std::string(door.name) + " " + through);
        }
    }
    EXPECT_EQ(board().read_file("/data/src"), "board source\n");
    EXPECT_FALSE(board().exists("/data/taken"));
    EXPECT_EQ(board().read_file("/.board/mounts"), "");
}

int status_of(const std::string &command) { return WEXITSTATUS(os::system(command.c_str())); }

// Each shell command the board carries out, through the links that lead
// out: it fails (or, for rm of the link itself, removes only the link), and
// nothing beside the board is written, removed, changed or read in.
TEST_F(PathsTest, CommandsRefuseLinksThatLeadOut)
{
    ASSERT_EQ(status_of("mtd_debug info /dev/mtd0"), 0);
    const std::string flash = board().read_file("/dev/mtd0").substr(0, 64);
    struct Door {
        std::string command;
        int status;
    };
    const Door doors[] = {
        {"cp /data/src /data/out/sentinel", 1},
        {"cp /data/src /data/out", 1},
        {"cp /data/file /data/copy", 1},
        {"cp -r /data/out /data/copied", 1},
        {"cp -r /data/up/. /data/copied", 1},
        {"rm -rf /data/out/sentinel", 1},
        {"rm -f /data/up/*", 1},
        {"mkdir -p /data/out/made", 1},
        {"chmod 0777 /data/file", 1},
        {"chmod -R 0777 /data/out", 1},
        {"chown -R system /data/up", 1},
        {"echo x > /data/out/sentinel", 1},
        {"echo x >> /data/file", 1},
        {"cat /data/file", 1},
        {"mtd_debug read /dev/mtd0 0 64 /data/out/sentinel", 1},
        {"mtd_debug write /dev/mtd0 0 9 /data/file", 1},
        {"badblocks -o /data/up/sentinel /dev/block/by-name/screen", 1},
        {"tar -zcf /data/out/a.tgz /vendor/etc", 2},
        {"tar -zcf /data/a.tgz /data/out/sentinel", 2},
        {"insmod /data/file", 1},
        {"mkfs.ext4 -F /data/up/sentinel", 1},
    };
    for (const auto &door : doors) {
        EXPECT_EQ(status_of(door.command), door.status) << door.command;
        expect_outside_untouched(door.command);
    }
    EXPECT_EQ(board().read_file("/dev/mtd0").substr(0, 64), flash);
    EXPECT_FALSE(board().exists("/data/copy"));
    EXPECT_FALSE(board().exists("/data/copied"));

    // rm of the link itself, and a copied link, never reach what it leads to.
    EXPECT_EQ(status_of("cp -r /data /copy_of_data"), 0);
    EXPECT_EQ(board().folder().read_link("/copy_of_data/out"), outside_);
    EXPECT_EQ(status_of("rm -rf /data/out /copy_of_data"), 0);
    struct stat st;
    EXPECT_NE(::lstat((board().root() + "/data/out").c_str(), &st), 0);
    before_ = outside_state();
    expect_outside_untouched("rm of the link");
}

// The same commands with climbing paths act on the board's own files.
TEST_F(PathsTest, CommandsWithClimbingPathsActOnTheBoard)
{
    write_host(top_ + "/victim", "outside victim\n");
    fs::create_directories(top_ + "/made");
    before_ = outside_state();
    board().write_file("/victim", "board victim\n");
    struct Door {
        std::string command;
        std::string board_path; // what the command leaves on the board
        bool present;
    };
    const Door doors[] = {
        {"cp /data/src /../../copied", "/copied", true},
        {"echo hi > /../../../echoed", "/echoed", true},
        {"mkdir -p /../../made/deeper", "/made/deeper", true},
        {"mtd_debug read /dev/mtd0 0 64 /data/../../../dumped", "/dumped", true},
        {"badblocks -o /../../bad /dev/block/by-name/screen", "/bad", true},
        {"tar -zcf /../../a.tgz /vendor/etc", "/a.tgz", true},
        {"rm -rf /../../victim", "/victim", false},
    };
    for (const auto &door : doors) {
        EXPECT_EQ(status_of(door.command), 0) << door.command;
        EXPECT_EQ(board().exists(door.board_path), door.present) << door.command;
        expect_outside_untouched(door.command);
    }
    EXPECT_EQ(board().read_file("/copied"), "board source\n");
    EXPECT_EQ(board().read_file("/echoed"), "hi\n");
    EXPECT_EQ(board().read_file("/dumped").size(), 64u);
}

// A mount point reached through a link that leads out is refused (the
// outside folder is neither moved in nor linked); a climbing mount point is
// the board's own folder, and its unmount puts that folder back.
TEST_F(PathsTest, MountPointsStayInTheBoard)
{
    EXPECT_EQ(bi_base_mount_sub("/dev/block/mmcblk2p22", "/data/out"), -1);
    EXPECT_EQ(bi_base_mount_sub("/dev/block/mmcblk2p22", "/data/up/reserve"), -1);
    EXPECT_EQ(board().folder().read_link("/data/out"), outside_);
    expect_outside_untouched("mount through a link");

    fs::create_directories(top_ + "/Reserve1");
    write_host(top_ + "/Reserve1/mine", "outside folder\n");
    before_ = outside_state();
    board().write_file("/Reserve1/kept", "board folder\n");
    EXPECT_EQ(bi_base_mount_sub("/dev/block/mmcblk2p22", "/../../Reserve1"), 0);
    EXPECT_EQ(board().read_file("/.board/mounts"), "/dev/block/mmcblk2p22 /Reserve1 ext4 16\n");
    EXPECT_TRUE(board().exists("/Reserve1/lost+found"));
    EXPECT_FALSE(board().exists("/Reserve1/kept"));
    EXPECT_EQ(os::umount("/data/../../Reserve1"), 0);
    EXPECT_EQ(board().read_file("/Reserve1/kept"), "board folder\n");
    expect_outside_untouched("climbing mount point");
}

// A link to a character device of the host is that device (the serial
// lines' ptys, a USB-serial adapter); a link to any other host file is not.
TEST_F(PathsTest, ALinkToAHostCharacterDeviceIsARealHostNode)
{
    link("/dev/null", "/dev/ttyHOST");
    const int fd = os::open("/dev/ttyHOST", O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(os::write(fd, "bytes", 5), 5);
    EXPECT_EQ(os::close(fd), 0);
    struct stat st;
    ASSERT_EQ(os::stat("/dev/ttyHOST", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(os::access("/dev/ttyHOST", W_OK), 0);
    EXPECT_EQ(status_of("echo x > /dev/ttyHOST"), 0);
    // Only as the last name, and only when the link is followed.
    errno = 0;
    EXPECT_EQ(os::open("/dev/ttyHOST/x", O_RDONLY), -1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(board().folder().open("/dev/ttyHOST", O_RDONLY | O_NOFOLLOW), -1);
    EXPECT_EQ(errno, ELOOP);
    // A link to a regular host file or a host folder is no host node.
    for (const char *path : {"/data/file", "/data/out"}) {
        errno = 0;
        EXPECT_EQ(os::open(path, O_RDONLY), -1) << path;
        EXPECT_EQ(errno, EXDEV) << path;
    }
    expect_outside_untouched("host nodes");
}

// Links inside the folder lead where they would on the device: a relative
// link from its own folder, an absolute link naming a place in the folder.
TEST_F(PathsTest, LinksInsideTheFolderAreFollowedInside)
{
    board().write_file("/vendor/etc/inside.txt", "inside\n");
    link("../vendor/etc", "/data/rel");
    link(board().root() + "/vendor", "/data/abs");
    link("rel/inside.txt", "/data/chain");
    link("loop", "/data/loop");
    const sim::Folder folder = board().folder();
    for (const char *path : {"/data/rel/inside.txt", "/data/abs/etc/inside.txt", "/data/chain",
                             "/data/rel/../../vendor/etc/inside.txt"})
        EXPECT_EQ(folder.read(path), "inside\n") << path;
    EXPECT_EQ(folder.read("/data/loop"), std::nullopt);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(folder.write("/data/rel/new.txt", "new\n"), 0);
    EXPECT_EQ(board().read_file("/vendor/etc/new.txt"), "new\n");
    // lstat sees the link; the OS layer's stat what it leads to.
    struct stat st;
    ASSERT_EQ(folder.stat("/data/chain", &st, false), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(os::stat("/data/chain", &st), 0);
    EXPECT_EQ(st.st_size, 7);
    expect_outside_untouched("links inside");
}

// A link swapped in for a folder while calls use it never lets a write out:
// each name is looked up on the descriptor of the folder before it.
TEST_F(PathsTest, ALinkSwappedInMidCallStaysOut)
{
    const std::string data = board().root() + "/data";
    fs::create_directories(data + "/real");
    link(outside_, "/data/fake");
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
        // /data/swap is the board's folder, then the outside link, in turn.
        while (!stop) {
            ::rename((data + "/real").c_str(), (data + "/swap").c_str());
            ::rename((data + "/swap").c_str(), (data + "/real").c_str());
            ::rename((data + "/fake").c_str(), (data + "/swap").c_str());
            ::rename((data + "/swap").c_str(), (data + "/fake").c_str());
        }
    });
    const sim::Folder folder = board().folder();
    int landed = 0;
    for (int i = 0; i < 3000; ++i)
        landed += folder.write("/data/swap/sentinel", "board\n", false, false) == 0;
    stop = true;
    swapper.join();
    expect_outside_untouched("swapped link");
    EXPECT_EQ(board().read_file("/data/real/sentinel"), landed ? "board\n" : "");
}

} // namespace
} // namespace vexa::test
