// The request of the kernel's vendor-storage node "/dev/vendor_storage":
// the library asks it for items, and the virtual board answers as the driver
// does.
#ifndef VEXA_PLATFORM_VENDOR_STORAGE_H
#define VEXA_PLATFORM_VENDOR_STORAGE_H

#include <cstddef>
#include <cstdint>

namespace vexa::vendor_storage {

constexpr const char *kNode = "/dev/vendor_storage";
constexpr uint32_t kTag = 0x56524551; // "QERV"
constexpr unsigned long kRead = 0x40047601;
constexpr unsigned long kWrite = 0x40047602;
constexpr size_t kDataMax = 64;

struct Request {
    uint32_t tag;
    uint16_t id;
    uint16_t len;
    uint8_t data[kDataMax];
};

} // namespace vexa::vendor_storage

#endif
