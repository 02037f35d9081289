// What the FPGA area's files share: log tags, the record lookups, sleeps and
// the done-pin poll.
#ifndef VEXA_FPGA_INTERNAL_H
#define VEXA_FPGA_INTERNAL_H

#include <cstdint>
#include <cstring>

#include "platform/os.h"
#include "vexasdk/product_config.h"

namespace vexa::fpga {

constexpr const char *kTagBi = "vexa_system_bi_fpga";
constexpr const char *kTagFw = "vexa_system_fw_update";

constexpr const char *kSpiNode = "/dev/fpga_spi";
constexpr const char *kLoadNode = "/dev/fpga_load";
constexpr const char *kScreenPartition = "/dev/block/by-name/screen";
constexpr const char *kMtdDebug = "/vendor/bin/mtd_debug";
constexpr const char *kUpdateProperty = "persist.vexa.system.fpga.fw.update";

// A path of the records counts as set when it is not empty and does not
// hold "UNDEF".
inline bool path_set(const char *path)
{
    return path != nullptr && path[0] != '\0' && std::strstr(path, "UNDEF") == nullptr;
}

// A path of bi_product, or null when the record is not loaded.
inline const char *product_path(bi_path_entry_t bi_product_config_t::*field)
{
    return bi_product ? (bi_product->*field).path : nullptr;
}

inline void sleep_ms(uint64_t ms) { os::sleep_us(ms * 1000); }

// The done-pin poll: up to 20 reads 500 ms apart, logged under tag as
// `name`; 1 when done, else the last level read (0 at once for a pin below 1).
int poll_done(const char *tag, const char *name, int pin);

// A register read over "/dev/fpga_spi" (0B, the address, 00, n data bytes),
// without logging: the read's result, or -1.
int read_register(uint32_t address, uint8_t *out, size_t n);

} // namespace vexa::fpga

#endif
