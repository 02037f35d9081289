#include "sim/wire.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace vexa::sim::wire {

namespace {

bool send_all(int sock, const char *p, size_t n, int fd)
{
    while (n > 0) {
        struct iovec iov = {const_cast<char *>(p), n};
        struct msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        if (fd >= 0) {
            msg.msg_control = control;
            msg.msg_controllen = sizeof control;
            struct cmsghdr *c = CMSG_FIRSTHDR(&msg);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(sizeof(int));
            std::memcpy(CMSG_DATA(c), &fd, sizeof(int));
        }
        const ssize_t sent = ::sendmsg(sock, &msg, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        fd = -1; // the descriptor went with the first bytes
        p += sent;
        n -= static_cast<size_t>(sent);
    }
    return true;
}

bool receive_all(int sock, char *p, size_t n, int *fd)
{
    while (n > 0) {
        struct iovec iov = {p, n};
        struct msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        const ssize_t got = ::recvmsg(sock, &msg, MSG_CMSG_CLOEXEC);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        for (struct cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
                int received;
                std::memcpy(&received, CMSG_DATA(c), sizeof(int));
                if (fd && *fd < 0)
                    *fd = received;
                else
                    ::close(received);
            }
        }
        p += got;
        n -= static_cast<size_t>(got);
    }
    return true;
}

} // namespace

bool send_message(int sock, const std::string &message, int fd)
{
    if (message.size() > kMaxMessage)
        return false;
    char head[4];
    const uint32_t n = static_cast<uint32_t>(message.size());
    for (int i = 0; i < 4; ++i)
        head[i] = static_cast<char>(n >> (8 * i));
    std::string whole(head, 4);
    whole += message;
    return send_all(sock, whole.data(), whole.size(), fd);
}

bool receive_message(int sock, std::string *message, int *fd)
{
    if (fd)
        *fd = -1;
    char head[4];
    if (!receive_all(sock, head, 4, fd))
        return false;
    uint32_t n = 0;
    for (int i = 0; i < 4; ++i)
        n |= static_cast<uint32_t>(static_cast<uint8_t>(head[i])) << (8 * i);
    if (n > kMaxMessage)
        return false;
    message->assign(n, '\0');
    return n == 0 || receive_all(sock, &(*message)[0], n, fd);
}

} // namespace vexa::sim::wire
