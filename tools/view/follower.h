// Follows a board folder with inotify: one thread, one descriptor, a watch
// on every directory of the folder (new ones are added as they appear).
// Writes that come close together are handed on as one batch: the board
// paths that changed ("/.board/gpio", ...), or "*" when the kernel's queue
// overflowed and anything may have changed.
#ifndef VEXA_VIEW_FOLLOWER_H
#define VEXA_VIEW_FOLLOWER_H

#include <atomic>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>

namespace vexa::view {

class Follower {
public:
    using Handler = std::function<void(const std::set<std::string> &changed)>;
    // Calls handler on the follower's own thread, one batch at a time.
    // Throws std::system_error when inotify cannot be had.
    Follower(std::string root, Handler handler);
    ~Follower(); // stops the thread
    Follower(const Follower &) = delete;
    Follower &operator=(const Follower &) = delete;

private:
    void watch_tree(const std::string &board_dir);
    void run();

    std::string root_;
    Handler handler_;
    int fd_ = -1;
    int wake_[2] = {-1, -1};
    std::map<int, std::string> dirs_; // watch descriptor -> board path of the directory
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace vexa::view

#endif
