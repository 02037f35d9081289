// Board paths from arbitrary bytes, and the board's mount records: whatever
// path a caller gives and whatever the record of mounts says, no call of the
// OS layer reaches outside the board's folder. The board holds links that
// lead out (absolute and climbing) and inside; a folder beside it holds a
// sentinel that must stay as it is, and nothing may appear beside the board.
//
// The input: one byte choosing the call, then the path up to the first NUL
// (bytes 1 to 14 stand for names: "/", "..", ".", "data", "out", "up",
// "in", "sentinel", "outside", "null", "x", ".board", "dev", "file"; any
// other byte is itself), then the text of ROOT/.board/mounts, which an
// unmount of the path then reads.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/os.h"
#include "sim/board.h"

namespace fs = std::filesystem;

namespace {

const char *const kNames[] = {"/",        "..",      ".",    "data", "out", "up",     "in",
                              "sentinel", "outside", "null", "x",    ".board", "dev",  "file"};

struct Fixture {
    std::string top, outside;
    vexa::sim::Board board;
    std::string before;
};

// What lies beside the board: every name below top but the board, with
// the sentinel's mode and contents.
std::string outside_state(const std::string &top)
{
    std::ostringstream state;
    for (auto it = fs::recursive_directory_iterator(top); it != fs::recursive_directory_iterator(); ++it) {
        if (it->path() == top + "/board") {
            it.disable_recursion_pending();
            continue;
        }
        struct stat st;
        ::lstat(it->path().c_str(), &st);
        state << it->path().string() << ' ' << st.st_mode << ' ' << st.st_size << '\n';
        if (S_ISREG(st.st_mode)) {
            std::ifstream in(it->path(), std::ios::binary);
            state << in.rdbuf() << '\n';
        }
    }
    return state.str();
}

void place_link(const std::string &root, const std::string &target, const std::string &at)
{
    struct stat st;
    if (::lstat((root + at).c_str(), &st) == 0)
        return;
    fs::create_directories(fs::path(root + at).parent_path());
    if (::symlink(target.c_str(), (root + at).c_str()) != 0) {
        // a folder made by an earlier input stands there: the link is left out
    }
}

Fixture &fixture()
{
    static Fixture *f = [] {
        const char *tmp = std::getenv("TMPDIR");
        std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/vexapathfuzz-XXXXXX";
        if (!::mkdtemp(templ.data()))
            std::abort();
        const std::string outside = templ + "/outside";
        fs::create_directories(outside);
        std::ofstream(outside + "/sentinel") << "outside\n";
        auto *made = new Fixture{templ, outside, vexa::sim::Board::Builder().root(templ + "/board").bare().build(),
                                 ""};
        // The reserve partition with its file system, for mounts.
        made->board.write_file("/dev/block/mmcblk2p22", "");
        vexa::os::system("mkfs.ext4 -F /dev/block/mmcblk2p22");
        made->before = outside_state(templ);
        std::atexit([] { fs::remove_all(fixture().top); });
        return made;
    }();
    return *f;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fixture &f = fixture();
    const std::string root = f.board.root();
    place_link(root, f.outside, "/data/out");
    place_link(root, "../../outside", "/data/up");
    place_link(root, f.outside + "/sentinel", "/data/file");
    place_link(root, "../dev", "/data/in");
    place_link(root, "/dev/null", "/dev/null");
    f.board.folder().write("/data/x", "moved\n");
    if (size == 0)
        return 0;
    std::string path;
    size_t i = 1;
    for (; i < size && data[i] != 0; ++i)
        path += data[i] <= sizeof kNames / sizeof *kNames ? kNames[data[i] - 1] : std::string(1, char(data[i]));
    const std::string mounts = i < size ? std::string(reinterpret_cast<const char *>(data) + i + 1, size - i - 1)
                                        : std::string();
    namespace os = vexa::os;
    struct stat st;
    switch (data[0] % 8) {
    case 0:
        if (const int fd = os::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644); fd >= 0) {
            (void)os::write(fd, "board\n", 6);
            os::close(fd);
        }
        break;
    case 1: os::mkdir(path.c_str(), 0755); break;
    case 2: os::remove(path.c_str()); break;
    case 3: os::rename("/data/x", path.c_str()); break;
    case 4:
        if (FILE *file = os::fopen(path.c_str(), "a")) {
            std::fputs("board\n", file);
            std::fclose(file);
        }
        break;
    case 5:
        os::stat(path.c_str(), &st);
        os::access(path.c_str(), W_OK);
        if (DIR *dir = os::opendir(path.c_str()))
            ::closedir(dir);
        break;
    case 6: os::mount("/dev/block/mmcblk2p22", path.c_str(), "ext4", 0, nullptr); break;
    default: break;
    }
    f.board.folder().write("/.board/mounts", mounts);
    os::umount(path.c_str());
    if (outside_state(f.top) != f.before)
        std::abort();
    return 0;
}
