#include "sim/journal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace vexa::sim {

namespace {

// Reads [from, from + count) of fd; short when the file is shorter.
std::string read_range(int fd, off_t from, size_t count)
{
    std::string bytes(count, '\0');
    size_t done = 0;
    while (done < count) {
        const ssize_t n = ::pread(fd, &bytes[done], count - done, from + static_cast<off_t>(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    bytes.resize(done);
    return bytes;
}

bool write_all(int fd, const std::string &bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// flock that waits through signals.
void lock_fd(int fd, int how)
{
    while (::flock(fd, how) != 0 && errno == EINTR) {
    }
}

} // namespace

Journal::Journal(std::string path) : path_(std::move(path))
{
    // Open from the start: the process's descriptors do not change with its
    // first record.
    std::lock_guard<std::mutex> lock(mu_);
    ensure_open_locked();
}

Journal::~Journal()
{
    if (fd_ >= 0)
        ::close(fd_);
}

bool Journal::ensure_open_locked(struct stat *seen)
{
    if (fd_ >= 0) {
        struct stat st;
        // A file replaced by a compaction has no link left: follow the new one.
        if (::fstat(fd_, &st) == 0 && st.st_nlink > 0) {
            if (seen)
                *seen = st;
            return true;
        }
        ::close(fd_);
        fd_ = -1;
        offset_ = 0;
        partial_.clear();
        reopened_ = true;
    }
    fd_ = ::open(path_.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    return fd_ >= 0 && (!seen || ::fstat(fd_, seen) == 0);
}

bool Journal::append(const std::string &record)
{
    const std::string line = record + "\n";
    std::lock_guard<std::mutex> lock(mu_);
    for (int tries = 0; tries < 8; ++tries) {
        if (!ensure_open_locked())
            return false;
        lock_fd(fd_, LOCK_SH);
        struct stat st;
        if (::fstat(fd_, &st) == 0 && st.st_nlink == 0) {
            // Compacted while we waited for the lock.
            ::flock(fd_, LOCK_UN);
            continue;
        }
        // One write per record: appends of several processes never interleave.
        const bool ok = write_all(fd_, line);
        ::flock(fd_, LOCK_UN);
        return ok;
    }
    return false;
}

std::vector<std::string> Journal::split_locked(const std::string &bytes)
{
    std::vector<std::string> records;
    std::string text = partial_ + bytes;
    partial_.clear();
    size_t start = 0;
    for (;;) {
        const size_t end = text.find('\n', start);
        if (end == std::string::npos)
            break;
        records.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    partial_ = text.substr(start);
    return records;
}

std::vector<std::string> Journal::read_new(bool *restarted)
{
    std::lock_guard<std::mutex> lock(mu_);
    struct stat st;
    if (!ensure_open_locked(&st)) {
        *restarted = false;
        return {};
    }
    *restarted = reopened_;
    reopened_ = false;
    if (st.st_size < offset_) {
        // Cut short in place: read it again from the start.
        offset_ = 0;
        partial_.clear();
        *restarted = true;
    }
    if (st.st_size == offset_)
        return {};
    const std::string bytes = read_range(fd_, offset_, static_cast<size_t>(st.st_size - offset_));
    offset_ += static_cast<off_t>(bytes.size());
    return split_locked(bytes);
}

std::vector<std::string> Journal::read_all()
{
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    std::string bytes;
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        bytes.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    std::vector<std::string> records;
    size_t start = 0;
    for (;;) {
        const size_t end = bytes.find('\n', start);
        if (end == std::string::npos)
            break;
        records.push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    return records;
}

bool Journal::rewrite(const Compactor &compact)
{
    std::lock_guard<std::mutex> lock(mu_);
    for (int tries = 0; tries < 8; ++tries) {
        if (!ensure_open_locked())
            return false;
        lock_fd(fd_, LOCK_EX);
        struct stat st;
        if (::fstat(fd_, &st) != 0 || st.st_nlink == 0) {
            ::flock(fd_, LOCK_UN);
            continue;
        }
        const std::string bytes = read_range(fd_, 0, static_cast<size_t>(st.st_size));
        std::vector<std::string> all;
        size_t fresh_from = 0;
        size_t start = 0;
        const size_t read_before = static_cast<size_t>(offset_) - partial_.size();
        for (;;) {
            const size_t end = bytes.find('\n', start);
            if (end == std::string::npos)
                break;
            if (end < read_before)
                fresh_from = all.size() + 1;
            all.push_back(bytes.substr(start, end - start));
            start = end + 1;
        }
        std::string text;
        for (auto &record : compact(all, fresh_from))
            text += record + "\n";
        const std::string tmp = path_ + ".new";
        const int out = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const bool ok = out >= 0 && write_all(out, text);
        if (out >= 0)
            ::close(out);
        if (!ok || ::rename(tmp.c_str(), path_.c_str()) != 0) {
            ::unlink(tmp.c_str());
            ::flock(fd_, LOCK_UN);
            return false;
        }
        ::flock(fd_, LOCK_UN);
        ::close(fd_);
        fd_ = ::open(path_.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        offset_ = static_cast<off_t>(text.size());
        partial_.clear();
        return fd_ >= 0;
    }
    return false;
}

off_t Journal::size()
{
    struct stat st;
    return ::stat(path_.c_str(), &st) == 0 ? st.st_size : -1;
}

} // namespace vexa::sim
