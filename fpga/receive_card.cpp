// The FPGA's SPI device and what travels over it to the receiving cards: the
// register-window read, the card frames and their enable/disable handshake.
#include <cstring>
#include <vector>

#include "fpga/fpga_internal.h"
#include "platform/fpga_wire.h"
#include "platform/hal.h"
#include "platform/log.h"
#include "vexasdk/fpga.h"

using namespace vexa::fpga;
namespace wire = vexa::fpga_wire;

namespace {

// bi_product's spi_fpga device, or null after the error line.
const char *spi_device(const char *func)
{
    const char *dev = product_path(&bi_product_config_t::spi_fpga);
    if (!path_set(dev)) {
        VEXA_LOGE(kTagBi, "%s:bi_product is NULL or spi_fpga.path is not set, need to check ini file.",
                  func);
        return nullptr;
    }
    return dev;
}

bool family_has_cards() { return PRODUCT_NUM == 2 || PRODUCT_NUM == 3; }

// A full-duplex transfer of the fixed 5-byte poll; the card status, or -1.
int poll_card()
{
    uint8_t poll[sizeof wire::kCardPoll];
    std::memcpy(poll, wire::kCardPoll, sizeof poll);
    if (bi_fpga_spi_write_read(poll, sizeof poll) < 0)
        return -1;
    return poll[4];
}

} // namespace

extern "C" {

VEXA_API int32_t bi_fpga_spi_write(const uint8_t *buf, uint32_t length)
{
    const char *dev = spi_device(__func__);
    return dev ? hal_spi_write(dev, buf, length) : -1;
}

VEXA_API int32_t bi_fpga_spi_write_read(uint8_t *buf, uint32_t length)
{
    const char *dev = spi_device(__func__);
    return dev ? hal_spi_write_read(dev, buf, length) : -1;
}

VEXA_API int32_t bi_fpga_read_0x02000000(uint32_t address, uint8_t *out, int32_t length)
{
    if (address < wire::kWindowBase || address > wire::kWindowBase + 0x200) {
        VEXA_LOGE(kTagBi, "<%s> regaddr error", __func__);
        return -1;
    }
    const uint32_t offset = address - wire::kWindowBase;
    if (length < 0 || offset + uint32_t(length) > 512 || (length > 0 && out == nullptr)) {
        VEXA_LOGE(kTagBi, "<%s> len error", __func__);
        return -2;
    }
    if (!family_has_cards())
        return 0;
    std::vector<uint8_t> transfer(size_t(length) + wire::kWindowReadHead, 0);
    transfer[0] = wire::kWindowRead;
    transfer[1] = uint8_t(offset >> 8);
    transfer[2] = uint8_t(address);
    const int32_t ret = bi_fpga_spi_write_read(transfer.data(), uint32_t(transfer.size()));
    if (ret < 0) {
        VEXA_LOGE(kTagBi, "<%s> reag error", __func__);
        return -3;
    }
    if (length > 0)
        std::memcpy(out, &transfer[wire::kWindowReadHead], size_t(length));
    return ret;
}

VEXA_API int32_t send_data_to_receive_card(const uint8_t *frame, int32_t length)
{
    if (frame == nullptr || length < 0) {
        VEXA_LOGE(kTagBi, "<%s>, data/data_len error", __func__);
        return -1;
    }
    sleep_ms(10);
    if (bi_fpga_spi_write(frame, uint32_t(length)) < 0) {
        VEXA_LOGE(kTagBi, "<%s> write_bag fail", __func__);
        return -2;
    }
    sleep_ms(1);
    if (bi_fpga_spi_write(wire::kCardEnable, sizeof wire::kCardEnable) < 0) {
        VEXA_LOGE(kTagBi, "<%s> write_enable fail", __func__);
        return -3;
    }
    sleep_ms(1);
    if (bi_fpga_spi_write(wire::kCardDisable, sizeof wire::kCardDisable) < 0) {
        VEXA_LOGE(kTagBi, "<%s> write_disenable fail", __func__);
        return -4;
    }
    return length;
}

VEXA_API int32_t bi_fpga_receive_card_test(uint8_t port, int32_t direction, uint32_t address,
                                           uint8_t *data, int32_t length)
{
    if (!family_has_cards()) {
        VEXA_LOGE(kTagBi, "<%s> The device is not supported", __func__);
        return -99;
    }
    if (address & 0x80000000u) {
        VEXA_LOGE(kTagBi, "<%s> regaddr error", __func__);
        return -1;
    }
    if (length < 0 || length > int32_t(wire::kCardMaxData)) {
        VEXA_LOGE(kTagBi, "<%s> len error", __func__);
        return -2;
    }
    if (data == nullptr) {
        VEXA_LOGE(kTagBi, "<%s> data is null", __func__);
        return -3;
    }
    if (direction == 1) {
        const auto frame = wire::card_frame(port, true, address, data, uint16_t(length));
        const int32_t ret = send_data_to_receive_card(frame.data(), int32_t(frame.size()));
        if (ret < 0) {
            VEXA_LOGE(kTagBi, "<%s> write fail", __func__);
            return -4;
        }
        return ret;
    }
    if (direction != 0)
        return 0;

    const auto request = wire::card_frame(port, false, address, nullptr, uint16_t(length));
    if (send_data_to_receive_card(request.data(), int32_t(request.size())) < 0) {
        VEXA_LOGE(kTagBi, "<%s> write fail", __func__);
        return -5;
    }
    // The reply is read after ten rounds even when the card never showed it
    // ready.
    for (int round = 0; round < 10; ++round) {
        sleep_ms(20);
        const int status = poll_card();
        if (status < 0) {
            VEXA_LOGE(kTagBi, "<%s> read error", __func__);
            VEXA_LOGE(kTagBi, "<%s> read fail", __func__);
            return -5;
        }
        VEXA_LOGD(kTagBi, "<%s>, read data: %02x", __func__, status);
        if (status == wire::kCardReady) {
            VEXA_LOGD(kTagBi, "<%s>, read data is ok", __func__);
            break;
        }
        if (bi_fpga_spi_write(wire::kCardDisable, sizeof wire::kCardDisable) < 0) {
            VEXA_LOGE(kTagBi, "<%s> write_disenable fail", __func__);
            return -5;
        }
    }
    std::vector<uint8_t> reply(size_t(length) + wire::kWindowReadHead, 0);
    std::memcpy(reply.data(), wire::kCardReplyHead, sizeof wire::kCardReplyHead);
    const int32_t ret = bi_fpga_spi_write_read(reply.data(), uint32_t(reply.size()));
    if (ret < 0) {
        VEXA_LOGE(kTagBi, "<%s> read error", __func__);
        VEXA_LOGE(kTagBi, "<%s> read fail", __func__);
        return -5;
    }
    std::memcpy(data, &reply[wire::kWindowReadHead], size_t(length));
    return ret;
}

} // extern "C"
