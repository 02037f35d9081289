#include "tools/view/follower.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace vexa::view {
namespace {

// Writes, and files coming and going. Not IN_CLOSE_WRITE: a reader that
// opens a file for writing and writes nothing changes nothing.
constexpr uint32_t kMask = IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM | IN_DONT_FOLLOW;
// Writes closer together than this are one batch.
constexpr int kGatherMs = 40;

} // namespace

Follower::Follower(std::string root, Handler handler) : root_(std::move(root)), handler_(std::move(handler))
{
    fd_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (fd_ < 0 || ::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        const int error = errno;
        if (fd_ >= 0)
            ::close(fd_);
        throw std::system_error(error, std::generic_category(), "inotify on " + root_);
    }
    watch_tree("");
    thread_ = std::thread([this] { run(); });
}

Follower::~Follower()
{
    stop_ = true;
    (void)!::write(wake_[1], "x", 1);
    if (thread_.joinable())
        thread_.join();
    ::close(fd_);
    ::close(wake_[0]);
    ::close(wake_[1]);
}

// Watches board_dir ("" for the root) and every directory below it; links
// are not followed, so nothing outside the folder is watched.
void Follower::watch_tree(const std::string &board_dir)
{
    const int wd = ::inotify_add_watch(fd_, (root_ + board_dir).c_str(), kMask | IN_ONLYDIR);
    if (wd < 0)
        return;
    dirs_[wd] = board_dir;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(root_ + board_dir, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code kind;
        if (it->is_directory(kind) && !it->is_symlink(kind))
            watch_tree(board_dir + "/" + it->path().filename().string());
    }
}

void Follower::run()
{
    std::set<std::string> changed;
    // Aligned as struct inotify_event needs.
    alignas(struct inotify_event) char buf[16384];
    while (!stop_) {
        struct pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        // Block until something happens; once a batch has begun, gather
        // what follows it closely.
        const int n = ::poll(fds, 2, changed.empty() ? -1 : kGatherMs);
        if (stop_)
            return;
        if (n < 0 && errno != EINTR)
            return;
        if (n == 0) {
            handler_(changed);
            changed.clear();
            continue;
        }
        for (;;) {
            const ssize_t len = ::read(fd_, buf, sizeof buf);
            if (len <= 0)
                break;
            for (ssize_t at = 0; at < len;) {
                const auto *event = reinterpret_cast<const struct inotify_event *>(buf + at);
                at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
                if (event->mask & IN_Q_OVERFLOW) {
                    changed.insert("*");
                    continue;
                }
                auto dir = dirs_.find(event->wd);
                if (dir == dirs_.end())
                    continue;
                if (event->mask & IN_IGNORED) {
                    dirs_.erase(dir);
                    continue;
                }
                const std::string path = dir->second + "/" + (event->len ? event->name : "");
                if ((event->mask & (IN_CREATE | IN_MOVED_TO)) && (event->mask & IN_ISDIR))
                    watch_tree(path);
                changed.insert(path);
            }
        }
    }
}

} // namespace vexa::view
