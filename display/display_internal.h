// Helpers shared by the display subsystem's files.
#ifndef VEXA_DISPLAY_INTERNAL_H
#define VEXA_DISPLAY_INTERNAL_H

#include <zlib.h>

#include <cstddef>
#include <cstdint>

#include "platform/os.h"
#include "platform/unique.h"
#include "vexasdk/display.h"

namespace vexa::display {

inline const char *const kResolutionTag = "vexa_system_bi_resolution";

// Vendor-storage items of the saved display parameters.
constexpr uint16_t kItemResolution = 45;
constexpr uint16_t kItemDisResolution = 47;

// zlib's standard CRC-32.
inline uint32_t crc32_of(const void *data, size_t len)
{
    return uint32_t(::crc32(0L, static_cast<const Bytef *>(data), uInt(len)));
}

// Appends the CRC of the 44 timing bytes.
inline void seal(ResolutionRecord &record)
{
    record.crc = crc32_of(&record.timing, sizeof(record.timing));
}

// True for the products that keep a saved resolution in item 45.
inline bool keeps_saved_resolution(int32_t product_id)
{
    return product_id == 38444 || product_id == 38448 || product_id == 38449;
}

// The product border table and its default row.
extern const ResolutionBorder kBorders[26];
extern const ResolutionBorder kDefaultBorder;
// The last row for product_id, or null.
const ResolutionBorder *find_border(int32_t product_id);

// The preset records (60 Hz; their CRC word holds 8, or 16 for preset 1).
extern const ResolutionRecord kPresets[15];

using vexa::UniqueFd;

// Stores a sealed record; logs and returns false when it was refused.
bool save_record(const ResolutionRecord &record);

} // namespace vexa::display

#endif
