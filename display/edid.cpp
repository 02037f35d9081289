// EDID blocks: parsing the base block and detailed timing descriptors, and
// building an EDID whose preferred timing is a requested mode.
#include <cstring>

#include "platform/log.h"
#include "vexasdk/display.h"

extern "C" {

// The board's fallback identity. Block 0: maker "VXA", product 0x0405, week 16
// of 2013, EDID 1.3, digital input, 30 x 23 cm, 1920x1080 at 139.15 MHz
// preferred, serial "VEXALUMEM3", name "VEXA HD CARD", range limits 48-123 Hz,
// 28-200 kHz, 170 MHz. Block 1: CTA-861 revision 3 with VICs 16, 4, 3, 2, 1,
// 31, 19, 18, 17, basic LPCM audio, speaker allocation, the HDMI vendor block
// (physical address 1.0.0.0, 170 MHz TMDS), a video capability block and a
// 1280x720 at 60 Hz descriptor.
const uint8_t default_edid[256] = {
    0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00, 0x5b, 0x01, 0x05, 0x04, 0x00, 0x00, 0x00, 0x00,
    0x10, 0x17, 0x01, 0x03, 0x81, 0x1e, 0x17, 0xaa, 0xea, 0xee, 0x91, 0xa3, 0x54, 0x47, 0xa6, 0x26,
    0x0f, 0x50, 0x54, 0xbf, 0xee, 0x00, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01,
    0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x5b, 0x36, 0x80, 0xa0, 0x70, 0x38, 0x23, 0x40, 0x30, 0x20,
    0x36, 0x00, 0xcb, 0x28, 0x11, 0x00, 0x00, 0x18, 0x00, 0x00, 0x00, 0xff, 0x00, 0x56, 0x45, 0x58,
    0x41, 0x4c, 0x55, 0x4d, 0x45, 0x4d, 0x33, 0x0a, 0x20, 0x20, 0x00, 0x00, 0x00, 0xfc, 0x00, 0x56,
    0x45, 0x58, 0x41, 0x20, 0x48, 0x44, 0x20, 0x43, 0x41, 0x52, 0x44, 0x0a, 0x00, 0x00, 0x00, 0xfd,
    0x00, 0x30, 0x7b, 0x1c, 0xc8, 0x11, 0x00, 0x0a, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x01, 0x1d,
    0x02, 0x03, 0x21, 0xc1, 0x49, 0x10, 0x04, 0x03, 0x02, 0x01, 0x1f, 0x13, 0x12, 0x11, 0x23, 0x09,
    0x07, 0x07, 0x83, 0x01, 0x00, 0x00, 0x67, 0x03, 0x0c, 0x00, 0x10, 0x00, 0x00, 0x22, 0xe2, 0x00,
    0x4a, 0x01, 0x1d, 0x00, 0x72, 0x51, 0xd0, 0x1e, 0x20, 0x6e, 0x28, 0x55, 0x00, 0x2c, 0xe6, 0x10,
    0x00, 0x00, 0x1e, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xb5,
};

} // extern "C"

namespace {
const char *const kTag = "vexa_system_bi_resolution";
const uint8_t kHeader[8] = {0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00};

uint8_t block_sum(const uint8_t *p, size_t n)
{
    uint8_t sum = 0;
    for (size_t i = 0; i < n; ++i)
        sum = uint8_t(sum + p[i]);
    return sum;
}

// Nearly-standard clocks are taken as the standard one (Hz, bounds inclusive).
uint32_t snap_clock(uint32_t hz)
{
    struct Snap {
        uint32_t low, high, to;
    };
    static const Snap snaps[] = {
        {25100000, 25300000, 25200000},   {26500000, 27500000, 27000000},
        {53500000, 54500000, 54000000},   {59000000, 59800000, 59400000},
        {107500000, 108500000, 108000000}, {74000000, 74500000, 74250000},
        {148000000, 149000000, 148500000}, {296000000, 298000000, 297000000},
    };
    for (const Snap &s : snaps) {
        if (hz >= s.low && hz <= s.high)
            return s.to;
    }
    return hz;
}

void set_polarity(const DetailedTiming &t, uint8_t &h, uint8_t &v)
{
    h = v = 0;
    if (t.sync_type == 3) {
        h = t.sync_flags & 1;
        v = (t.sync_flags >> 1) & 1;
    } else if (t.sync_type == 2) {
        h = t.sync_flags & 1;
    }
}

uint32_t gcd(uint32_t a, uint32_t b)
{
    while (b != 0) {
        const uint32_t t = a % b;
        a = b;
        b = t;
    }
    return a;
}

// Writes timing as the preferred timing of a copy of the template.
int32_t build_edid(const uint8_t *edid_template, uint8_t *out, const DetailedTiming &timing)
{
    uint8_t edid[256];
    memcpy(edid, edid_template, sizeof(edid));
    edid_create_dtd(&timing, edid + 54);
    edid[127] = uint8_t(0x100 - block_sum(edid, 127));
    memcpy(out, edid, sizeof(edid));
    return 0;
}
} // namespace

extern "C" {

VEXA_API int32_t edid_parse_block0(const uint8_t *b, EdidInfo *info)
{
    if (b == nullptr || info == nullptr)
        return 0;
    memset(info, 0, sizeof(*info));
    memcpy(info->header, b, 8);
    const uint16_t id = uint16_t(b[8] << 8 | b[9]);
    info->manufacturer[0] = char(64 + ((id >> 10) & 31));
    info->manufacturer[1] = char(64 + ((id >> 5) & 31));
    info->manufacturer[2] = char(64 + (id & 31));
    info->manufacturer[3] = '\0';
    info->product_code = uint16_t(b[10] | b[11] << 8);
    info->serial = uint32_t(b[12]) | uint32_t(b[13]) << 8 | uint32_t(b[14]) << 16 |
                   uint32_t(b[15]) << 24;
    info->week = b[16];
    // A week of 0 reports year 0 even when the year byte is set.
    info->year = b[16] == 0 ? 0 : uint16_t(b[17] + 1990);
    info->version = b[18];
    info->revision = b[19];
    info->video_input = b[20];
    info->h_size_mm = uint32_t(b[21]) * 10;
    info->v_size_mm = uint32_t(b[22]) * 10;
    info->gamma = b[23];
    info->features = b[24];
    info->red_x = uint16_t(b[27] << 2 | ((b[25] >> 6) & 3));
    info->red_y = uint16_t(b[28] << 2 | ((b[25] >> 4) & 3));
    info->green_x = uint16_t(b[29] << 2 | ((b[25] >> 2) & 3));
    info->green_y = uint16_t(b[30] << 2 | (b[25] & 3));
    info->blue_x = uint16_t(b[31] << 2 | ((b[26] >> 6) & 3));
    info->blue_y = uint16_t(b[32] << 2 | ((b[26] >> 4) & 3));
    info->white_x = uint16_t(b[33] << 2 | ((b[26] >> 2) & 3));
    info->white_y = uint16_t(b[34] << 2 | (b[26] & 3));
    info->established_timings = uint16_t(b[35] << 8 | b[36]);
    info->manufacturer_timings = b[37];
    for (int i = 0; i < 8; ++i)
        info->standard_timings[i] = uint16_t(b[38 + 2 * i] << 8 | b[39 + 2 * i]);
    memcpy(info->descriptors, b + 54, 72);
    info->extensions = b[126];
    info->checksum = b[127];
    return memcmp(b, kHeader, 8) == 0 && block_sum(b + 1, 127) == 0 ? 1 : 0;
}

VEXA_API int32_t edid_parse_dtd(const uint8_t *d, DetailedTiming *t)
{
    if (d == nullptr || t == nullptr)
        return 0;
    memset(t, 0, sizeof(*t));
    const uint32_t raw = uint32_t(d[0] | d[1] << 8);
    t->pixel_clock = raw * 10000;
    if (raw == 0)
        return 0; // a display descriptor
    t->pixel_clock = snap_clock(t->pixel_clock);
    t->h_active = uint16_t(d[2] | (d[4] >> 4) << 8);
    t->h_blank = uint16_t(d[3] | (d[4] & 0x0f) << 8);
    t->v_active = uint16_t(d[5] | (d[7] >> 4) << 8);
    t->v_blank = uint16_t(d[6] | (d[7] & 0x0f) << 8);
    t->h_sync_offset = uint16_t(d[8] | ((d[11] >> 6) & 3) << 8);
    t->h_sync_width = uint16_t(d[9] | ((d[11] >> 4) & 3) << 8);
    t->v_sync_offset = uint16_t((d[10] >> 4) | ((d[11] >> 2) & 3) << 4);
    t->v_sync_width = uint16_t((d[10] & 0x0f) | (d[11] & 3) << 4);
    t->h_size_mm = uint16_t(d[12] | (d[14] >> 4) << 8);
    t->v_size_mm = uint16_t(d[13] | (d[14] & 0x0f) << 8);
    t->h_border = d[15];
    t->v_border = d[16];
    const uint8_t flags = d[17];
    t->interlaced = flags >> 7;
    t->stereo = uint8_t((flags & 1) + ((flags >> 4) & 6));
    t->sync_type = (flags >> 3) & 3;
    t->sync_flags = (flags >> 1) & 3;

    if (t->v_sync_offset >= t->v_blank || t->v_blank < 5 || t->v_active < 120 ||
        t->h_active < 160 || t->h_blank < 8 || t->h_sync_offset >= t->h_blank ||
        t->h_sync_width >= t->h_blank)
        return 0;
    return t->v_sync_width < t->v_blank ? 1 : 0;
}

VEXA_API int32_t edid_dtd2modeline_convert(const DetailedTiming *t, EdidModeline *m)
{
    if (t == nullptr || m == nullptr)
        return 0;
    m->pixel_clock = t->pixel_clock;
    m->hdisplay = t->h_active;
    m->hsync_start = uint32_t(t->h_active) + t->h_sync_offset;
    m->hsync_end = m->hsync_start + t->h_sync_width;
    m->htotal = uint32_t(t->h_active) + t->h_blank;
    m->vdisplay = t->v_active;
    m->vsync_start = uint32_t(t->v_active) + t->v_sync_offset;
    m->vsync_end = m->vsync_start + t->v_sync_width;
    m->vtotal = uint32_t(t->v_active) + t->v_blank;
    set_polarity(*t, m->hsync_positive, m->vsync_positive);
    m->interlaced = t->interlaced;
    return t->interlaced;
}

VEXA_API int32_t edid_dtd2modeline2_convert(const DetailedTiming *t, EdidVideoMode *m)
{
    if (t == nullptr || m == nullptr)
        return 0;
    memset(m, 0, sizeof(*m));
    uint32_t htotal = uint32_t(t->h_active) + t->h_blank;
    uint32_t vtotal = uint32_t(t->v_active) + t->v_blank;
    uint32_t vdisplay = t->v_active;
    m->refresh = (htotal == 0 || vtotal == 0) ? 0 : t->pixel_clock / (htotal * vtotal);
    if (t->interlaced) {
        vdisplay = 2u * t->v_active;
        // The 1250-line mode keeps an even frame.
        if (vtotal == 625 && t->pixel_clock == 72000000 && htotal == 2304)
            vtotal = 2 * vtotal;
        else
            vtotal = 2 * vtotal + 1;
    }
    m->pixel_clock = t->pixel_clock;
    m->hdisplay = t->h_active;
    m->vdisplay = uint16_t(vdisplay);
    m->htotal = uint16_t(htotal);
    m->vtotal = uint16_t(vtotal);
    set_polarity(*t, m->hsync_positive, m->vsync_positive);
    m->interlaced = t->interlaced;

    uint32_t w = t->h_size_mm != 0 ? t->h_size_mm : m->hdisplay;
    uint32_t h = t->v_size_mm != 0 ? t->v_size_mm : vdisplay;
    if (w != 0) {
        const uint32_t g = gcd(w, h);
        if (g != 0) {
            w /= g;
            h /= g;
        }
        const uint32_t larger = w > h ? w : h;
        if (larger > 80) {
            const uint32_t div = (larger + 79) / 80;
            w /= div;
            h /= div;
        }
        if (w == 0)
            w = 1;
        if (h == 0)
            h = 1;
    }
    m->aspect_width = uint8_t(w);
    m->aspect_height = uint8_t(h);

    m->h_front_porch = t->h_sync_offset;
    m->h_sync_width = t->h_sync_width;
    m->h_back_porch = uint16_t(t->h_blank - t->h_sync_offset - t->h_sync_width);
    m->v_front_porch = t->v_sync_offset;
    m->v_sync_width = t->v_sync_width;
    m->v_back_porch = uint16_t(t->v_blank - t->v_sync_offset - t->v_sync_width);
    return t->interlaced;
}

VEXA_API int32_t edid_create_dtd(const DetailedTiming *t, uint8_t *d)
{
    if (t == nullptr || d == nullptr)
        return 0;
    const uint32_t raw = (t->pixel_clock + 5000) / 10000;
    d[0] = uint8_t(raw);
    d[1] = uint8_t(raw >> 8);
    d[2] = uint8_t(t->h_active);
    d[3] = uint8_t(t->h_blank);
    d[4] = uint8_t(((t->h_active >> 8) & 0x0f) << 4 | ((t->h_blank >> 8) & 0x0f));
    d[5] = uint8_t(t->v_active);
    d[6] = uint8_t(t->v_blank);
    d[7] = uint8_t(((t->v_active >> 8) & 0x0f) << 4 | ((t->v_blank >> 8) & 0x0f));
    d[8] = uint8_t(t->h_sync_offset);
    d[9] = uint8_t(t->h_sync_width);
    d[10] = uint8_t((t->v_sync_offset & 0x0f) << 4 | (t->v_sync_width & 0x0f));
    d[11] = uint8_t(((t->h_sync_offset >> 8) & 3) << 6 | ((t->h_sync_width >> 8) & 3) << 4 |
                    ((t->v_sync_offset >> 4) & 3) << 2 | ((t->v_sync_width >> 4) & 3));
    d[12] = uint8_t(t->h_size_mm);
    d[13] = uint8_t(t->v_size_mm);
    d[14] = uint8_t(((t->h_size_mm >> 8) & 0x0f) << 4 | ((t->v_size_mm >> 8) & 0x0f));
    d[15] = t->h_border;
    d[16] = t->v_border;
    d[17] = uint8_t((t->interlaced != 0 ? 0x80 : 0) + (t->stereo & 1) + ((t->stereo & 6) << 4) +
                    ((t->sync_type & 3) << 3) + ((t->sync_flags & 3) << 1));
    return 1;
}

VEXA_API int32_t edid_parse_prefferred_timing(const uint8_t *edid, uint32_t *out)
{
    VEXA_LOGD(kTag, "%s: is called\n", __func__);
    if (edid == nullptr || out == nullptr) {
        VEXA_LOGE(kTag, "%s: invalid edid_data or timings is NULL\n", __func__);
        return -1;
    }
    const uint8_t *d = edid + 54;
    const uint32_t clock = uint32_t(d[0] | d[1] << 8);
    const uint32_t h_active = uint32_t(d[2] | (d[4] >> 4) << 8);
    const uint32_t h_blank = uint32_t(d[3] | (d[4] & 0x0f) << 8);
    const uint32_t v_active = uint32_t(d[5] | (d[7] >> 4) << 8);
    const uint32_t v_blank = uint32_t(d[6] | (d[7] & 0x0f) << 8);
    out[0] = clock;
    out[1] = h_active;
    out[4] = h_active + h_blank;
    out[7] = v_active;
    out[8] = v_active + v_blank;
    VEXA_LOGD(kTag,
              "%s: pixel_clock = %u, h_active = %u, v_active = %u, h_total = %u, v_total = %u\n",
              __func__, out[0], out[1], out[7], out[4], out[8]);
    return 0;
}

VEXA_API int32_t ResT_verify_EDID(const uint8_t *edid)
{
    if (edid == nullptr || memcmp(edid, kHeader, 8) != 0 || block_sum(edid, 128) != 0)
        return 1;
    if (edid[126] != 0 && block_sum(edid + 128, 128) != 0)
        return 1;
    return 0;
}

VEXA_API int32_t ResT_calDTD_by_model(DetailedTiming *t, uint32_t hactive, uint32_t vactive,
                                      float refresh)
{
    if (t == nullptr)
        return 1;
    memset(t, 0, sizeof(*t));
    TimingTableRow row{};
    if (GetDmtTiming(hactive, vactive, uint32_t(refresh * 10.0f), &row) ||
        GetVideoTiming(hactive, vactive, uint32_t(refresh), &row)) {
        t->h_active = uint16_t(row.htotal - row.h_blank);
        t->h_blank = row.h_blank;
        t->v_active = uint16_t(row.vtotal - row.v_blank);
        t->v_blank = row.v_blank;
        t->h_sync_offset = uint16_t(row.h_blank - row.h_sync_back);
        t->h_sync_width = row.h_sync;
        t->v_sync_offset = uint16_t(row.v_blank - row.v_sync_back);
        t->v_sync_width = row.v_sync;
        t->pixel_clock = uint32_t(float(uint32_t(row.htotal) * row.vtotal) * refresh);
    } else {
        CvtMode m{};
        if (vert_refresh(int32_t(hactive), int32_t(vactive), refresh, 0, 1, 0, 0, &m) != 0)
            return 1;
        t->h_active = uint16_t(m.hdisplay);
        t->h_blank = uint16_t(m.htotal - m.hdisplay);
        t->v_active = uint16_t(m.vdisplay);
        t->v_blank = uint16_t(m.vtotal - m.vdisplay);
        t->h_sync_offset = uint16_t(m.hsync_start - m.hdisplay);
        t->h_sync_width = uint16_t(m.hsync_end - m.hsync_start);
        t->v_sync_offset = uint16_t(m.vsync_start - m.vdisplay);
        t->v_sync_width = uint16_t(m.vsync_end - m.vsync_start);
        t->pixel_clock = uint32_t(double(m.clock) * 1000000.0);
    }
    t->sync_type = 3; // digital separate, both polarities negative
    t->sync_flags = 0;
    return 0;
}

VEXA_API int32_t ResT_calEDID_by_model(const uint8_t *edid_template, uint8_t *out,
                                       uint32_t hactive, uint32_t vactive, float refresh)
{
    if (out == nullptr || ResT_verify_EDID(edid_template) != 0)
        return 1;
    DetailedTiming t;
    if (ResT_calDTD_by_model(&t, hactive, vactive, refresh) != 0)
        return 1;
    return build_edid(edid_template, out, t);
}

VEXA_API int32_t ResT_calEDID_by_DTD(const uint8_t *edid_template, uint8_t *out,
                                     DetailedTiming timing)
{
    if (out == nullptr || ResT_verify_EDID(edid_template) != 0)
        return 1;
    timing.h_size_mm = 0;
    timing.v_size_mm = 0;
    timing.h_border = 0;
    timing.v_border = 0;
    timing.interlaced = 0;
    timing.stereo = 0;
    timing.sync_type = 3;
    timing.sync_flags = 0;
    return build_edid(edid_template, out, timing);
}

} // extern "C"
