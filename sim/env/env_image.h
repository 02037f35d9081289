// Environment images as the boot loader stores them, for seeding boards and
// for tests: a CRC-32 (little-endian) over the data area, then the
// NUL-terminated "key=value" strings, an empty string, and zeros.
#ifndef VEXA_SIM_ENV_ENV_IMAGE_H
#define VEXA_SIM_ENV_ENV_IMAGE_H

#include <cstddef>
#include <string>
#include <vector>

namespace vexa::sim::env {

// Board paths of the environment partition, in the order the store tries them.
extern const char *const kEnvDevices[4];
// The one the default board has.
extern const char kDefaultEnvDevice[];
// The reserve partition and where it is mounted.
extern const char kReserveDevice[];
extern const char kReserveMountPoint[];

// One image of `size` bytes holding the entries in order.
std::string make_env_image(const std::vector<std::string> &entries, size_t size = 65536);
// A partition: the image at offset 0 and again at offset 65536.
std::string make_env_partition(const std::vector<std::string> &entries, size_t image_size = 65536);
// The entries of the image at `offset` of a partition, or nothing when its
// CRC does not match.
bool read_env_image(const std::string &partition, size_t offset, std::vector<std::string> *entries,
                    size_t size = 65536);

// The variables of the default board's environment.
std::vector<std::string> default_env_entries();

// The board path of the folder holding the files of the ext4 file system on
// a block device (board path); it exists once the device has been formatted.
std::string fs_dir(const std::string &device);

} // namespace vexa::sim::env

#endif
