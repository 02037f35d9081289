// The default board's partitions and display files, and the layouts of the
// images the board seeds, for tests that build their own.
#ifndef VEXA_SIM_PARTITIONS_H
#define VEXA_SIM_PARTITIONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace vexa::sim::partitions {

extern const char kDefined[];       // "/dev/block/by-name/defined"
extern const char kScreen[];        // "/dev/block/by-name/screen"
extern const char kFpgaProgram[];   // "/dev/block/by-name/fpga_program"
extern const char kBaseparameter[]; // "/dev/block/by-name/baseparameter"
extern const char kResolutionJson[];

constexpr size_t kDisplayBlockSize = 36936;
constexpr uint32_t kConnectorHdmiA = 11;
constexpr uint32_t kConnectorDp = 10;

// A connector-table entry of the baseparameter partition.
struct Connector {
    uint32_t type;
    uint32_t id;
    uint32_t offset;
};

// A display-information block holding the timing words (clock, hdisplay,
// hsync_start, hsync_end, htotal, vdisplay, vsync_start, vsync_end, vtotal,
// vrefresh) at bytes 16-55, with a valid CRC at its end.
std::string make_display_block(const std::vector<uint32_t> &timing);
// A baseparameter image of size bytes: header, up to eight connectors, and a
// display block (1920x1080 at 60 Hz) at every connector's offset.
std::string make_baseparameter(const std::vector<Connector> &connectors, size_t size);
// The default board's connectors: HDMI-A 0 at 4096, DP 0 at 45056.
std::vector<Connector> default_connectors();

// The vendor-storage store: one file per item, under this board path.
std::string vendor_item_path(int item);

} // namespace vexa::sim::partitions

#endif
