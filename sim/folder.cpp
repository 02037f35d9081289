// Board paths resolved beneath the board's root (sim/folder.h).
#include "sim/folder.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>

namespace vexa::sim {

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept
{
    if (this != &other) {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

Descriptor::~Descriptor()
{
    if (fd_ >= 0)
        ::close(fd_);
}

std::string descriptor_path(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

namespace {

// As many links as the kernel follows in one lookup.
constexpr int kMaxLinks = 40;

// A name still to look up, and whether it came from a link's text (such a
// ".." may not climb past the root: the link would lead outside).
struct Name {
    std::string text;
    bool from_link;
};

std::vector<std::string> names_of(const std::string &path)
{
    std::vector<std::string> names;
    size_t at = 0;
    while (at <= path.size()) {
        size_t end = path.find('/', at);
        if (end == std::string::npos)
            end = path.size();
        if (end > at && path.compare(at, end - at, ".") != 0)
            names.push_back(path.substr(at, end - at));
        at = end + 1;
    }
    return names;
}

void push_front(std::deque<Name> &todo, const std::string &path, bool from_link)
{
    const auto names = names_of(path);
    for (auto it = names.rbegin(); it != names.rend(); ++it)
        todo.push_front({*it, from_link});
}

std::optional<std::string> link_text(int dir, const char *name)
{
    std::string text(256, '\0');
    for (;;) {
        const ssize_t n = ::readlinkat(dir, name, text.data(), text.size());
        if (n < 0)
            return std::nullopt;
        if (static_cast<size_t>(n) < text.size()) {
            text.resize(static_cast<size_t>(n));
            return text;
        }
        text.resize(text.size() * 2);
    }
}

// A real host node: the character device an absolute link names, opened as
// the caller asked. The device is pinned by a descriptor before it is
// checked, and opened again through that descriptor, so a link swapped in
// on the host's side cannot turn it into another file.
int open_host_node(const std::string &target, int flags)
{
    Descriptor node(::open(target.c_str(), O_PATH | O_CLOEXEC));
    if (!node)
        return -1;
    struct stat st;
    if (::fstat(node.get(), &st) != 0)
        return -1;
    if (!S_ISCHR(st.st_mode)) {
        errno = EXDEV;
        return -1;
    }
    if (flags & O_PATH)
        return node.release();
    return ::open(descriptor_path(node.get()).c_str(), (flags & ~(O_CREAT | O_EXCL)) | O_CLOEXEC);
}

std::atomic<bool> g_no_openat2{false};

// openat2 beneath root for a path that holds no link; -2 when it cannot
// tell (a link on the way, or no openat2 in this kernel).
int open_without_links(int root, const std::string &path, int flags, mode_t mode)
{
#if defined(SYS_openat2) && defined(RESOLVE_IN_ROOT)
    if (g_no_openat2.load(std::memory_order_relaxed))
        return -2;
    struct open_how how = {};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? mode : 0;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_SYMLINKS;
    const long fd = ::syscall(SYS_openat2, root, path.c_str(), &how, sizeof how);
    if (fd >= 0)
        return static_cast<int>(fd);
    if (errno == ENOSYS)
        g_no_openat2 = true;
    else if (errno != ELOOP && errno != EAGAIN && errno != EXDEV)
        return -1;
    return -2;
#else
    (void)root, (void)path, (void)flags, (void)mode;
    return -2;
#endif
}

} // namespace

std::string Folder::normal(const std::string &path)
{
    std::vector<std::string> kept;
    for (auto &name : names_of(path)) {
        if (name != "..")
            kept.push_back(std::move(name));
        else if (!kept.empty())
            kept.pop_back();
    }
    std::string out;
    for (const auto &name : kept)
        out += "/" + name;
    return out.empty() ? "/" : out;
}

int Folder::open_root() const
{
    if (root_.empty()) {
        errno = ENODEV;
        return -1;
    }
    return ::open(root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

int Folder::open(const std::string &path, int flags, mode_t mode) const
{
    Descriptor root(open_root());
    if (!root)
        return -1;
    if (path.empty()) {
        errno = ENOENT;
        return -1;
    }
    const int fd = open_without_links(root.get(), path, flags, mode);
    return fd != -2 ? fd : walk(root.get(), path, flags, mode);
}

// One name at a time, each looked up with O_NOFOLLOW on the descriptor of
// the folder reached so far; a link's text is taken apart into the names
// still to look up.
int Folder::walk(int root, const std::string &path, int flags, mode_t mode) const
{
    std::deque<Name> todo;
    push_front(todo, path, false);
    std::vector<Descriptor> dirs; // the folders below the root on the way
    int links = 0;
    for (;;) {
        const int here = dirs.empty() ? root : dirs.back().get();
        if (todo.empty())
            return ::openat(here, ".", flags | O_CLOEXEC, mode);
        const Name name = std::move(todo.front());
        todo.pop_front();
        if (name.text == "..") {
            if (!dirs.empty()) {
                dirs.pop_back();
            } else if (name.from_link) {
                errno = EXDEV;
                return -1;
            }
            continue;
        }
        const bool last = todo.empty();
        Descriptor link;
        if (!last) {
            Descriptor next(::openat(here, name.text.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
            struct stat st;
            if (!next || ::fstat(next.get(), &st) != 0)
                return -1;
            if (S_ISDIR(st.st_mode)) {
                dirs.push_back(std::move(next));
                continue;
            }
            if (!S_ISLNK(st.st_mode)) {
                errno = ENOTDIR;
                return -1;
            }
            link = std::move(next);
        } else {
            Descriptor fd(::openat(here, name.text.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode));
            if (fd) {
                struct stat st;
                // O_PATH opens the link itself: a caller who did not ask
                // for that is led on.
                if (!(flags & O_PATH) || (flags & O_NOFOLLOW) || ::fstat(fd.get(), &st) != 0 ||
                    !S_ISLNK(st.st_mode))
                    return fd.release();
                link = std::move(fd);
            } else {
                // A link refuses O_NOFOLLOW with ELOOP, or with ENOTDIR
                // when a folder was asked for.
                const int error = errno;
                if ((error != ELOOP && error != ENOTDIR) || (flags & O_NOFOLLOW))
                    return -1;
                link = Descriptor(::openat(here, name.text.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
                struct stat st;
                if (!link || ::fstat(link.get(), &st) != 0)
                    return -1;
                if (error == ENOTDIR && !S_ISLNK(st.st_mode)) {
                    errno = ENOTDIR;
                    return -1;
                }
                if (!S_ISLNK(st.st_mode)) {
                    // Swapped while we looked: look again.
                    if (++links > kMaxLinks) {
                        errno = ELOOP;
                        return -1;
                    }
                    todo.push_front(name);
                    continue;
                }
            }
        }
        if (++links > kMaxLinks) {
            errno = ELOOP;
            return -1;
        }
        const auto text = link_text(link.get(), "");
        if (!text)
            return -1;
        if (text->empty()) {
            errno = ENOENT;
            return -1;
        }
        if ((*text)[0] != '/') {
            push_front(todo, *text, true);
            continue;
        }
        if (text->compare(0, root_.size(), root_) == 0 &&
            (text->size() == root_.size() || (*text)[root_.size()] == '/')) {
            dirs.clear();
            push_front(todo, text->substr(root_.size()), true);
            continue;
        }
        if (last && !(flags & (O_NOFOLLOW | O_DIRECTORY)))
            return open_host_node(*text, flags);
        errno = EXDEV;
        return -1;
    }
}

Descriptor Folder::open_parent(const std::string &path, std::string *name) const
{
    std::string dir = path;
    while (dir.size() > 1 && dir.back() == '/')
        dir.pop_back();
    const size_t slash = dir.rfind('/');
    std::string last = slash == std::string::npos ? dir : dir.substr(slash + 1);
    if (last.empty() || last == "." || last == "..") {
        *name = ".";
    } else {
        *name = last;
        dir = slash == std::string::npos ? "/" : slash == 0 ? "/" : dir.substr(0, slash);
    }
    if (path.empty()) {
        errno = ENOENT;
        return Descriptor();
    }
    return Descriptor(open(dir, O_PATH | O_DIRECTORY));
}

int Folder::stat(const std::string &path, struct stat *st, bool follow) const
{
    Descriptor fd(open(path, O_PATH | (follow ? 0 : O_NOFOLLOW)));
    return fd ? ::fstat(fd.get(), st) : -1;
}

bool Folder::exists(const std::string &path) const
{
    struct stat st;
    return stat(path, &st, false) == 0;
}

bool Folder::is_directory(const std::string &path) const
{
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool Folder::is_regular(const std::string &path) const
{
    struct stat st;
    return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

int Folder::access(const std::string &path, int mode) const
{
    Descriptor fd(open(path, O_PATH));
    if (!fd)
        return -1;
    return mode == F_OK ? 0 : ::access(descriptor_path(fd.get()).c_str(), mode);
}

DIR *Folder::opendir(const std::string &path) const
{
    Descriptor fd(open(path, O_RDONLY | O_DIRECTORY));
    if (!fd)
        return nullptr;
    DIR *dir = ::fdopendir(fd.get());
    if (dir)
        fd.release();
    return dir;
}

std::optional<std::vector<std::string>> Folder::list(const std::string &path) const
{
    DIR *dir = opendir(path);
    if (!dir)
        return std::nullopt;
    std::vector<std::string> names;
    while (const struct dirent *entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

int Folder::mkdir(const std::string &path, mode_t mode) const
{
    std::string name;
    Descriptor dir = open_parent(path, &name);
    return dir ? ::mkdirat(dir.get(), name.c_str(), mode) : -1;
}

int Folder::make_dirs(const std::string &path, mode_t mode) const
{
    std::string at;
    for (const auto &name : names_of(normal(path))) {
        at += "/" + name;
        if (mkdir(at, mode) != 0 && errno != EEXIST)
            return -1;
    }
    if (!is_directory(at.empty() ? "/" : at)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

int Folder::remove(const std::string &path) const
{
    std::string name;
    Descriptor dir = open_parent(path, &name);
    if (!dir)
        return -1;
    if (::unlinkat(dir.get(), name.c_str(), 0) == 0)
        return 0;
    if (errno != EISDIR)
        return -1;
    return ::unlinkat(dir.get(), name.c_str(), AT_REMOVEDIR);
}

namespace {

// Removes a name of a folder and, for a folder, all it holds; a link is
// removed itself. Every step stays on descriptors.
int remove_tree(int dir, const std::string &name)
{
    Descriptor sub(::openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!sub) {
        if (errno == ENOTDIR || errno == ELOOP)
            return ::unlinkat(dir, name.c_str(), 0);
        return -1;
    }
    DIR *entries = ::fdopendir(sub.get());
    if (!entries)
        return -1;
    const int fd = sub.release();
    std::vector<std::string> names;
    while (const struct dirent *entry = ::readdir(entries)) {
        const std::string child = entry->d_name;
        if (child != "." && child != "..")
            names.push_back(child);
    }
    int result = 0;
    for (const auto &child : names)
        if (remove_tree(fd, child) != 0 && errno != ENOENT)
            result = -1;
    ::closedir(entries);
    if (result != 0)
        return -1;
    return ::unlinkat(dir, name.c_str(), AT_REMOVEDIR);
}

} // namespace

int Folder::remove_all(const std::string &path) const
{
    std::string name;
    Descriptor dir = open_parent(path, &name);
    if (!dir)
        return errno == ENOENT ? 0 : -1;
    if (name == ".") {
        errno = EINVAL;
        return -1;
    }
    if (remove_tree(dir.get(), name) != 0)
        return errno == ENOENT ? 0 : -1;
    return 0;
}

int Folder::rename(const std::string &from, const std::string &to) const
{
    std::string from_name, to_name;
    Descriptor from_dir = open_parent(from, &from_name);
    if (!from_dir)
        return -1;
    Descriptor to_dir = open_parent(to, &to_name);
    if (!to_dir)
        return -1;
    return ::renameat(from_dir.get(), from_name.c_str(), to_dir.get(), to_name.c_str());
}

int Folder::symlink(const std::string &target, const std::string &path) const
{
    std::string name;
    Descriptor dir = open_parent(path, &name);
    return dir ? ::symlinkat(target.c_str(), dir.get(), name.c_str()) : -1;
}

std::optional<std::string> Folder::read_link(const std::string &path) const
{
    std::string name;
    Descriptor dir = open_parent(path, &name);
    if (!dir)
        return std::nullopt;
    return link_text(dir.get(), name.c_str());
}

int Folder::chmod(const std::string &path, mode_t mode) const
{
    Descriptor fd(open(path, O_PATH));
    return fd ? ::chmod(descriptor_path(fd.get()).c_str(), mode) : -1;
}

std::optional<std::string> Folder::read(const std::string &path) const
{
    Descriptor fd(open(path, O_RDONLY));
    if (!fd)
        return std::nullopt;
    std::string text;
    char buf[16384];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return std::nullopt;
        }
        if (n == 0)
            return text;
        text.append(buf, static_cast<size_t>(n));
    }
}

int Folder::write(const std::string &path, const std::string &contents, bool append,
                  bool make_parents) const
{
    if (make_parents) {
        const std::string at = normal(path);
        if (make_dirs(at.substr(0, at.rfind('/'))) != 0)
            return -1;
    }
    Descriptor fd(open(path, O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC), 0644));
    if (!fd)
        return -1;
    size_t done = 0;
    while (done < contents.size()) {
        const ssize_t n = ::write(fd.get(), contents.data() + done, contents.size() - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

} // namespace vexa::sim
