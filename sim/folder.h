// The board's folder: the one place where a board path becomes a file of the
// host. Every file the board touches on behalf of a board path (the OS
// layer's calls, the HAL's files, the shell commands the board carries out,
// every model's nodes and files) is reached through a Folder.
//
// A board path names a file of the device, and it is resolved beneath the
// folder's root, never outside it:
// - "/" is the root. A relative path is taken from "/", the working folder
//   of the device's services. "." and ".." are read as the device reads
//   them: ".." at the root stays at the root, so "/../../etc/passwd" is
//   ROOT/etc/passwd.
// - A symbolic link inside the folder is followed inside it: a relative
//   link from the folder that holds it, an absolute link that names a place
//   in the folder by its host path (ROOT/...) there. A link that leads
//   outside the folder (one that climbs past the root, or names any other
//   host path) is refused with EXDEV.
// - One exception, the real host nodes: when the last name of a path opened
//   for use (not with O_NOFOLLOW) is an absolute link to a character device
//   of the host (a tty, a pty, a USB-serial adapter, /dev/null), the call
//   opens that device. Only a character device counts; a link to any other
//   host file or folder is refused.
// - Each name is looked up on a descriptor of the folder reached so far
//   (openat2 with RESOLVE_IN_ROOT while the path holds no link, else one name
//   at a time), so a link swapped in between a check and a use cannot move a
//   call outside the folder.
//
// Calls return what the system calls they stand for return: -1 with errno.
// Threads: a Folder may be used from any thread.
#ifndef VEXA_SIM_FOLDER_H
#define VEXA_SIM_FOLDER_H

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vexa::sim {

// An owned descriptor of the host, closed when it goes out of scope.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept;
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor();

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

// "/proc/self/fd/N": a name by which calls that take only a path reach the
// very file a descriptor holds (iniparser, inotify, chmod of a link's folder).
std::string descriptor_path(int fd);

class Folder {
public:
    Folder() = default; // no folder: every call fails with ENODEV
    explicit Folder(std::string root) : root_(std::move(root)) {}
    const std::string &root() const { return root_; }

    // The board path a path names, with "." and ".." taken away as the
    // device reads them ("/a/../../b" is "/b"); links are not looked at.
    static std::string normal(const std::string &path);

    // As open(2) of the board path.
    int open(const std::string &path, int flags, mode_t mode = 0) const;
    // The folder (an O_PATH descriptor) that holds the path's last name, and
    // that name: "." for a path that ends in "." or ".." or names the root.
    Descriptor open_parent(const std::string &path, std::string *name) const;

    // As stat(2) (follow) or lstat(2).
    int stat(const std::string &path, struct stat *st, bool follow = true) const;
    bool exists(const std::string &path) const; // something stands there, a dangling link included
    bool is_directory(const std::string &path) const;
    bool is_regular(const std::string &path) const;
    int access(const std::string &path, int mode) const;
    DIR *opendir(const std::string &path) const;
    // The names in a folder, sorted, without "." and ".."; nothing when it
    // cannot be read.
    std::optional<std::vector<std::string>> list(const std::string &path) const;

    int mkdir(const std::string &path, mode_t mode = 0755) const;
    // mkdir -p: the folder and every missing folder above it.
    int make_dirs(const std::string &path, mode_t mode = 0755) const;
    // As remove(3): a file, a link (never what it leads to) or an empty folder.
    int remove(const std::string &path) const;
    // As rm -rf: a link is removed, never followed. 0 when nothing stood there.
    int remove_all(const std::string &path) const;
    int rename(const std::string &from, const std::string &to) const;
    // Makes a link at path that holds target, as symlink(2).
    int symlink(const std::string &target, const std::string &path) const;
    // The text of the link at path, as readlink(2).
    std::optional<std::string> read_link(const std::string &path) const;
    // As chmod(2), following a link.
    int chmod(const std::string &path, mode_t mode) const;

    // A file's contents; nothing when it cannot be read.
    std::optional<std::string> read(const std::string &path) const;
    // Replaces (or with append, extends) a file's contents, making the
    // folders above it when make_parents. 0, or -1 with errno.
    int write(const std::string &path, const std::string &contents, bool append = false,
              bool make_parents = true) const;

private:
    int open_root() const;
    int walk(int root, const std::string &path, int flags, mode_t mode) const;

    std::string root_;
};

} // namespace vexa::sim

#endif
