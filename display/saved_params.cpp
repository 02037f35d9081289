// The saved display parameters: vendor-storage items through the
// "/dev/vendor_storage" node and the HDMI display-information block of the
// baseparameter partition that the display driver reads at boot.
//
// This code reports on standard output, not to the log, except for the
// product-id failures.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "display/display_internal.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/vendor_storage.h"
#include "vexasdk/product_config.h"

namespace {
using vexa::display::crc32_of;
using vexa::display::UniqueFd;
using vexa::display::kResolutionTag;

namespace vendor = vexa::vendor_storage;

// Sends one request for item to the vendor-storage node; false after
// printing `failure` (with the item) or the node's open failure.
bool ask_vendor_node(unsigned long request, uint16_t item, vendor::Request *req, const char *failure)
{
    UniqueFd fd(vexa::os::open(vendor::kNode, O_RDWR));
    if (!fd) {
        printf("vendor_storage open fail .\n");
        return false;
    }
    req->tag = vendor::kTag;
    req->id = item;
    if (vexa::os::ioctl(fd.get(), request, req) < 0) {
        printf(failure, item);
        return false;
    }
    return true;
}

const char *const kBaseparameterPaths[] = {
    "/dev/block/platform/1021c000.dwmmc/by-name/baseparameter",
    "/dev/block/platform/30020000.dwmmc/by-name/baseparameter",
    "/dev/block/platform/fe330000.sdhci/by-name/baseparameter",
    "/dev/block/platform/ff520000.dwmmc/by-name/baseparameter",
    "/dev/block/platform/ff0f0000.dwmmc/by-name/baseparameter",
    "/dev/block/platform/30030000.nandc/by-name/baseparameter",
    "/dev/block/rknand_baseparameter",
    "/dev/block/by-name/baseparameter",
};

// The connector table at offset 8: eight {type, id, block offset} entries.
constexpr off_t kTableOffset = 8;
constexpr int kTableEntries = 8;
constexpr uint32_t kConnectorHdmiA = 11;
constexpr size_t kBlockCrcOffset = DISP_INFO_SIZE - 4;

uint32_t load32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}

void store32(uint8_t *p, uint32_t v)
{
    memcpy(p, &v, 4);
}

// The offset of the HDMI-A connector 0 display block, or -1 (reported).
off_t hdmi_block_offset(int fd)
{
    uint8_t table[kTableEntries * 12];
    if (vexa::os::pread(fd, table, sizeof(table), kTableOffset) != ssize_t(sizeof(table))) {
        printf("fail to read\n");
        return -2;
    }
    for (int i = 0; i < kTableEntries; ++i) {
        const uint8_t *e = table + 12 * i;
        if (load32(e) == kConnectorHdmiA && load32(e + 4) == 0)
            return off_t(load32(e + 8));
    }
    printf("no connector_type and connector_id found\n");
    return -1;
}

bool record_is_sealed(const void *record, size_t crc_offset)
{
    const uint8_t *p = static_cast<const uint8_t *>(record);
    return load32(p) == RESOLUTION_TIMING_MAGIC &&
           load32(p + crc_offset) == crc32_of(p, crc_offset);
}

int product_id_or_zero(const char *func)
{
    if (bi_product == nullptr || bi_product->mod_id == 0) {
        VEXA_LOGE(kResolutionTag, "%s: mod_id not found\n", func);
        return 0;
    }
    return bi_product->mod_id;
}
} // namespace

extern "C" {

VEXA_API const char *getBaseparameterFile(void)
{
    for (const char *path : kBaseparameterPaths) {
        if (vexa::os::access(path, R_OK | W_OK) == 0)
            return path;
    }
    return nullptr;
}

VEXA_API int32_t getProductModel(void)
{
    if (bi_product == nullptr || bi_product->mod_id == 0) {
        VEXA_LOGE(kResolutionTag, "%s: mod_id not found\n", "getProductModel");
        return -1;
    }
    return bi_product->mod_id;
}

VEXA_API int32_t getProductModel_timming(void)
{
    return getProductModel();
}

VEXA_API int32_t vexaSetVendorStorage(uint16_t item, const void *data, uint16_t length)
{
    static const char kFailure[] = "error in saving data to vendor ID:%d.\n";
    if (data == nullptr || length > vendor::kDataMax) {
        printf(kFailure, item);
        return -1;
    }
    vendor::Request req{};
    req.len = length;
    memcpy(req.data, data, length);
    return ask_vendor_node(vendor::kWrite, item, &req, kFailure) ? 0 : -1;
}

VEXA_API int32_t vexaGetVendorStorage(uint16_t item, uint16_t length, void *out)
{
    static const char kFailure[] = "error get vendor ID:%d data .\n";
    if (out == nullptr || length > vendor::kDataMax) {
        printf(kFailure, item);
        return -1;
    }
    vendor::Request req{};
    req.len = length;
    if (!ask_vendor_node(vendor::kRead, item, &req, kFailure))
        return -1;
    // The node reports the item's own length; never copy past the caller's.
    memcpy(out, req.data, req.len < length ? req.len : length);
    return 0;
}

VEXA_API void getDispInfo(uint8_t *block)
{
    if (block == nullptr)
        return;
    const char *path = getBaseparameterFile();
    if (path == nullptr) {
        vexa::os::sync();
        return;
    }
    UniqueFd fd(vexa::os::open(path, O_RDWR));
    if (!fd) {
        printf("base paramter file can not be opened \n");
        vexa::os::sync();
        return;
    }
    const off_t offset = hdmi_block_offset(fd.get());
    if (offset < 0)
        return;
    if (vexa::os::pread(fd.get(), block, DISP_INFO_SIZE, offset) != DISP_INFO_SIZE) {
        printf("fail to read\n");
        return;
    }
    if (crc32_of(block, kBlockCrcOffset) != load32(block + kBlockCrcOffset)) {
        printf("crc32 error\n");
        return; // the block as read
    }
    vexa::os::sync();
}

VEXA_API int32_t saveResolutionToEmmc(const ResolutionRecord *record)
{
    if (record == nullptr || !record_is_sealed(record, offsetof(ResolutionRecord, crc)))
        return -1;
    vexaSetVendorStorage(vexa::display::kItemResolution, record, sizeof(*record));

    std::vector<uint8_t> block(DISP_INFO_SIZE, 0);
    getDispInfo(block.data());
    const ResolutionTiming &t = record->timing;
    const uint32_t words[] = {t.clock,  t.hdisplay,    t.hsync_start, t.hsync_end, t.htotal,
                              t.vdisplay, t.vsync_start, t.vsync_end,   t.vtotal,  t.vrefresh};
    for (size_t i = 0; i < 10; ++i)
        store32(block.data() + 16 + 4 * i, words[i]);
    store32(block.data() + kBlockCrcOffset, crc32_of(block.data(), kBlockCrcOffset));

    // From here on failures are reported and the call still succeeds: the
    // vendor item already holds the choice.
    const char *path = getBaseparameterFile();
    if (path == nullptr) {
        vexa::os::sync();
        return 0;
    }
    UniqueFd fd(vexa::os::open(path, O_RDWR));
    if (!fd) {
        printf("base paramter file can not be opened \n");
        vexa::os::sync();
        return 0;
    }
    const off_t offset = hdmi_block_offset(fd.get());
    if (offset < 0) {
        if (offset != -1)
            vexa::os::sync();
        return 0;
    }
    if (vexa::os::pwrite(fd.get(), block.data(), DISP_INFO_SIZE, offset) != DISP_INFO_SIZE) {
        printf("fail to write\n");
        vexa::os::sync();
        return 0;
    }
    vexa::os::fsync(fd.get());
    return 0;
}

VEXA_API int32_t saveDisResolutionToEmmc(const DisResolutionRecord *record)
{
    if (record == nullptr || !record_is_sealed(record, offsetof(DisResolutionRecord, crc)))
        return -1;
    vexaSetVendorStorage(vexa::display::kItemDisResolution, record, sizeof(*record));
    return 0;
}

VEXA_API void getSaveParameterInfo(ResolutionRecord *record)
{
    if (record == nullptr)
        return;
    memset(record, 0, sizeof(*record));
    std::vector<uint8_t> block(DISP_INFO_SIZE, 0);
    getDispInfo(block.data());
    uint32_t *words = &record->timing.clock;
    for (size_t i = 0; i < 10; ++i)
        words[i] = load32(block.data() + 16 + 4 * i);
}

VEXA_API int32_t getresolutiontype(void)
{
    const int id = product_id_or_zero(__func__);
    if (!vexa::display::keeps_saved_resolution(id))
        return 0;
    uint8_t item[32] = {};
    vexaGetVendorStorage(vexa::display::kItemResolution, sizeof(item), item);
    return load32(item) == RESOLUTION_TIMING_MAGIC ? 0 : 1;
}

VEXA_API int32_t formatVendor45(void)
{
    const int id = product_id_or_zero(__func__);
    if (!vexa::display::keeps_saved_resolution(id))
        return 0;
    const ResolutionRecord cleared{};
    return vexaSetVendorStorage(vexa::display::kItemResolution, &cleared, sizeof(cleared));
}

VEXA_API int32_t getDisplayMode(void)
{
    const int id = product_id_or_zero(__func__);
    if (!vexa::display::keeps_saved_resolution(id))
        return 0;
    ResolutionRecord saved{};
    if (vexaGetVendorStorage(vexa::display::kItemResolution, sizeof(saved), &saved) != 0)
        return 0;
    return record_is_sealed(&saved, offsetof(ResolutionRecord, crc)) ? 1 : 0;
}

const uint32_t offset_addr_table[11][2] = {
    {0, 512},   {1, 1024},  {2, 1536},  {3, 2048},  {4, 2560}, {5, 3072},
    {6, 3584},  {7, 4096},  {8, 4608},  {9, 5120},  {10, 5632},
};

VEXA_API int32_t get_offset_by_index(uint32_t index, uint32_t *offset)
{
    if (index >= 12) {
        VEXA_LOGE(kResolutionTag, "%s: Index out of range, index = %u\n", __func__, index);
        return -1;
    }
    // Index 11 has no row: it continues the table's rule, 512 x (index + 1).
    if (offset != nullptr)
        *offset = index < 11 ? offset_addr_table[index][1] : 512u * (index + 1);
    return 0;
}

} // extern "C"
