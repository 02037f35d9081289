// The RTL8211FS's management registers.
#include "sim/fpga/phy_model.h"

namespace vexa::sim {

namespace {

constexpr uint16_t kBmcr = 0x00, kBmsr = 0x01, kAnlpar = 0x05, kGbsr = 0x0a, kPageSelect = 0x1f;
constexpr uint16_t kPhysrPage = 0xa43, kPhysr = 0x1a;
constexpr uint16_t kSerdesPage = 0xd08, kSerdesMode = 0x10, kSgmiiMode = 0x5e;
constexpr uint16_t kBmcrReset = 1u << 15, kBmcrRestartAn = 1u << 9;

struct Register {
    uint16_t page, reg, value;
    bool writable;
    uint16_t with_link; // the value while the link is up (read-only status registers)
};

const Register kRegisters[] = {
    {0, kBmcr, 0x1140, true, 0x1140},
    {0, kBmsr, 0x7949, false, 0x796d},
    {0, 0x02, 0x001c, false, 0x001c},
    {0, 0x03, 0xc916, false, 0xc916},
    {0, 0x04, 0x01e1, true, 0x01e1},
    {0, kAnlpar, 0x0000, false, 0x45e1},
    {0, 0x06, 0x0064, false, 0x0064},
    {0, 0x07, 0x2001, true, 0x2001},
    {0, 0x08, 0x0000, false, 0x0000},
    {0, 0x09, 0x0200, true, 0x0200},
    {0, kGbsr, 0x0000, false, 0x3c00},
    {0, 0x0d, 0x0000, true, 0x0000},
    {0, 0x0e, 0x0000, true, 0x0000},
    {0, 0x0f, 0x3000, false, 0x3000},
    {kPhysrPage, kPhysr, 0x0000, false, 0x002c},
    {kSerdesPage, kSerdesMode, 0x0040, true, 0x0040},
    {kSerdesPage, 0x11, 0x0109, true, 0x0109},
    {kSerdesPage, 0x15, 0x0319, true, 0x0319},
};

const Register *find(uint16_t page, uint16_t reg)
{
    for (const Register &r : kRegisters)
        if (r.page == page && r.reg == reg)
            return &r;
    return nullptr;
}

} // namespace

void Rtl8211fs::reset()
{
    regs_.clear();
    for (const Register &r : kRegisters)
        regs_[{r.page, r.reg}] = link_ && !r.writable ? r.with_link : r.value;
    page_ = 0;
}

std::optional<uint16_t> Rtl8211fs::read(uint16_t reg) const
{
    if (reg > kPageSelect)
        return std::nullopt;
    if (reg == kPageSelect)
        return page_;
    auto it = regs_.find(key(reg));
    return it == regs_.end() ? 0 : it->second;
}

bool Rtl8211fs::write(uint16_t reg, uint16_t value)
{
    if (reg > kPageSelect)
        return false;
    if (reg == kPageSelect) {
        page_ = value;
        return true;
    }
    const Key at = key(reg);
    const Register *r = find(at.first, at.second);
    if (r == nullptr || !r->writable)
        return true;
    if (at == Key{0, kBmcr} && (value & kBmcrReset)) {
        reset();
        return true;
    }
    regs_[at] = at == Key{0, kBmcr} ? uint16_t(value & ~kBmcrRestartAn) : value;
    return true;
}

bool Rtl8211fs::sgmii_mode() const
{
    auto it = regs_.find({kSerdesPage, kSerdesMode});
    return it != regs_.end() && it->second == kSgmiiMode;
}

void Rtl8211fs::set_link(bool up)
{
    link_ = up;
    for (const Register &r : kRegisters)
        if (!r.writable)
            regs_[{r.page, r.reg}] = up ? r.with_link : r.value;
}

} // namespace vexa::sim
