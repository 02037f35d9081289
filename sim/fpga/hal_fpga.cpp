// The maker's SPI, FPGA loader and FPGA UDP calls on the virtual board: they
// reach the board's FPGA through its services, and the UDP link through a
// real loopback socket to the model.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "platform/hal.h"
#include "sim/fpga/udp_wire.h"
#include "sim/state.h"

namespace {

namespace u = vexa::sim::fpga_udp;

// One SPI transfer through the model's service: len, or -1 with errno.
int spi_call(vexa::sim::Board::State &s, char kind, const char *dev, void *buf, uint32_t len)
{
    if (dev == nullptr || (buf == nullptr && len != 0)) {
        errno = EINVAL;
        return -1;
    }
    std::string request(1, kind);
    request += dev;
    request += '\0';
    if (kind == 'r')
        request.append(len, '\0');
    else
        request.append(static_cast<const char *>(buf), len);
    const auto reply = vexa::sim::call_service(s, "fpga.spi", request);
    if (!reply)
        return -1;
    if (reply->empty() || (*reply)[0] != '\0') {
        errno = reply->empty() ? EIO : uint8_t((*reply)[0]);
        return -1;
    }
    if (kind != 'w' && reply->size() == size_t(len) + 1)
        std::memcpy(buf, reply->data() + 1, len);
    return int(len);
}

// The program file on the board, or false with errno.
bool read_program(vexa::sim::Board::State &s, const char *path, std::string *bytes)
{
    if (path == nullptr || path[0] != '/') {
        errno = ENOENT;
        return false;
    }
    auto text = s.folder().read(path);
    if (!text)
        return false;
    *bytes = std::move(*text);
    return true;
}

int load_call(vexa::sim::Board::State &s, const std::string &request)
{
    const auto reply = vexa::sim::call_service(s, "fpga.load", request);
    if (!reply)
        return -ENODEV;
    return std::atoi(reply->c_str());
}

// The process's one UDP link to the FPGA.
struct Link {
    std::mutex mu;
    int fd = -1;
    int timeout_ms = 90;
    uint16_t sequence = 0;
};
Link g_link;

int exchange(uint8_t op, int link, uint32_t address, uint32_t len, const void *data, void *out)
{
    std::lock_guard<std::mutex> lock(g_link.mu);
    if (g_link.fd < 0) {
        errno = ENOTCONN;
        return -1;
    }
    if (len > u::kMaxData || (len && !(op == u::kWrite ? data : out))) {
        errno = EINVAL;
        return -1;
    }
    std::vector<uint8_t> request(u::kHead + (op == u::kWrite ? len : 0));
    const uint16_t sequence = ++g_link.sequence;
    request[0] = 'V';
    request[1] = 'F';
    request[2] = op;
    request[3] = uint8_t(link);
    u::put16(&request[4], sequence);
    u::put32(&request[6], address);
    u::put16(&request[10], uint16_t(len));
    if (op == u::kWrite && len)
        std::memcpy(&request[u::kHead], data, len);
    if (::send(g_link.fd, request.data(), request.size(), 0) != ssize_t(request.size()))
        return -1;
    std::vector<uint8_t> reply(u::kHead + u::kMaxData);
    for (;;) {
        pollfd p{g_link.fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, g_link.timeout_ms);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        const ssize_t n = ::recv(g_link.fd, reply.data(), reply.size(), 0);
        if (n < ssize_t(u::kHead) || u::get16(&reply[4]) != sequence || reply[2] != (op | u::kReplyBit))
            continue; // a late answer to an earlier request
        if (reply[3] != 0) {
            errno = reply[3];
            return -1;
        }
        if (op == u::kRead) {
            if (u::get16(&reply[10]) != len || size_t(n) < u::kHead + len) {
                errno = EIO;
                return -1;
            }
            std::memcpy(out, &reply[u::kHead], len);
        }
        return int(len);
    }
}

std::string hex(uint32_t address)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", address);
    return text;
}

} // namespace

extern "C" int hal_spi_write(const char *dev, const void *buf, uint32_t len)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_spi_write", dev ? dev : "", int);
    return spi_call(s, 'w', dev, const_cast<void *>(buf), len);
}

extern "C" int hal_spi_read(const char *dev, void *buf, uint32_t len)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_spi_read", dev ? dev : "", int);
    return spi_call(s, 'r', dev, buf, len);
}

extern "C" int hal_spi_write_read(const char *dev, void *buf, uint32_t len)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_spi_write_read", dev ? dev : "", int);
    return spi_call(s, 'x', dev, buf, len);
}

extern "C" int hal_fpga_load_program_sync(const hal_fpga_load_request_t *request)
{
    VEXA_SIM_ATTACHED_OR(-ENODEV);
    VEXA_SIM_FAULT("hal_fpga_load_program_sync", request ? request->path : "", int);
    if (request == nullptr)
        return -EINVAL;
    const std::string path(request->path, strnlen(request->path, sizeof request->path));
    std::string program;
    if (!read_program(s, path.c_str(), &program))
        return -ENOENT;
    return load_call(s, "S" + program);
}

extern "C" int hal_fpga_load_program_sync_temp(const char *drv_path, const char *program_path)
{
    VEXA_SIM_ATTACHED_OR(-ENODEV);
    VEXA_SIM_FAULT("hal_fpga_load_program_sync_temp", program_path ? program_path : "", int);
    if (drv_path == nullptr || drv_path[0] == '\0')
        return -ENODEV;
    std::string program;
    if (!read_program(s, program_path, &program))
        return -ENOENT;
    return load_call(s, std::string("T") + drv_path + '\0' + program);
}

extern "C" int FPGA_UDP_Init(int interface, int reply_timeout_ms)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("FPGA_UDP_Init", "", int);
    if (interface != 0) {
        errno = ENODEV;
        return -1;
    }
    const auto port = vexa::sim::call_service(s, "fpga.udp", "");
    if (!port || std::atoi(port->c_str()) <= 0) {
        errno = ENETUNREACH;
        return -1;
    }
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_in fpga{};
    fpga.sin_family = AF_INET;
    fpga.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    fpga.sin_port = htons(uint16_t(std::atoi(port->c_str())));
    if (::connect(fd, reinterpret_cast<sockaddr *>(&fpga), sizeof fpga) != 0) {
        ::close(fd);
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_link.mu);
    if (g_link.fd >= 0)
        ::close(g_link.fd);
    g_link.fd = fd;
    g_link.timeout_ms = reply_timeout_ms > 0 ? reply_timeout_ms : 1;
    return 0;
}

extern "C" int FPGA_UDP_Close(void)
{
    std::lock_guard<std::mutex> lock(g_link.mu);
    if (g_link.fd >= 0)
        ::close(g_link.fd);
    g_link.fd = -1;
    return 0;
}

extern "C" int WriteFPGABlock(int link, uint32_t address, uint32_t len, const void *data)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("WriteFPGABlock", hex(address), int);
    return exchange(u::kWrite, link, address, len, data, nullptr);
}

extern "C" int ReadFPGABlock(int link, uint32_t address, uint32_t len, void *data)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("ReadFPGABlock", hex(address), int);
    return exchange(u::kRead, link, address, len, nullptr, data);
}

extern "C" int fpgaSwitchGmacToUdp(void)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("fpgaSwitchGmacToUdp", "", int);
    const auto reply = vexa::sim::call_service(s, "fpga.gmac", "");
    return reply ? std::atoi(reply->c_str()) : -1;
}
