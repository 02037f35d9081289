// The board's USB in its host: the port files of a new board, and the "usb"
// service, which hands each request to the bus's helper, vexaboard-usb,
// started when the bus is first needed (and again if it has gone).
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/state.h"
#include "sim/usb/usb_settings.h"

extern char **environ;

namespace fs = std::filesystem;

namespace vexa::sim {
namespace {

const char kSettings[] = "/.board/usb-device.conf";
const char kKnob[] = "usb.device";
const char kPreload[] = "libumockdev-preload.so.0";
// The helper's requests and replies: a 4-byte length, then the bytes. A
// reply is never longer than the state of a full echo.
constexpr uint32_t kMaxReply = 1 << 20;

// vexaboard-usb: $VEXA_BOARD_USB, else beside the board's library (or in
// ../libexec), else the build tree's.
std::string helper_program()
{
    if (const char *named = std::getenv("VEXA_BOARD_USB"); named && *named)
        return named;
    std::vector<std::string> dirs;
    Dl_info info;
    if (::dladdr(reinterpret_cast<void *>(&helper_program), &info) != 0 && info.dli_fname)
        dirs.push_back(fs::path(info.dli_fname).parent_path().string());
    for (auto &dir : dirs)
        for (const char *rel : {"/vexaboard-usb", "/../libexec/vexaboard-usb", "/../../libexec/vexaboard-usb"})
            if (::access((dir + rel).c_str(), X_OK) == 0)
                return dir + rel;
#ifdef VEXA_BOARD_USB_FALLBACK
    if (::access(VEXA_BOARD_USB_FALLBACK, X_OK) == 0)
        return VEXA_BOARD_USB_FALLBACK;
#endif
    return "";
}

bool write_all(int fd, const void *data, size_t len)
{
    const auto *p = static_cast<const char *>(data);
    while (len > 0) {
        const ssize_t n = ::send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool read_all(int fd, void *data, size_t len)
{
    auto *p = static_cast<char *>(data);
    while (len > 0) {
        const ssize_t n = ::read(fd, p, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// The helper process of one board, talked to over a socket pair.
class UsbHelper {
public:
    UsbHelper(std::string settings, std::weak_ptr<Board::State> board)
        : settings_(std::move(settings)), board_(std::move(board))
    {
    }
    ~UsbHelper()
    {
        std::lock_guard<std::mutex> lock(mu_);
        stop_locked();
    }
    UsbHelper(const UsbHelper &) = delete;
    UsbHelper &operator=(const UsbHelper &) = delete;

    // The helper's reply; "none" when there is no helper to ask.
    std::string ask(const std::string &request)
    {
        std::lock_guard<std::mutex> lock(mu_);
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (sock_ < 0 && !start_locked())
                return "none";
            std::string reply;
            if (exchange(request, &reply))
                return reply;
            // It has gone: a new one (a bus at power-on) answers.
            stop_locked();
        }
        return "none";
    }

private:
    bool start_locked()
    {
        // Once it could not start, it is not tried on every request.
        if (failed_)
            return false;
        const std::string program = helper_program();
        int pair[2];
        if (program.empty() || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
            failed_ = true;
            return false;
        }
        // The helper holds the testbed, which umockdev checks through its
        // preload library: it runs with it.
        std::vector<std::string> env;
        std::string preload = std::string("LD_PRELOAD=") + kPreload;
        for (char **e = environ; *e != nullptr; ++e) {
            if (std::strncmp(*e, "LD_PRELOAD=", 11) == 0) {
                if (std::strstr(*e, kPreload) == nullptr && (*e)[11] != '\0')
                    preload += std::string(":") + (*e + 11);
            } else if (std::strncmp(*e, "UMOCKDEV_DIR=", 13) != 0) {
                env.emplace_back(*e);
            }
        }
        env.push_back(preload);
        std::vector<char *> envp;
        for (auto &e : env)
            envp.push_back(e.data());
        envp.push_back(nullptr);
        std::string settings_arg = settings_;
        char *argv[] = {const_cast<char *>(program.c_str()), settings_arg.data(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pair[1], 3);
        posix_spawn_file_actions_addclosefrom_np(&actions, 4);
        pid_t pid = -1;
        const int rc = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, envp.data());
        posix_spawn_file_actions_destroy(&actions);
        ::close(pair[1]);
        if (rc != 0) {
            ::close(pair[0]);
            failed_ = true;
            return false;
        }
        sock_ = pair[0];
        pid_ = pid;
        owner_ = ::getpid();
        // A bus starts with the device plugged; the knob may say otherwise.
        std::string reply;
        if (auto board = board_.lock(); board && knob_value(*board, kKnob) == "unplugged")
            exchange("unplug", &reply);
        return true;
    }

    // Closes the socket, which tells the helper to leave, and reaps it.
    void stop_locked()
    {
        if (sock_ >= 0)
            ::close(sock_);
        sock_ = -1;
        if (pid_ > 0 && owner_ == ::getpid()) {
            int status;
            // It removes its testbed and leaves at once; one that hangs is killed.
            for (int waited = 0; ::waitpid(pid_, &status, WNOHANG) == 0; waited += 10) {
                if (waited == 2000)
                    ::kill(pid_, SIGKILL);
                struct timespec pause = {0, 10000000};
                ::nanosleep(&pause, nullptr);
            }
        }
        pid_ = -1;
    }

    bool exchange(const std::string &request, std::string *reply)
    {
        const uint32_t length = static_cast<uint32_t>(request.size());
        if (!write_all(sock_, &length, sizeof length) || !write_all(sock_, request.data(), request.size()))
            return false;
        uint32_t size = 0;
        if (!read_all(sock_, &size, sizeof size) || size > kMaxReply)
            return false;
        reply->resize(size);
        return read_all(sock_, reply->data(), size);
    }

    std::string settings_;
    std::weak_ptr<Board::State> board_;
    std::mutex mu_;
    int sock_ = -1;
    pid_t pid_ = -1;
    pid_t owner_ = -1;
    bool failed_ = false;
};

} // namespace
} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_SEEDER(usb)
{
    // The four ports' enable files of the default product INI, all on, and
    // the OTG role of the USB 2 PHY.
    for (int port = 1; port <= 4; ++port)
        board.write_file("/sys/class/vexagpios/USB" + std::to_string(port) + "_EN/value", "1\n");
    board.write_file("/sys/devices/platform/fe8a0000.usb2-phy/otg_mode", "host\n");
    board.write_file(kSettings,
                     "# The board's USB bulk device, read when the board's host sets its bus up.\n"
                     "# Its ids, interface 0's class, where it sits at power-on (bus 1, 3 or 5;\n"
                     "# address) and its speed in Mb/s (12 or 480):\n"
                     "vendor=0x1209\nproduct=0x0001\nclass=0xff\nbus=1\naddress=2\nspeed=480\n"
                     "# Faults: device=none, others=none (no hubs or other devices), configurations=0,\n"
                     "# driver=NAME (a kernel driver holds interface 0), detach=fail, claim=fail,\n"
                     "# node=missing (the device cannot be opened).\n");
}

// The bus lives in the helper; this process's service reaches it for every
// process that attaches the board, and the knob usb.device pulls the
// device's cable.
VEXA_SIM_ATTACHER(usb)
{
    auto helper = std::make_shared<UsbHelper>(board.host_path(kSettings), attached());
    board.serve(kUsbService, [helper](const std::string &request) { return helper->ask(request); });
    board.add_knob({kKnob, "plugged|unplugged",
                    "unplugged: the bulk device leaves the bus (libusb's hotplug sees it go, open nodes fail "
                    "with ENODEV); plugged again, it comes back at the next address",
                    "plugged", {}, [helper](const std::string &value) {
                        helper->ask(value == "unplugged" ? "unplug" : "plug");
                    }});
}
