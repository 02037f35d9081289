// Screen parameters as an SPI record stream from the fpga_parameter file
// (the QRxx families), and the Ethernet-output enable that follows them.
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <vector>

#include "fpga/fpga_internal.h"
#include "fpga/param_codec.h"
#include "platform/fpga_wire.h"
#include "platform/log.h"
#include "platform/unique.h"
#include "vexasdk/fpga.h"

using namespace vexa::fpga;
namespace wire = vexa::fpga_wire;

namespace {

constexpr int kNetOutputRounds = 99;

// Steps 2 and 3 of the load: the checks, the file and the records. The code
// the load ends with.
int32_t send_record_stream(const char *func, uint8_t *data)
{
    const char *param = product_path(&bi_product_config_t::fpga_parameter);
    if (param == nullptr || param[0] == '\0') {
        VEXA_LOGE(kTagBi, "<%s>, devices not found", func);
        return -2;
    }
    if (std::strstr(param, "UNDEF")) {
        VEXA_LOGE(kTagBi, "<%s>, devices not foundi, is null", func);
        return -3;
    }
    const char *spi = product_path(&bi_product_config_t::spi_fpga);
    if (spi[0] == '\0') {
        VEXA_LOGE(kTagBi, "<%s>, devices not found", func);
        return -4;
    }
    if (std::strstr(spi, "UNDEF")) {
        VEXA_LOGE(kTagBi, "<%s>, devices not foundi, is null", func);
        return -5;
    }
    if (vexa::os::access(spi, F_OK) != 0) {
        VEXA_LOGE(kTagBi, "%s file inexistence ... ", spi);
        return -6;
    }
    {
        vexa::UniqueFd file(vexa::os::open(param, O_RDONLY));
        if (!file) {
            VEXA_LOGE(kTagBi, "open %s failed", param);
            return -4;
        }
        if (vexa::os::read_full(file.get(), data, BI_FPGA_PARAMETER_MAX) < 0) {
            VEXA_LOGE(kTagBi, "<%s> read fpga block failed ", func);
            return -4;
        }
    }
    vexa::UniqueFd node(vexa::os::open(spi, O_RDWR));
    if (!node) {
        VEXA_LOGE(kTagBi, "open %s failed", spi);
        return -5;
    }
    int32_t code = 0;
    std::vector<uint8_t> frame;
    frame.reserve(BI_FPGA_RECORD_MAX + 4);
    const StreamResult end = walk_records(data, BI_FPGA_PARAMETER_MAX, [&](const Record &r) {
        frame.assign({wire::kWindowWrite, r.tag[0], r.tag[1]});
        frame.insert(frame.end(), r.data, r.data + r.length);
        frame.push_back(0);
        VEXA_LOGD(kTagBi, "<%s>, data_size=%d", func, int(r.length));
        const ssize_t written = vexa::os::write(node.get(), frame.data(), frame.size());
        if (written != ssize_t(frame.size())) {
            VEXA_LOGE(kTagBi, "write fpga program failed, %d", int(written));
            code = -6;
            return false;
        }
        return true;
    });
    if (end.end == StreamEnd::overrun)
        VEXA_LOGE(kTagBi, "<%s> the record at %zu (%u bytes) runs past the %u bytes read, not sent",
                  func, end.offset, end.length, BI_FPGA_PARAMETER_MAX);
    return code;
}

} // namespace

extern "C" {

VEXA_API int32_t bi_fpga_load_parameter(void)
{
    VEXA_LOGD(kTagBi, "<%s>", __func__);
    if (PRODUCT_NUM == 3) {
        uint8_t zero = 0;
        return bi_fpga_receive_card_test(1, 1, 0x2000100, &zero, 1);
    }
    if (PRODUCT_NUM != 0 && PRODUCT_NUM != 2)
        return 0;
    std::unique_ptr<uint8_t[]> data(new (std::nothrow) uint8_t[BI_FPGA_PARAMETER_MAX]());
    if (!data) {
        VEXA_LOGE(kTagBi, "<%s>, malloc error!", __func__);
        return -1;
    }
    const int32_t code = send_record_stream(__func__, data.get());
    data.reset();

    // Whatever the load did, the FPGA is asked for its source; unless it has
    // none ('X'), the Ethernet outputs go on (after a failed load too).
    sleep_ms(3);
    uint8_t mode[5] = {wire::kWindowRead, 0x00, uint8_t(wire::kSourceMode), 0x00, 0x00};
    if (bi_fpga_spi_write_read(mode, sizeof mode) < 0) {
        VEXA_LOGE(kTagBi, "<%s> read fpga source_mode error", __func__);
        return code;
    }
    VEXA_LOGI(kTagBi, "<%s> source_mode is %02x", __func__, mode[4]);
    if (mode[4] == 0x58)
        return code;
    sleep_ms(5000);
    fpga_set_netmouth_enabling();
    return code;
}

VEXA_API int32_t fpga_set_netmouth_enabling(void)
{
    static const uint8_t kEnable[5] = {wire::kWindowWrite, 0x00, uint8_t(wire::kNetOutputs), 0x01,
                                       0x00};
    for (int round = 1; round <= kNetOutputRounds; ++round) {
        if (bi_fpga_spi_write(kEnable, sizeof kEnable) >= 0) {
            uint8_t back[5] = {wire::kWindowRead, 0x00, uint8_t(wire::kNetOutputs), 0x00, 0x00};
            if (bi_fpga_spi_write_read(back, sizeof back) >= 0 && back[4] == 1) {
                VEXA_LOGI(kTagBi, "%s: network outputs on after %d rounds", __func__, round);
                return 0;
            }
        }
        sleep_ms(5);
    }
    VEXA_LOGE(kTagBi, "%s: network outputs still off after %d rounds", __func__, kNetOutputRounds);
    return -1;
}

} // extern "C"
