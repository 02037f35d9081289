// The messages between a board's host and the processes that attach the
// board: a 32-bit length, then fields (numbers little-endian, byte strings
// with a 32-bit length before them). A descriptor travels beside a message
// (SCM_RIGHTS).
#ifndef VEXA_SIM_WIRE_H
#define VEXA_SIM_WIRE_H

#include <cstdint>
#include <cstring>
#include <string>

namespace vexa::sim::wire {

// What a client asks of the host.
enum Op : uint8_t {
    kHello = 1,   // -> u32 pid of the host; lists (models, commands, mounts, watched files)
    kSync,        // -> (the host has taken in every write made before)
    kCall,        // str name, str request -> u8 ok, str reply | i32 errno
    kCommand,     // str command -> i32 status, str output
    kMount,       // str source, str target, u8 attaching -> i32 result, i32 errno
    kOpen,        // str path, i32 flags, u32 mode
                  // -> i64 handle, i32 errno, u8 read takes the buffer (+ descriptor)
    kRead,        // i64 handle, u64 count, str buffer (read_takes_buffer) -> i64 result, i32 errno, str bytes
    kWrite,       // i64 handle, str bytes -> i64 result, i32 errno
    kPread,       // i64 handle, u64 count, i64 offset, str buffer -> as kRead
    kPwrite,      // i64 handle, str bytes, i64 offset -> as kWrite
    kIoctl,       // i64 handle, u64 request, u64 value, u8 has_arg, str arg
                  // -> i64 result, i32 errno, str arg | (result -2: u64 size it needs)
    kClose,       // i64 handle -> i64 result
    kQuit,        // -> (the host leaves after the reply)
};

class Writer {
public:
    Writer &u8(uint8_t v) { return raw(&v, 1); }
    Writer &u32(uint32_t v) { return num(v, 4); }
    Writer &i32(int32_t v) { return num(static_cast<uint32_t>(v), 4); }
    Writer &u64(uint64_t v) { return num(v, 8); }
    Writer &i64(int64_t v) { return num(static_cast<uint64_t>(v), 8); }
    Writer &str(const std::string &s)
    {
        u32(static_cast<uint32_t>(s.size()));
        return raw(s.data(), s.size());
    }
    const std::string &bytes() const { return out_; }

private:
    Writer &raw(const void *p, size_t n)
    {
        out_.append(static_cast<const char *>(p), n);
        return *this;
    }
    Writer &num(uint64_t v, int n)
    {
        for (int i = 0; i < n; ++i)
            out_.push_back(static_cast<char>(v >> (8 * i)));
        return *this;
    }
    std::string out_;
};

// Reads fields in order; a message too short reads zeros and empty strings
// and marks itself bad.
class Reader {
public:
    explicit Reader(const std::string &bytes) : in_(bytes) {}
    uint8_t u8() { return static_cast<uint8_t>(num(1)); }
    uint32_t u32() { return static_cast<uint32_t>(num(4)); }
    int32_t i32() { return static_cast<int32_t>(num(4)); }
    uint64_t u64() { return num(8); }
    int64_t i64() { return static_cast<int64_t>(num(8)); }
    std::string str()
    {
        const uint32_t n = u32();
        if (in_.size() - at_ < n) {
            bad_ = true;
            at_ = in_.size();
            return {};
        }
        std::string s = in_.substr(at_, n);
        at_ += n;
        return s;
    }
    bool bad() const { return bad_; }

private:
    uint64_t num(int n)
    {
        if (in_.size() - at_ < static_cast<size_t>(n)) {
            bad_ = true;
            at_ = in_.size();
            return 0;
        }
        uint64_t v = 0;
        for (int i = 0; i < n; ++i)
            v |= static_cast<uint64_t>(static_cast<uint8_t>(in_[at_ + i])) << (8 * i);
        at_ += static_cast<size_t>(n);
        return v;
    }
    const std::string &in_;
    size_t at_ = 0;
    bool bad_ = false;
};

// Sends one message, with fd beside it when fd >= 0. False when the peer has
// gone.
bool send_message(int sock, const std::string &message, int fd = -1);
// Receives one message (and the descriptor beside it into *fd, else -1).
// False when the peer has gone or the message is malformed.
bool receive_message(int sock, std::string *message, int *fd = nullptr);

// The largest message either side accepts.
constexpr uint32_t kMaxMessage = 64u << 20;

} // namespace vexa::sim::wire

#endif
