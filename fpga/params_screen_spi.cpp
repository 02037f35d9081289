// Screen parameters from the "screen" partition as "/dev/fpga_spi" packets
// (the pz50pro board): the block parse, the packets per block, the fixed
// packets, the status wait and the network-gap enable.
#include <fcntl.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "fpga/fpga_internal.h"
#include "platform/android.h"
#include "platform/fpga_wire.h"
#include "platform/hal.h"
#include "platform/log.h"
#include "platform/unique.h"
#include "vexasdk/fpga.h"

using namespace vexa::fpga;
namespace wire = vexa::fpga_wire;

st_func_offset_map_t st_func_offset_map_tab[BI_FPGA_MAX_BLOCKS];
uint32_t free_routing_topology[BI_FPGA_TOPOLOGY_COUNT];
uint8_t buffer[BI_FPGA_STATUS_SIZE];

const uint8_t send_csc_1[33] = {
    0x02, 0x00, 0x15, 0x08, 0xa0, 0xb4, 0x12, 0x00, 0x00, 0x00, 0x00, 0xa9, 0xfd, 0x00, 0x00, 0xb4, 0x12,
    0x00, 0x00, 0xa9, 0xfd, 0x00, 0x00, 0x00, 0x00, 0xb4, 0x12, 0xa9, 0xfd, 0x01, 0x00, 0x00, 0x00};
const uint8_t send_csc_1_yuv[33] = {
    0x02, 0x00, 0x15, 0x08, 0xa0, 0x5a, 0x09, 0x00, 0x00, 0x7b, 0x0d, 0x5a, 0xf1, 0x5a, 0x09, 0x7f, 0xfe,
    0xc7, 0xfa, 0x8f, 0x05, 0x5a, 0x09, 0x34, 0x11, 0x00, 0x00, 0xa1, 0xed, 0x02, 0x00, 0x00, 0x00};
const uint8_t send_gamma_sdr_10bit[7] = {0x02, 0x10, 0x20, 0x01, 0x09, 0xa5, 0x00};

namespace {

constexpr size_t kScreenSize = BI_FPGA_SCREEN_BUFFER_SIZE;
constexpr const char *kDefinedPartition = "/dev/block/by-name/defined";
constexpr uint32_t kScreenStateOffset = 6160;
constexpr const char *kLedScreenHex = "/system/etc/led_screen.hex";
constexpr uint64_t kStatusWaitSeconds = 4;

constexpr uint8_t kFixed1[7] = {0x02, 0x00, 0x00, 0x00, 0x20, 0x01, 0x00};
constexpr uint8_t kFixed2[7] = {0x02, 0x10, 0x00, 0x07, 0x00, 0x05, 0x00};
constexpr uint8_t kFixed3[7] = {0x02, 0x10, 0x00, 0x07, 0x06, 0x10, 0x00};
constexpr uint8_t kFixed4[7] = {0x02, 0x10, 0x00, 0x07, 0x07, 0x06, 0x00};
constexpr uint8_t kFixed5[7] = {0x02, 0x03, 0x00, 0x00, 0x00, 0x05, 0x00};
constexpr uint8_t kCsc2[33] = {0x02, 0x10, 0xa4, 0x00, 0x00, 0xce, 0x06, 0xe3, 0x16, 0x50, 0x02,
                               0x00, 0x00, 0x55, 0xfc, 0xab, 0xf3, 0x00, 0x10, 0x00, 0x20, 0x00,
                               0x10, 0x78, 0xf1, 0x88, 0xfe, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00};
constexpr uint8_t kCsc3[33] = {0x02, 0x10, 0xa4, 0x02, 0x00, 0x00, 0x10, 0x00, 0x00, 0x32, 0x19,
                               0xce, 0xe6, 0x00, 0x10, 0x01, 0xfd, 0x83, 0xf8, 0x7c, 0x0a, 0x00,
                               0x10, 0xb1, 0x1d, 0x00, 0x00, 0x4f, 0xe2, 0x01, 0x00, 0x00, 0x00};
constexpr uint8_t kParamsComplete[7] = {0x02, 0x10, 0x00, 0x01, 0x00, 0x01, 0x00};

struct FreeDeleter {
    void operator()(uint8_t *p) const { std::free(p); }
};
using Buffer = std::unique_ptr<uint8_t[], FreeDeleter>;
// A zeroed 2 MiB buffer. calloc takes fresh zero pages from the system, so
// only the pages that are used cost anything.
Buffer screen_buffer() { return Buffer(static_cast<uint8_t *>(std::calloc(kScreenSize, 1))); }

bool in(uint32_t address, uint32_t first, uint32_t last) { return address >= first && address <= last; }

// A packet of `room` data bytes taken from the packed buffer at offset; the
// copy is not limited to the block (the board's layout relies on that) but
// stops at the buffer's end, zeros after it.
int send_from(const uint8_t *packed, uint64_t offset, uint32_t address, size_t room)
{
    const size_t n = offset < kScreenSize ? std::min<size_t>(room, size_t(kScreenSize - offset)) : 0;
    const auto packet = wire::write_packet(address, n ? packed + offset : nullptr, n, room);
    return spi_send_data(packet.data(), uint32_t(packet.size()));
}

int send_fixed(const uint8_t *packet, size_t size) { return spi_send_data(packet, uint32_t(size)); }

bool hdr_enabled()
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get("sys.hdr.realyenable", value, "false");
    return std::strcmp(value, "true") == 0;
}

ssize_t read_file(const char *path, uint8_t *buf, size_t size)
{
    vexa::UniqueFd fd(vexa::os::open(path, O_RDONLY));
    if (!fd)
        return -1;
    return vexa::os::read_full(fd.get(), buf, size);
}

uint32_t table_entries(uint32_t count) { return std::min<uint32_t>(count, BI_FPGA_MAX_BLOCKS); }

// The status record shows the parameters in force and a picture source.
bool status_ready(const uint8_t *s)
{
    auto pair = [s](int at) { return s[at] != 0 || s[at + 1] != 0; };
    return s[25] == 1 && s[23] == 3 && s[22] == 0 && s[24] == 0 && pair(33) && pair(41) && pair(47);
}

// Step 7: the status record, read over SPI until it is ready or 4 s pass.
void wait_for_status(const char *func)
{
    const uint64_t start = vexa::os::monotonic_ns();
    for (;;) {
        read_register(wire::kStatusRecord, buffer, sizeof buffer);
        if (status_ready(buffer))
            return;
        if ((vexa::os::monotonic_ns() - start) / 1000000000u >= kStatusWaitSeconds) {
            VEXA_LOGI(kTagFw, "%s: More than 3 second passed, continuing...", func);
            return;
        }
    }
}

// Step 5: the packets of one block, by its address.
void send_block(const uint8_t *packed, const st_func_offset_map_t &e)
{
    const uint32_t a = e.fpga_addr;
    if (in(a, 0x10300000, 0x10313000) || in(a, 0x10200000, 0x10204000)) {
        send_from(packed, e.offset, a, 4096);
    } else if (a == 0x10018000) {
        send_from(packed, e.offset, a, 5120);
    } else if (a == 0x10A43000) {
        send_from(packed, e.offset, a, 512);
    } else if (a == wire::kNetGapTable1 || a == wire::kNetGapTable2) {
        VEXA_LOGD(kTagFw, a == wire::kNetGapTable1 ? "send_netgape_paramter 0x10810000 "
                                                   : "send_netgape_paramter 0x10820000 ");
        send_from(packed, e.offset, a, 4096);
    } else if (a == 0x10400000) {
        VEXA_LOGD(kTagFw, "send_gamma_paramter 0x10400000 ");
        for (uint32_t k = 0; k < 3; ++k) {
            send_from(packed, uint64_t(e.offset) + k * 0x10000, a + k * 0x10000, 2048);
            sleep_ms(100);
        }
    } else if (a == 0x10000100) {
        send_from(packed, uint64_t(e.offset) + 3, 0x10000103, 2);
        send_from(packed, uint64_t(e.offset) + 11, 0x1000010B, 1);
    }
}

} // namespace

extern "C" {

VEXA_API int32_t spi_send_data(const uint8_t *packet, uint32_t length)
{
    if (packet == nullptr)
        return -1;
    vexa::UniqueFd fd(vexa::os::open(kSpiNode, O_RDWR));
    if (!fd) {
        VEXA_LOGE(kTagFw, "%s: open %s failed !!!", __func__, kSpiNode);
        return -1;
    }
    sleep_ms(10);
    const ssize_t written = vexa::os::write(fd.get(), packet, length);
    if (written != ssize_t(length)) {
        VEXA_LOGE(kTagFw, "%s: write %s failed, ret = %d", __func__, kSpiNode, int(written));
        return -1;
    }
    return int32_t(written);
}

VEXA_API int32_t read_screen_paramter(uint8_t *buf)
{
    if (buf == nullptr)
        return -1;
    const ssize_t n = read_file(kScreenPartition, buf, kScreenSize);
    if (n < 0) {
        VEXA_LOGE(kTagFw, "%s: open %s failed !!!", __func__, kScreenPartition);
        return -1;
    }
    return int32_t(n);
}

VEXA_API int32_t parse_emmc_block(uint8_t *packed, const uint8_t *image)
{
    std::memset(st_func_offset_map_tab, 0, sizeof st_func_offset_map_tab);
    if (packed == nullptr || image == nullptr)
        return 0;
    const uint32_t count = wire::be32(image);
    if (count >= BI_FPGA_MAX_BLOCKS + 1) {
        VEXA_LOGE(kTagFw, "%s invalid blocknum = %d, set blocknum as 0", __func__, int(count));
        return 0;
    }
    size_t at = 4;
    uint32_t packed_at = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (at + 8 > kScreenSize) {
            VEXA_LOGE(kTagFw, "%s: block %u runs past the screen parameters", __func__, i);
            break;
        }
        const uint32_t address = wire::be32(image + at);
        const uint32_t length = wire::be32(image + at + 4);
        if (address == 0 || length == 0) {
            VEXA_LOGE(kTagFw, "%s invalid fpgaAddr, or datalen.", __func__);
            return int32_t(count);
        }
        at += 8;
        if (length > kScreenSize - at || length > kScreenSize - packed_at) {
            VEXA_LOGE(kTagFw, "%s: block %u (0x%x bytes) runs past the screen parameters",
                      __func__, i, length);
            break;
        }
        st_func_offset_map_tab[i] = {address, length, packed_at};
        VEXA_LOGD(kTagFw, "0x%x / 0x%x / 0x%x ", address, length, packed_at);
        std::memcpy(packed + packed_at, image + at, length);
        at += length;
        packed_at += length;
    }
    return int32_t(count);
}

VEXA_API int32_t get_block_num_for_screen_params(void)
{
    Buffer image = screen_buffer(), packed = screen_buffer();
    if (!image || !packed) {
        VEXA_LOGE(kTagFw, "could not allocate memory for cach/cachPureData!");
        return -1;
    }
    if (read_screen_paramter(image.get()) < 0)
        return -1;
    return parse_emmc_block(packed.get(), image.get());
}

VEXA_API void sendTopologyPara(const uint8_t *packed, uint32_t offset, uint32_t addr, uint32_t lines)
{
    if (packed == nullptr)
        return;
    for (uint32_t j = 0; j < lines; ++j)
        send_from(packed, uint64_t(offset) + 16u * j, addr + 16u * j, 16);
}

VEXA_API void sendFixedParameter(uint32_t blocknum, const uint8_t *packed)
{
    for (const uint8_t *fixed : {kFixed1, kFixed2, kFixed3, kFixed4, kFixed5})
        send_fixed(fixed, 7);
    if (hdr_enabled()) {
        VEXA_LOGD(kTagFw, "%s spi_send_data send_csc_1_yuv 666", __func__);
        send_fixed(send_csc_1_yuv, sizeof send_csc_1_yuv);
    } else {
        VEXA_LOGD(kTagFw, "%s spi_send_data send_csc_1 ", __func__);
        send_fixed(send_csc_1, sizeof send_csc_1);
    }
    send_fixed(kCsc2, sizeof kCsc2);
    send_fixed(kCsc3, sizeof kCsc3);
    if (packed != nullptr) {
        for (uint32_t i = 0; i < table_entries(blocknum); ++i) {
            const st_func_offset_map_t &e = st_func_offset_map_tab[i];
            if (e.fpga_addr == 0x10A43000) {
                int ret = send_from(packed, e.offset, 0x10A43000, 256);
                VEXA_LOGD(kTagFw, "fpga_addr 10a43000 write size = %d", ret);
                ret = send_from(packed, uint64_t(e.offset) + 256, 0x10A43100, 256);
                VEXA_LOGD(kTagFw, "fpga_addr 10a43100 write size = %d", ret);
            } else if (e.fpga_addr == 0x10000100) {
                send_from(packed, uint64_t(e.offset) + 27, 0x1000011B, 1);
            } else if (e.fpga_addr == 0x10200000) {
                send_from(packed, uint64_t(e.offset) + 265, 0x10200109, 1);
            }
        }
    }
    if (hdr_enabled()) {
        VEXA_LOGD(kTagFw, "%s spi_send_data send_gamma_sdr_10bit 777", __func__);
        send_fixed(send_gamma_sdr_10bit, sizeof send_gamma_sdr_10bit);
    }
}

VEXA_API int32_t sendNetGapeEnable(uint32_t blocknum, const uint8_t *packed)
{
    (void)packed;
    uint8_t mask = 0;
    for (uint32_t i = 0; i < table_entries(blocknum); ++i) {
        if (st_func_offset_map_tab[i].fpga_addr == wire::kNetGapTable1)
            mask |= 1;
        if (st_func_offset_map_tab[i].fpga_addr == wire::kNetGapTable2)
            mask |= 2;
    }
    VEXA_LOGD(kTagFw, "%s: net gape enable 0x%02x", __func__, mask);
    const auto packet = wire::write_packet(wire::kNetGapEnable, &mask, 1, 1);
    return spi_send_data(packet.data(), uint32_t(packet.size()));
}

VEXA_API int32_t fpgaLoadScreenParamsBySpi(void)
{
    uint8_t raw[4] = {};
    hal_block_read(kDefinedPartition, kScreenStateOffset, raw, sizeof raw);
    uint32_t screen_state;
    std::memcpy(&screen_state, raw, sizeof screen_state);
    VEXA_LOGD(kTagFw, "%s: screen_state = %u", __func__, screen_state);
    if (screen_state == 170)
        VEXA_LOGD(kTagFw, "screen_state is  in operation  load  hex para");

    Buffer image = screen_buffer(), packed = screen_buffer();
    if (!image || !packed) {
        VEXA_LOGE(kTagFw, "could not allocate memory for the cach || cachPureData!");
        return -1;
    }
    int32_t count = 0;
    if (read_screen_paramter(image.get()) >= 0)
        count = parse_emmc_block(packed.get(), image.get());
    if (count <= 0) {
        image = screen_buffer();
        if (!image || read_file(kLedScreenHex, image.get(), kScreenSize) < 0) {
            VEXA_LOGE(kTagFw, "%s: first_one = 1 failed to read screen paramter", __func__);
            return -1;
        }
        count = parse_emmc_block(packed.get(), image.get());
        if (count <= 0)
            return 0;
    }
    const uint32_t entries = table_entries(uint32_t(count));

    // The topology line counts, from the last block at 0x10018000.
    std::memset(free_routing_topology, 0, sizeof free_routing_topology);
    const st_func_offset_map_t *topology = nullptr;
    for (uint32_t i = 0; i < entries; ++i)
        if (st_func_offset_map_tab[i].fpga_addr == 0x10018000)
            topology = &st_func_offset_map_tab[i];
    if (topology) {
        for (int i = 0; i < BI_FPGA_TOPOLOGY_COUNT; ++i) {
            const uint64_t at = uint64_t(topology->offset) + 3 + 256u * i;
            uint16_t lines = 0;
            if (at + sizeof lines <= kScreenSize)
                std::memcpy(&lines, packed.get() + at, sizeof lines);
            free_routing_topology[i] = lines;
            VEXA_LOGD(kTagFw, "free_routing_topology[%d] = %d", i, int(lines));
        }
    }
    // The topology blocks, the k-th with the k-th line count.
    int k = 0;
    for (uint32_t i = 0; i < entries; ++i) {
        const st_func_offset_map_t &e = st_func_offset_map_tab[i];
        if (!in(e.fpga_addr, 0x10B00000, 0x10B4C000))
            continue;
        if (k >= BI_FPGA_TOPOLOGY_COUNT) {
            VEXA_LOGE(kTagFw, "%s: no line count for topology block 0x%x", __func__, e.fpga_addr);
            continue;
        }
        sendTopologyPara(packed.get(), e.offset, e.fpga_addr, free_routing_topology[k]);
        VEXA_LOGD(kTagFw, "%s send successful free_routing_topology[%d] ", __func__, k);
        ++k;
    }
    for (uint32_t i = 0; i < entries; ++i)
        send_block(packed.get(), st_func_offset_map_tab[i]);

    sendFixedParameter(uint32_t(count), packed.get());
    VEXA_LOGD(kTagFw, "%s: sendFixedParameter end", __func__);
    send_fixed(kParamsComplete, sizeof kParamsComplete);

    wait_for_status(__func__);
    sendNetGapeEnable(uint32_t(count), packed.get());
    VEXA_LOGI(kTagFw, "%s already net enable", __func__);
    return 0;
}

} // extern "C"
