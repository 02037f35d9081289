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

// 0, then 288 MHz to 2520 MHz in steps of 12 MHz.
uint32_t factor_pllvideo0x4_tbl[188] = {
    0u, 288000000u, 300000000u, 312000000u, 324000000u, 336000000u,
    348000000u, 360000000u, 372000000u, 384000000u, 396000000u, 408000000u,
    420000000u, 432000000u, 444000000u, 456000000u, 468000000u, 480000000u,
    492000000u, 504000000u, 516000000u, 528000000u, 540000000u, 552000000u,
    564000000u, 576000000u, 588000000u, 600000000u, 612000000u, 624000000u,
    636000000u, 648000000u, 660000000u, 672000000u, 684000000u, 696000000u,
    708000000u, 720000000u, 732000000u, 744000000u, 756000000u, 768000000u,
    780000000u, 792000000u, 804000000u, 816000000u, 828000000u, 840000000u,
    852000000u, 864000000u, 876000000u, 888000000u, 900000000u, 912000000u,
    924000000u, 936000000u, 948000000u, 960000000u, 972000000u, 984000000u,
    996000000u, 1008000000u, 1020000000u, 1032000000u, 1044000000u, 1056000000u,
    1068000000u, 1080000000u, 1092000000u, 1104000000u, 1116000000u, 1128000000u,
    1140000000u, 1152000000u, 1164000000u, 1176000000u, 1188000000u, 1200000000u,
    1212000000u, 1224000000u, 1236000000u, 1248000000u, 1260000000u, 1272000000u,
    1284000000u, 1296000000u, 1308000000u, 1320000000u, 1332000000u, 1344000000u,
    1356000000u, 1368000000u, 1380000000u, 1392000000u, 1404000000u, 1416000000u,
    1428000000u, 1440000000u, 1452000000u, 1464000000u, 1476000000u, 1488000000u,
    1500000000u, 1512000000u, 1524000000u, 1536000000u, 1548000000u, 1560000000u,
    1572000000u, 1584000000u, 1596000000u, 1608000000u, 1620000000u, 1632000000u,
    1644000000u, 1656000000u, 1668000000u, 1680000000u, 1692000000u, 1704000000u,
    1716000000u, 1728000000u, 1740000000u, 1752000000u, 1764000000u, 1776000000u,
    1788000000u, 1800000000u, 1812000000u, 1824000000u, 1836000000u, 1848000000u,
    1860000000u, 1872000000u, 1884000000u, 1896000000u, 1908000000u, 1920000000u,
    1932000000u, 1944000000u, 1956000000u, 1968000000u, 1980000000u, 1992000000u,
    2004000000u, 2016000000u, 2028000000u, 2040000000u, 2052000000u, 2064000000u,
    2076000000u, 2088000000u, 2100000000u, 2112000000u, 2124000000u, 2136000000u,
    2148000000u, 2160000000u, 2172000000u, 2184000000u, 2196000000u, 2208000000u,
    2220000000u, 2232000000u, 2244000000u, 2256000000u, 2268000000u, 2280000000u,
    2292000000u, 2304000000u, 2316000000u, 2328000000u, 2340000000u, 2352000000u,
    2364000000u, 2376000000u, 2388000000u, 2400000000u, 2412000000u, 2424000000u,
    2436000000u, 2448000000u, 2460000000u, 2472000000u, 2484000000u, 2496000000u,
    2508000000u, 2520000000u,
};

} // extern "C"

namespace {
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
