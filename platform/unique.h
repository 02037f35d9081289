// Owners of what the OS layer hands out: a descriptor and a stdio stream,
// closed when they go out of scope.
#ifndef VEXA_PLATFORM_UNIQUE_H
#define VEXA_PLATFORM_UNIQUE_H

#include <cstdio>
#include <memory>
#include <utility>

#include "platform/os.h"

namespace vexa {

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        if (this != &other)
            reset(std::exchange(other.fd_, -1));
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    // Gives the descriptor up without closing it.
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            os::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

struct FileCloser {
    void operator()(FILE *f) const { std::fclose(f); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

} // namespace vexa

#endif
