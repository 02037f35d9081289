// The integer CVT reduced-blanking engine. Its working state is the set of
// exported variables below, which other libraries of the board read and set;
// every function works on them in place.
#include <cstdio>

#include "platform/log.h"
#include "vexasdk/display.h"

namespace {
const char *const kTag = "vexa_system_CVTRB";

// 10^15 ps per second, over a refresh in millihertz.
constexpr int64_t kPicosecondsMilli = 1000000000000000LL;
}

extern "C" {

int32_t HActive = 0, HFront = 0, HSync = 0, HBack = 0, HTotal = 0;
int32_t VActive = 0, VFront = 0, VSync = 0, VBack = 0, VTotal = 0;
int64_t VRate = 60000, ActualVRate = 0, PClock = 0, ActualPClock = 0;
int32_t Fields = 1, Interlaced = 0;
uint32_t Type = 0;
int32_t PClockPrecision[3] = {100, 100, 1000};
int32_t AspectVSync[6][3] = {
    {2205, 2295, 5}, // 16:9
    {2352, 2448, 7}, // 15:9
    {2450, 2550, 6}, // 16:10
    {2940, 3060, 4}, // 4:3
    {3136, 3264, 7}, // 5:4
    {0, 0, 0},       // end of the table
};
int32_t MinTimeCVTRB = 460000000;
int32_t MinTimeCVTRB2 = 460000000;

// 0, then 288 MHz to 2520 MHz in steps of 12 MHz, filled at load.
uint32_t factor_pllvideo0x4_tbl[188] = {};

} // extern "C"

namespace {
struct PllTableInit {
    PllTableInit()
    {
        for (int i = 1; i < 188; ++i)
            factor_pllvideo0x4_tbl[i] = 288000000u + 12000000u * uint32_t(i - 1);
    }
} pll_table_init;

int32_t precision_entry()
{
    return Type < 3 ? PClockPrecision[Type] : 0;
}

int64_t hperiod_ps(int32_t min_time)
{
    return (int64_t(Fields) * kPicosecondsMilli / VRate - int64_t(Fields) * min_time) / VActive;
}

// Sizes a timing can hold: descriptors and the hardware count in 16 bits.
constexpr uint32_t kMaxActive = 65535;

// The engine divides by the refresh, the clock divisor and the line period;
// refuse what would make one of them zero or negative.
bool computable(uint32_t hactive, uint32_t vactive)
{
    if (hactive == 0 || vactive == 0 || hactive > kMaxActive || vactive > kMaxActive)
        return false;
    if (VRate <= 0 || Fields <= 0 || GetVRateDivisor() <= 0)
        return false;
    return (int64_t(Fields) * kPicosecondsMilli / VRate - int64_t(Fields) * MinTimeCVTRB) > 0 &&
           (int64_t(Fields) * kPicosecondsMilli / VRate - int64_t(Fields) * MinTimeCVTRB2) > 0;
}

void log_clock_inputs()
{
    VEXA_LOGE(kTag, "VRate: %lld, HTotal: %d, VTotal: %d, Divison: %d\n", (long long)VRate, HTotal,
              VTotal, GetVRateDivisor());
}

// Steps 2 to 5 of the two-pass wrappers: run, round the clock up, take the
// refresh it gives, run again at that refresh.
void two_passes(int32_t (*algorithm)())
{
    algorithm();
    CalculateActualPClockFromVRate();
    CalculateActualVRate();
    VRate = ActualVRate;
    algorithm();
    CalculateActualPClockFromVRate();
}

void fill_positions(ResolutionTiming *out)
{
    out->magic = RESOLUTION_TIMING_MAGIC;
    out->hdisplay = uint32_t(HActive);
    out->hsync_start = uint32_t(HActive + HFront);
    out->hsync_end = out->hsync_start + uint32_t(HSync);
    out->htotal = uint32_t(HTotal);
    out->vdisplay = uint32_t(VActive);
    out->vsync_start = uint32_t(VActive + VFront);
    out->vsync_end = out->vsync_start + uint32_t(VSync);
    out->vtotal = uint32_t(VTotal);
}

int32_t standard(const char *illegal, int32_t (*algorithm)(), uint32_t hactive, uint32_t vactive,
                 ResolutionTiming *out)
{
    if (out == nullptr || !computable(hactive, vactive)) {
        VEXA_LOGE(kTag, "%s", illegal);
        return -1;
    }
    HActive = int32_t(hactive);
    VActive = int32_t(vactive);
    const int64_t requested = VRate;
    two_passes(algorithm);
    VRate = requested;
    PClock = ActualPClock;
    fill_positions(out);
    // PClock is in 10 kHz at the usual precision; the factor applies whatever
    // Type is.
    out->clock = uint32_t(PClock * 10);
    out->vrefresh = 60;
    return 0;
}

// The vdc260 controller's video PLL only makes multiples of 12 MHz between
// 288 and 2520 MHz; the pixel clock is the PLL divided by 8 (16 below 36 MHz).
int32_t vdc260(uint32_t hactive, uint32_t vactive, uint32_t refresh, bool fps_variant,
               ResolutionTiming *out)
{
    if (out == nullptr || !computable(hactive, vactive)) {
        VEXA_LOGE(kTag, "CVTRB: illegal data\n");
        return -1;
    }
    HActive = int32_t(hactive);
    VActive = int32_t(vactive);
    const int64_t requested = VRate;
    two_passes(CalculateCVTRB);
    PClock = ActualPClock;
    if (fps_variant)
        VRate = int64_t(refresh) * 1000; // kept: later calls of the other wrappers use it
    else
        VRate = requested;

    const bool slow = PClock * 80000 < 288000000;
    const uint32_t f = uint32_t((slow ? 16u : 8u) * uint32_t(PClock) * 10000u);
    uint32_t rel_pll = f;
    // The last table entry is compared with the zero word after the table and
    // never matches.
    for (int i = 0; i < 187; ++i) {
        if (factor_pllvideo0x4_tbl[i] < f && f < factor_pllvideo0x4_tbl[i + 1]) {
            rel_pll = factor_pllvideo0x4_tbl[i + 1];
            break;
        }
    }
    if (fps_variant)
        VEXA_LOGD(kTag, "rel_pll: %d\n", int(rel_pll));
    else
        printf("rel_pll: %d\n", int(rel_pll));

    fill_positions(out);
    out->clock = (rel_pll / 1000) >> (slow ? 4 : 3);
    out->vrefresh = refresh;
    const uint32_t per_second = out->vtotal * refresh;
    out->htotal = per_second == 0 ? 0 : 1000u * out->clock / per_second;
    return 0;
}
} // namespace

extern "C" {

VEXA_API int32_t GetVRateDivisor(void)
{
    const int32_t precision = precision_entry();
    if (precision == 0)
        return 0;
    return int32_t(int64_t(1000000000) * Fields / precision);
}

VEXA_API int32_t CalculateActualVRate(void)
{
    ActualVRate = ActualPClock * GetVRateDivisor() / HTotal / VTotal;
    return 0;
}

VEXA_API int32_t CalculateActualPClockFromVRate(void)
{
    log_clock_inputs();
    const int64_t d = GetVRateDivisor();
    ActualPClock = (VRate * HTotal * VTotal + d - 1) / d;
    return 0;
}

VEXA_API int32_t CalculateActualPClockForCVTRB(void)
{
    const int64_t t = VRate * HTotal * VTotal / GetVRateDivisor();
    const int64_t quarter = precision_entry() / 4;
    ActualPClock = quarter == 0 ? t : t - t % quarter;
    return 0;
}

VEXA_API int32_t CalculateHTotal(void)
{
    HTotal = HActive + HFront + HSync + HBack;
    return 0;
}

VEXA_API int32_t CalculateVTotal(void)
{
    VTotal = VActive + VFront + VSync + VBack;
    return 0;
}

VEXA_API int32_t GetVSyncForCVTRB(void)
{
    const int64_t ratio = HActive == 0 ? 0 : int64_t(VActive) * 4000 / HActive;
    for (const auto &row : AspectVSync) {
        if (row[0] == 0 && row[1] == 0)
            break;
        if (ratio >= row[0] && ratio <= row[1])
            return row[2] * Fields;
    }
    return 10 * Fields;
}

VEXA_API int32_t GetVBackForCVTRB(void)
{
    const int64_t hperiod = hperiod_ps(MinTimeCVTRB);
    VEXA_LOGD(kTag, "Heriod: %lld\n", (long long)hperiod);
    int32_t vblank = int32_t(MinTimeCVTRB / hperiod + 1);
    if (vblank < VSync + VFront + 6)
        vblank = VSync + VFront + 6;
    VEXA_LOGD(kTag, "VBlank: %d\n", vblank);
    const int32_t vback = Interlaced + vblank * Fields - VFront - VSync;
    VEXA_LOGD(kTag, "VBack: %d\n", vback);
    return vback;
}

VEXA_API int32_t CalculateCVTRB(void)
{
    HSync = 32;
    HFront = 48;
    HBack = 80;
    VFront = 3;
    VSync = GetVSyncForCVTRB();
    VBack = GetVBackForCVTRB();
    PClock = ActualPClock;
    CalculateHTotal();
    CalculateVTotal();
    return 0;
}

VEXA_API int64_t GetHPeriodForCVTRB2(void)
{
    return hperiod_ps(MinTimeCVTRB2);
}

VEXA_API int32_t CalculateActualPClockForCVTRB2(void)
{
    ActualPClock = VRate * HTotal * VTotal / GetVRateDivisor();
    return 0;
}

VEXA_API int32_t GetVBackForCVTRB2(void)
{
    return Interlaced + 6 * Fields;
}

VEXA_API int32_t GetVSyncForCVTRB2(void)
{
    return 8 * Fields;
}

VEXA_API int32_t GetVFrontForCVTRB2(void)
{
    const int64_t hperiod = GetHPeriodForCVTRB2();
    VEXA_LOGD(kTag, "Heriod: %lld\n", (long long)hperiod);
    VEXA_LOGD(kTag, "VBlank: %d\n", int32_t(MinTimeCVTRB2 / hperiod + 1));
    // No lower bound on purpose: CVT-RB2 lets the front porch shrink.
    const int32_t vfront = int32_t(MinTimeCVTRB2 / hperiod - 13) * Fields;
    VEXA_LOGD(kTag, "VFront: %d\n", vfront);
    return vfront;
}

VEXA_API int32_t CalculateCVTRB2(void)
{
    HSync = 32;
    HFront = 8;
    HBack = 40;
    VFront = GetVFrontForCVTRB2();
    VSync = GetVSyncForCVTRB2();
    VBack = GetVBackForCVTRB2();
    CalculateHTotal();
    CalculateVTotal();
    CalculateActualPClockForCVTRB2();
    PClock = ActualPClock;
    CalculateActualVRate();
    return 0;
}

VEXA_API int32_t CalculateCVTRBStandard(uint32_t hactive, uint32_t vactive, ResolutionTiming *out)
{
    return standard("CVTRB: illegal data\n", CalculateCVTRB, hactive, vactive, out);
}

VEXA_API int32_t CalculateCVTRB2Standard(uint32_t hactive, uint32_t vactive, ResolutionTiming *out)
{
    return standard("CVTRB2: illegal data\n", CalculateCVTRB2, hactive, vactive, out);
}

VEXA_API int32_t CalculateCVTRBStandard_VDC260(uint32_t hactive, uint32_t vactive,
                                               ResolutionTiming *out)
{
    return vdc260(hactive, vactive, 60, false, out);
}

VEXA_API int32_t CalculateCVTRBStandard_VDC260_fps(uint32_t hactive, uint32_t vactive,
                                                   uint32_t fps, ResolutionTiming *out)
{
    VEXA_LOGD(kTag, "%s CVTRB: hactive: %d, vactive: %d, fps: %d\n", __func__, int(hactive),
              int(vactive), int(fps));
    VRate = int64_t(fps) * 1000;
    return vdc260(hactive, vactive, fps, true, out);
}

} // extern "C"
