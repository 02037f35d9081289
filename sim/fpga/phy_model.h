// The RTL8211FS Ethernet PHY between the SoC's second MAC and the FPGA's
// SGMII port, as its management registers show it.
//
// Registers 0x00-0x0f are the IEEE ones and the same on every page;
// 0x10-0x1e are paged; 0x1f selects the page and reads it back. Read-only
// registers ignore writes (as the chip does), and so do registers the chip
// does not have, which read 0. The link status bits (BMSR, GBSR, ANLPAR,
// PHYSR) follow set_link().
//
// Power-on values of the registers the board uses:
//   0x00 BMCR 0x1140   0x01 BMSR 0x7949 (0x796d with link)
//   0x02 PHYID1 0x001c 0x03 PHYID2 0xc916
//   0x04 ANAR 0x01e1   0x05 ANLPAR 0x0000 (0x45e1 with link)
//   0x06 ANER 0x0064   0x09 GBCR 0x0200   0x0a GBSR 0x0000 (0x3c00 with link)
//   0x0f GBESR 0x3000
//   page 0xa43 0x1a PHYSR 0x0000 (0x002c with link: 1000 Mb/s, full duplex)
//   page 0xd08 0x10 0x0040 (the board's set-up writes 0x5e: SGMII to the
//   FPGA), 0x11 0x0109, 0x15 0x0319
// Writing BMCR bit 15 resets the registers; the bit clears itself, as does
// bit 9 (restart auto-negotiation).
//
// Not thread-safe: its owner (the FPGA model) locks it.
#ifndef VEXA_SIM_FPGA_PHY_MODEL_H
#define VEXA_SIM_FPGA_PHY_MODEL_H

#include <cstdint>
#include <map>
#include <optional>
#include <utility>

namespace vexa::sim {

class Rtl8211fs {
public:
    Rtl8211fs() { reset(); }

    // Every register to its power-on value, page 0.
    void reset();
    // A register of the current page (0x1f: the page); nothing for an address
    // above 0x1f, which the management bus cannot carry.
    std::optional<uint16_t> read(uint16_t reg) const;
    // False for an address above 0x1f; writes to read-only and absent
    // registers are taken and change nothing.
    bool write(uint16_t reg, uint16_t value);
    uint16_t page() const { return page_; }

    // SGMII mode towards the FPGA (page 0xd08, register 0x10 = 0x5e).
    bool sgmii_mode() const;
    void set_link(bool up);
    bool link() const { return link_; }

private:
    // (page, register); the IEEE registers under page 0.
    using Key = std::pair<uint16_t, uint16_t>;
    Key key(uint16_t reg) const { return {reg < 0x10 ? uint16_t(0) : page_, reg}; }

    std::map<Key, uint16_t> regs_;
    uint16_t page_ = 0;
    bool link_ = false;
};

} // namespace vexa::sim

#endif
