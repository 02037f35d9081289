// The SGMII link between the FPGA and the SoC's second Ethernet port, through
// the RTL8211FS PHY: register reads over "/dev/fpga_spi", the PHY reset, the
// shell steps, the bring-up; and the DDR check after a load.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "fpga/fpga_internal.h"
#include "platform/fpga_wire.h"
#include "platform/hal.h"
#include "platform/log.h"
#include "platform/unique.h"
#include "vexasdk/fpga.h"

using namespace vexa::fpga;
namespace wire = vexa::fpga_wire;

namespace {

constexpr const char *kPhyReset = "/sys/class/vexagpios/RTL8211FS_RSTN/value";
constexpr const char *kPhyLink = "/sys/class/ethernet/vexaphyreg";
constexpr int kPollRounds = 10;
constexpr int kNetworkAttempts = 5;

// One read request: the head filled in, the driver fills the n data bytes.
// The read's result, or -1; with func set, failures and every byte are logged.
int read_request(const char *func, uint32_t address, uint8_t *out, size_t n)
{
    std::vector<uint8_t> request;
    try {
        request.assign(n + wire::kReadHead, 0);
    } catch (const std::bad_alloc &) {
        if (func)
            VEXA_LOGE(kTagFw, "%s: could not allocate memory for the send_data!\n", func);
        return -1;
    }
    request[0] = wire::kRead;
    wire::put_be32(&request[1], address);
    vexa::UniqueFd fd(vexa::os::open(kSpiNode, O_RDWR));
    if (!fd) {
        if (func)
            VEXA_LOGE(kTagFw, "%s: open spi port %s failed.\n", func, kSpiNode);
        return -1;
    }
    const ssize_t ret = vexa::os::read(fd.get(), request.data(), request.size());
    if (ret < 0) {
        if (func)
            VEXA_LOGE(kTagFw, "%s: read spi port %s failed, return %d.\n", func, kSpiNode, int(ret));
        return -1;
    }
    if (func)
        for (size_t i = 0; i < request.size(); ++i)
            VEXA_LOGD(kTagFw, "%s: send_data[%d] = 0x%02x\n", func, int(i), request[i]);
    std::memcpy(out, &request[wire::kReadHead], n);
    return int(ret);
}

int read_state(const char *func, uint32_t address, uint8_t *buf, int32_t length)
{
    if (buf == nullptr) {
        VEXA_LOGE(kTagFw, "%s: data_buf is NULL!\n", func);
        return -1;
    }
    if (length < 0)
        return -1;
    return read_request(func, address, buf, size_t(length));
}

int send_register(uint32_t address, uint8_t value)
{
    const auto packet = wire::write_packet(address, &value, 1, 1);
    return spi_send_data(packet.data(), uint32_t(packet.size()));
}

// Polls a state register up to ten rounds 2 ms apart for 1; a failed read
// keeps the previous value. True once it read 1.
bool poll_state(const char *func, int32_t (*read)(uint8_t *, int32_t), const char *name)
{
    uint8_t state = 0;
    for (int round = 0; round < kPollRounds; ++round) {
        uint8_t value = 0;
        if (read(&value, 1) < 0)
            VEXA_LOGE(kTagFw, "%s: spi_read_state failed\n", func);
        else
            state = value;
        VEXA_LOGI(kTagFw, "%s,%s state = 0x%02x\n", func, name, state);
        if (state == 1)
            return true;
        sleep_ms(2);
    }
    return false;
}

} // namespace

namespace vexa::fpga {

int read_register(uint32_t address, uint8_t *out, size_t n)
{
    return read_request(nullptr, address, out, n);
}

} // namespace vexa::fpga

extern "C" {

VEXA_API int32_t readFpgaSgmiiClockState(uint8_t *buf, int32_t length)
{
    return read_state(__func__, wire::kSgmiiClock, buf, length);
}

VEXA_API int32_t readFpgaSgmiiNegotiationState(uint8_t *buf, int32_t length)
{
    return read_state(__func__, wire::kSgmiiNegotiation, buf, length);
}

VEXA_API int32_t readFpgaDdrState(uint8_t *state)
{
    return read_state(__func__, wire::kDdrState, state, 1);
}

VEXA_API int32_t fpgaCheckDDRAndRecovery(void)
{
    uint8_t state = 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (attempt > 0)
            sleep_ms(10);
        if (readFpgaDdrState(&state) >= 0 && state == 1) {
            VEXA_LOGI(kTagFw, "%s: DDR state is ok", __func__);
            return 0;
        }
    }
    VEXA_LOGE(kTagFw, "%s: DDR state is 0x%02x, recovering", __func__, state);
    send_register(wire::kDdrReset, 0);
    send_register(wire::kDdrReset, 1);
    sleep_ms(100);
    state = 0;
    if (readFpgaDdrState(&state) >= 0 && state == 1) {
        VEXA_LOGI(kTagFw, "%s: DDR recovered", __func__);
        return 0;
    }
    VEXA_LOGE(kTagFw, "%s: DDR state is still 0x%02x", __func__, state);
    return -1;
}

VEXA_API int32_t sendFpgaTxRxReset(void)
{
    int failed = 0;
    if (send_register(wire::kSgmiiTxReset, 0) < 0) {
        VEXA_LOGE(kTagFw, "%s: send_tx_reset_low failed\n", __func__);
        ++failed;
    }
    if (send_register(wire::kSgmiiRxReset, 0) < 0) {
        VEXA_LOGE(kTagFw, "%s: send_rx_reset_low failed\n", __func__);
        ++failed;
    }
    sleep_ms(5);
    if (send_register(wire::kSgmiiTxReset, 1) < 0) {
        VEXA_LOGE(kTagFw, "%s: send_tx_reset_high failed\n", __func__);
        ++failed;
    }
    if (send_register(wire::kSgmiiRxReset, 1) < 0) {
        VEXA_LOGE(kTagFw, "%s: send_rx_reset_high failed\n", __func__);
        ++failed;
    }
    return failed ? -1 : 0;
}

VEXA_API int32_t reset8211FS(void)
{
    vexa::UniqueFd fd(vexa::os::open(kPhyReset, O_WRONLY));
    if (!fd) {
        VEXA_LOGE(kTagFw, "open failed! %s\n", std::strerror(errno));
        return -1;
    }
    if (vexa::os::write(fd.get(), "0", 1) != 1)
        VEXA_LOGE(kTagFw, "reset 8211fs to low failed! %s\n", std::strerror(errno));
    sleep_ms(500);
    if (vexa::os::write(fd.get(), "1", 1) != 1)
        VEXA_LOGE(kTagFw, "reset 8211fs to hight failed! %s\n", std::strerror(errno));
    fd.reset();
    sleep_ms(200);
    VEXA_LOGI(kTagFw, "reset 8211fs successful\n");
    return 0;
}

VEXA_API int32_t readRtl8211fsPhyLink(void)
{
    if (vexa::os::access(kPhyLink, F_OK) != 0) {
        VEXA_LOGE(kTagFw, "<%s> the path %s not exist!\n", __func__, kPhyLink);
        return -1;
    }
    char text[65] = {};
    if (hal_sys_read(kPhyLink, text, 64) < 0) {
        VEXA_LOGE(kTagFw, "<%s> phylink_path error!\n", __func__);
        return -1;
    }
    VEXA_LOGI(kTagFw, "<%s> get phylink value:'%s' (length: %zu)\n", __func__, text,
              std::strlen(text));
    return std::strstr(text, "0x907") ? 1 : 0;
}

VEXA_API int32_t fpgaDwmacConfig(void)
{
    sleep_ms(1);
    const int status = vexa::os::system("insmod /vendor_dlkm/lib/modules/dwmac-meson8b.ko");
    VEXA_LOGI(kTagFw, "%s: insmod dwmac-meson8b.ko\n", __func__);
    return status;
}

VEXA_API int32_t fpgaEthConfig(void)
{
    const int status = vexa::os::system("ifconfig eth1 240.10.10.10 netmask 255.255.255.0 up");
    VEXA_LOGI(kTagFw, "%s: config eth1 ip mask up\n", __func__);
    return status;
}

VEXA_API int32_t fpgaPhyConfig(void)
{
    vexa::os::system("echo w 0x1f 0xd08 > /sys/class/ethernet/phyreg");
    vexa::os::system("echo r 0x10 > /sys/class/ethernet/phyreg");
    const int status = vexa::os::system("echo w 0x10 0x5e > /sys/class/ethernet/phyreg");
    VEXA_LOGI(kTagFw, "%s: set phy register\n", __func__);
    return status;
}

VEXA_API int32_t fpgaPhySgmiiConfig(void)
{
    if (!poll_state(__func__, readFpgaSgmiiClockState, "readFpgaSgmiiClockState")) {
        VEXA_LOGE(kTagFw, "%s: readFpgaSgmiiClockState failed\n", __func__);
        return -1;
    }
    VEXA_LOGI(kTagFw, "%s: readFpgaSgmiiClockState ok\n", __func__);
    reset8211FS();
    fpgaDwmacConfig();
    fpgaEthConfig();
    fpgaPhyConfig();
    if (sendFpgaTxRxReset() < 0) {
        VEXA_LOGE(kTagFw, "%s: sendFpgaTxRxReset failed\n", __func__);
        return -1;
    }
    VEXA_LOGI(kTagFw, "%s: sendFpgaTxRxReset ok\n", __func__);
    // Ten rounds without negotiation do not fail: the link check decides.
    if (poll_state(__func__, readFpgaSgmiiNegotiationState, "readFpgaSgmiiNegotiationState"))
        VEXA_LOGI(kTagFw, "%s: readFpgaSgmiiNegotiationState ok\n", __func__);
    if (readRtl8211fsPhyLink() < 1) {
        VEXA_LOGE(kTagFw, "%s: readRtl8211fsPhyLink failed\n", __func__);
        return -1;
    }
    VEXA_LOGI(kTagFw, "%s: readRtl8211fsPhyLink ok\n", __func__);
    return 0;
}

VEXA_API int32_t fpgaNetworkConfig(void)
{
    std::printf("in fpgaNetworkConfig\n");
    for (int attempt = 0; attempt < kNetworkAttempts; ++attempt) {
        std::printf("fpgaNetworkConfig try\n");
        std::fflush(stdout);
        if (fpgaPhySgmiiConfig() == 0) {
            VEXA_LOGI(kTagFw, "%s: fpgaPhySgmiiConfig ok\n", __func__);
            return 0;
        }
    }
    VEXA_LOGE(kTagFw, "%s: fpgaPhySgmiiConfig failed\n", __func__);
    return 0;
}

} // extern "C"
