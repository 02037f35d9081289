/*
 * Display timing and resolution: the CVT reduced-blanking engines, the
 * standard timing tables and calculators, EDID parsing and synthesis, the
 * resolution API with its saved display parameters, the timing calculation
 * from the product resolution JSON, and the display status queries.
 *
 * Errors: functions return a signed status, 0 (or a count, a state number or
 * a found flag) on success and -1 on failure unless a function says
 * otherwise. The resolution functions also report a status word in their
 * result record: 1 accepted, -1 too large, -2 outside the product's size
 * range, -3 pixel clock above the product's limit, -4 not saved. Log tags:
 * "vexa_system_CVTRB" for the integer CVT engine, "vexa_system_bi_resolution"
 * for everything else; the partition code reports on standard output.
 *
 * Threads: the integer CVT engine keeps its state in the exported variables
 * below (HActive ... MinTimeCVTRB2) without a lock, and every resolution
 * calculation goes through it: calls must not overlap. Writers of vendor
 * storage and of the baseparameter partition must not overlap either. All
 * records are owned by the caller; nothing is allocated for the caller.
 */
#ifndef VEXASDK_DISPLAY_H
#define VEXASDK_DISPLAY_H

#include <stdint.h>

#include "vexasdk/export.h"

VEXA_EXTERN_C_BEGIN

/* ---- Records ---- */

/* The magic word of a timing record: the bytes "OSER" in memory order. */
#define RESOLUTION_TIMING_MAGIC 0x5245534Fu

/* A display timing (44 bytes, stored and sent as it is). */
typedef struct {
    uint32_t magic;
    uint32_t clock; /* pixel clock, kHz */
    uint32_t hdisplay;
    uint32_t hsync_start;
    uint32_t hsync_end;
    uint32_t htotal;
    uint32_t vdisplay;
    uint32_t vsync_start;
    uint32_t vsync_end;
    uint32_t vtotal;
    uint32_t vrefresh; /* Hz */
} ResolutionTiming;

/* The saved-resolution record of vendor-storage item 45 (48 bytes): a timing
 * followed by the CRC-32 of its 44 bytes. */
typedef struct {
    ResolutionTiming timing;
    uint32_t crc;
} ResolutionRecord;

/* The extended saved record of vendor-storage item 47 (52 bytes): magic,
 * eleven payload words owned by the caller, CRC-32 of bytes 0-47. */
typedef struct {
    uint32_t magic;
    uint32_t payload[11];
    uint32_t crc;
} DisResolutionRecord;

/* A mode of the floating-point CVT engine. */
typedef struct {
    int32_t hdisplay;
    int32_t hsync_start;
    int32_t hsync_end;
    int32_t htotal;
    int32_t vdisplay;
    int32_t vsync_start;
    int32_t vsync_end;
    int32_t vtotal;
    float clock;   /* MHz */
    float h_freq;  /* kHz */
    float v_freq;  /* requested refresh, Hz */
    float v_freq_actual;
    int32_t reduced_blank;
    int32_t interlaced;
} CvtMode;

/* An unpacked EDID detailed timing descriptor. Clear it before filling. */
typedef struct {
    uint32_t pixel_clock; /* Hz */
    uint16_t h_active;
    uint16_t h_blank;
    uint16_t v_active;
    uint16_t v_blank;
    uint16_t h_sync_offset; /* front porch */
    uint16_t h_sync_width;
    uint16_t v_sync_offset;
    uint16_t v_sync_width;
    uint16_t h_size_mm;
    uint16_t v_size_mm;
    uint8_t h_border;
    uint8_t v_border;
    uint8_t interlaced;
    uint8_t stereo;     /* flags bit 0 and bits 6-5 moved to bits 2-1 */
    uint8_t sync_type;  /* 3: digital separate */
    uint8_t sync_flags; /* bit 1 vertical, bit 0 horizontal polarity */
} DetailedTiming;

/* The parsed base block of an EDID. */
typedef struct {
    uint8_t header[8];
    char manufacturer[4];
    uint16_t product_code;
    uint32_t serial;
    uint8_t week;
    uint16_t year; /* 0 when the week byte is 0 */
    uint8_t version;
    uint8_t revision;
    uint8_t video_input;
    uint32_t h_size_mm; /* centimetres x 10 */
    uint32_t v_size_mm;
    uint8_t gamma;
    uint8_t features;
    uint16_t red_x, red_y, green_x, green_y, blue_x, blue_y, white_x, white_y;
    uint16_t established_timings;  /* bytes 35 and 36, byte 35 high */
    uint8_t manufacturer_timings;  /* byte 37 */
    uint16_t standard_timings[8];
    uint8_t descriptors[72];
    uint8_t extensions;
    uint8_t checksum;
} EdidInfo;

typedef struct {
    uint32_t pixel_clock; /* Hz */
    uint32_t hdisplay, hsync_start, hsync_end, htotal;
    uint32_t vdisplay, vsync_start, vsync_end, vtotal;
    uint8_t hsync_positive;
    uint8_t vsync_positive;
    uint8_t interlaced;
} EdidModeline;

typedef struct {
    uint32_t pixel_clock; /* Hz */
    uint16_t hdisplay, vdisplay, htotal;
    uint16_t h_front_porch, h_sync_width, h_back_porch;
    uint8_t hsync_positive;
    uint16_t vtotal, v_front_porch, v_sync_width, v_back_porch;
    uint8_t vsync_positive;
    uint8_t interlaced;
    uint32_t refresh; /* Hz */
    uint8_t aspect_width;
    uint8_t aspect_height;
} EdidVideoMode;

/* A row of g_timing_table (28 bytes). Frequencies in 0.1 kHz and 0.1 Hz. */
typedef struct {
    uint32_t mode_number;
    uint16_t h_freq;
    uint16_t v_freq;
    uint16_t htotal;
    uint16_t vtotal;
    uint16_t h_blank;
    uint16_t h_sync;
    uint16_t h_sync_back;
    uint16_t v_blank;
    uint16_t v_sync;
    uint16_t v_sync_back;
    uint16_t reserved[2];
} TimingTableRow;

/* A row of XVidC_VideoTimingModes (64 bytes). */
typedef struct {
    uint32_t mode_id;
    char name[21];
    uint8_t pad[3];
    uint32_t frame_rate; /* whole Hz */
    uint16_t h_active, h_front_porch, h_sync_width, h_back_porch, h_total;
    uint16_t h_sync_polarity;
    uint16_t v_active;
    uint16_t f0_v_front_porch, f0_v_sync_width, f0_v_back_porch, f0_v_total;
    uint16_t f1_v_front_porch, f1_v_sync_width, f1_v_back_porch, f1_v_total;
    uint16_t v_sync_polarity;
} XVidC_VideoTimingMode;

/* The result of a resolution request. */
typedef struct {
    uint32_t width;
    uint32_t height;
    uint32_t refresh; /* Hz */
    int32_t status;   /* 1, -1, -2, -3 or -4, see Errors */
} st_bi_sffe_resolution;

/* A calculator of the product border table. */
typedef int32_t (*ResolutionCalculator)(uint32_t width, uint32_t height, ResolutionTiming *out);

/* A row of the product border table. */
typedef struct {
    uint32_t product_id;
    uint32_t min_width, max_width;
    uint32_t min_height, max_height;
    uint32_t max_area;
    uint32_t max_clock; /* kHz */
    ResolutionCalculator primary;
    ResolutionCalculator alternative; /* may be null */
} ResolutionBorder;

/* One product of the resolution JSON. */
typedef struct {
    char calculate_type[36];
    uint32_t modID;
    uint32_t min_hdisplay, max_hdisplay;
    uint32_t min_vidsplay, max_vidsplay;
    uint32_t bandwidth;
    uint32_t pclock; /* kHz */
} ProductResolutionConfig;

/* ---- Integer CVT engine ---- */

/* Working state, shared process-wide (see Threads). VRate is in millihertz,
 * clocks in units of 1e9 x Fields / PClockPrecision[Type] (10 kHz at the
 * initial precision). */
VEXA_API extern int32_t HActive, HFront, HSync, HBack, HTotal;
VEXA_API extern int32_t VActive, VFront, VSync, VBack, VTotal;
VEXA_API extern int64_t VRate, ActualVRate, PClock, ActualPClock;
VEXA_API extern int32_t Fields, Interlaced;
VEXA_API extern uint32_t Type;
VEXA_API extern int32_t PClockPrecision[3];
VEXA_API extern int32_t AspectVSync[6][3];
VEXA_API extern int32_t MinTimeCVTRB, MinTimeCVTRB2;
/* Output frequencies of the vdc260 video PLL in Hz, ascending. */
VEXA_API extern uint32_t factor_pllvideo0x4_tbl[188];

/* Clock divisor D = 1e9 x Fields / PClockPrecision[Type] (0 for precision 0). */
VEXA_API int32_t GetVRateDivisor(void);
VEXA_API int32_t CalculateActualVRate(void);
VEXA_API int32_t CalculateActualPClockFromVRate(void);
VEXA_API int32_t CalculateActualPClockForCVTRB(void);
VEXA_API int32_t CalculateHTotal(void);
VEXA_API int32_t CalculateVTotal(void);
VEXA_API int32_t GetVSyncForCVTRB(void);
VEXA_API int32_t GetVBackForCVTRB(void);
/* One CVT-RB (version 1) pass over the variables; copies ActualPClock to PClock. */
VEXA_API int32_t CalculateCVTRB(void);
VEXA_API int64_t GetHPeriodForCVTRB2(void);
VEXA_API int32_t CalculateActualPClockForCVTRB2(void);
VEXA_API int32_t GetVBackForCVTRB2(void);
VEXA_API int32_t GetVSyncForCVTRB2(void);
VEXA_API int32_t GetVFrontForCVTRB2(void);
/* One CVT-RB2 pass; computes PClock, ActualPClock and ActualVRate. */
VEXA_API int32_t CalculateCVTRB2(void);

/* Two-pass CVT-RB (RB2) timing of hactive x vactive at VRate into out; the
 * refresh word is always 60. 0, or -1 ("illegal data") for a zero size or a
 * size above 65535, a null out, or variables that leave nothing to divide
 * by (VRate or Fields not above 0, a refresh too high for the blanking). */
VEXA_API int32_t CalculateCVTRBStandard(uint32_t hactive, uint32_t vactive, ResolutionTiming *out);
VEXA_API int32_t CalculateCVTRB2Standard(uint32_t hactive, uint32_t vactive, ResolutionTiming *out);
/* CVT-RB with the clock snapped to the vdc260 PLL; htotal follows the snapped
 * clock. The _fps variant leaves VRate at fps x 1000. */
VEXA_API int32_t CalculateCVTRBStandard_VDC260(uint32_t hactive, uint32_t vactive,
                                               ResolutionTiming *out);
VEXA_API int32_t CalculateCVTRBStandard_VDC260_fps(uint32_t hactive, uint32_t vactive,
                                                   uint32_t fps, ResolutionTiming *out);

/* ---- Floating-point CVT engine ---- */

VEXA_API extern float CLOCK_STEP, CELL_GRAN, CELL_GRAN_RND, MIN_V_BPORCH, RB_V_FPORCH;
/* Set to print print_value() lines. */
VEXA_API extern int32_t global_verbose;

/* Full CVT mode (normal or reduced blanking, margins, interlace, 1000/1001
 * pull-down) into mode. 0, or -1 for a null mode, a size outside 1 to 65535,
 * or a refresh that gives no timing. */
VEXA_API int32_t vert_refresh(int32_t hdisplay, int32_t vdisplay, float vfreq, int32_t interlaced,
                              int32_t reduced, int32_t margins, int32_t pulldown, CvtMode *mode);
/* mode to out; returns the refresh, snapped to 60, 50 or 30 within 1 Hz. */
VEXA_API int32_t convert_cvt_to_resolution(const CvtMode *mode, ResolutionTiming *out);
/* CVT reduced blanking through vert_refresh; type_text is only logged. 0 or -1. */
VEXA_API int32_t calculate_cvtrb_timming(uint32_t hactive, uint32_t vactive, uint32_t fps,
                                         const char *type_text, ResolutionTiming *out);
/* Printers of a mode on standard output. */
VEXA_API void print_value(int32_t index, const char *name, float value);
VEXA_API void print_xf86_mode(const CvtMode *mode);
VEXA_API void print_fb_mode(const CvtMode *mode);

/* ---- Standard tables and calculators ---- */

VEXA_API extern const uint32_t cea_standard_resolution[9][9];
VEXA_API extern const uint32_t dmt_standard_resolution[13][9];
/* Holds the rows of mode numbers 17 to 21 at 60 Hz, the only ones looked up. */
VEXA_API extern const TimingTableRow g_timing_table[];
VEXA_API extern const uint32_t g_timing_table_rows;
/* CEA-861 and VESA DMT modes, by size and whole-Hz frame rate. */
VEXA_API extern const XVidC_VideoTimingMode XVidC_VideoTimingModes[];
VEXA_API extern const uint32_t XVidC_VideoTimingModes_rows;
VEXA_API extern const uint32_t def_pll[6];
VEXA_API extern const uint32_t def_pll_gmb4k[16];

/* The 60 Hz CEA or DMT mode of exactly this size; refresh must be 60.0.
 * 0 found, -1 not. */
VEXA_API int32_t select_standard_resolution(DetailedTiming *out, uint32_t hdisplay,
                                            uint32_t vdisplay, float refresh);
/* The g_timing_table row of 1600x1200, 1920x1080, 1920x1200, 2048x1152 or
 * 3840x2160 within 0.5 Hz of vfreq_tenths (0.1 Hz). 1 found, 0 not. */
VEXA_API int32_t GetDmtTiming(uint32_t hactive, uint32_t vactive, uint32_t vfreq_tenths,
                              TimingTableRow *out);
/* The XVidC_VideoTimingModes row in the g_timing_table layout (mode number
 * left alone). 1 found, 0 not. */
VEXA_API int32_t GetVideoTiming(uint32_t hactive, uint32_t vactive, uint32_t frame_rate,
                                TimingTableRow *out);
/* Raises *width to the next split-capable width (4224 ... 16368). */
VEXA_API void findClosestLarger(uint32_t *width);
/* Splits a wide screen into factor parts of at most 4096 pixels: factor 1 up
 * to 4096, 4 below 8193, else 8; the part width is even, the height is
 * multiplied by the factor. 0; -1 bad size; -2 null output; -3 wider than
 * 16368; -4 part wider than 4096; -5 height overflow. */
VEXA_API int32_t calculateDiscountResolution(int32_t width, int32_t height, int32_t *out_width,
                                             int32_t *out_height, int32_t *out_factor);
/* Fixed 148.5 MHz clock: the height follows from the width. 0 or -1. */
VEXA_API int32_t calculateActiveResolutionGm2k(uint32_t width, uint32_t height,
                                               ResolutionTiming *out);
/* Clock raised to the next PLL frequency; vtotal follows. 0 or -1. */
VEXA_API int32_t calculateActiveResolutionRk3328(uint32_t width, uint32_t height,
                                                 ResolutionTiming *out);
/* Runs config's primary calculator, and its alternative when the clock
 * reaches config->max_clock. 0 or -1. */
VEXA_API int32_t calculateResolutionTimming(int32_t width, int32_t height,
                                            const ResolutionBorder *config, ResolutionTiming *out);

/* ---- EDID ---- */

/* The fallback identity: a two-block EDID (base block and a CEA-861
 * extension) with a 1920x1080 preferred timing. */
VEXA_API extern const uint8_t default_edid[256];

/* 1 when the 128-byte block has the header and a valid checksum, else 0. */
VEXA_API int32_t edid_parse_block0(const uint8_t *block, EdidInfo *info);
/* 1 when the 18-byte descriptor is a plausible timing, else 0. */
VEXA_API int32_t edid_parse_dtd(const uint8_t *descriptor, DetailedTiming *timing);
VEXA_API int32_t edid_dtd2modeline_convert(const DetailedTiming *timing, EdidModeline *modeline);
VEXA_API int32_t edid_dtd2modeline2_convert(const DetailedTiming *timing, EdidVideoMode *mode);
/* Packs timing into 18 bytes. 1, or 0 for a null argument. */
VEXA_API int32_t edid_create_dtd(const DetailedTiming *timing, uint8_t *descriptor);
/* Words 0 (clock, 10 kHz), 1 (h active), 4 (h total), 7 (v active) and 8
 * (v total) of out[9] from the first descriptor of edid. 0 or -1. */
VEXA_API int32_t edid_parse_prefferred_timing(const uint8_t *edid, uint32_t *out);
/* 0 when the 256-byte template is valid, 1 when not. */
VEXA_API int32_t ResT_verify_EDID(const uint8_t *edid);
/* Copies the template to out with a timing for the mode as its preferred
 * timing. 0, or 1 for a bad template (out untouched). */
VEXA_API int32_t ResT_calEDID_by_model(const uint8_t *edid_template, uint8_t *out,
                                       uint32_t hactive, uint32_t vactive, float refresh);
VEXA_API int32_t ResT_calEDID_by_DTD(const uint8_t *edid_template, uint8_t *out,
                                     DetailedTiming timing);
/* The timing the EDID builders choose for a mode. 0, or 1 for a null record
 * or a mode no table or CVT rule gives a timing for. */
VEXA_API int32_t ResT_calDTD_by_model(DetailedTiming *timing, uint32_t hactive, uint32_t vactive,
                                      float refresh);

/* ---- Saved display parameters ---- */

/* Length of a display-information block of the baseparameter partition. */
#define DISP_INFO_SIZE 36936
/* Most entries bi_resolution_get_parameters_list() writes. */
#define BI_RESOLUTION_LIST_MAX 16

/* The first accessible baseparameter partition path, or null. */
VEXA_API const char *getBaseparameterFile(void);
/* The product id of bi_product, or -1 when it is missing or 0. */
VEXA_API int32_t getProductModel(void);
VEXA_API int32_t getProductModel_timming(void);
/* Vendor-storage items through "/dev/vendor_storage" (at most 64 bytes).
 * 0, or -1 on failure. */
VEXA_API int32_t vexaSetVendorStorage(uint16_t item, const void *data, uint16_t length);
VEXA_API int32_t vexaGetVendorStorage(uint16_t item, uint16_t length, void *out);
/* Checks magic and CRC, then writes item 45 and the HDMI display block.
 * 0, or -1 for a bad record (nothing written). */
VEXA_API int32_t saveResolutionToEmmc(const ResolutionRecord *record);
/* Checks magic and CRC, then writes item 47. 0 or -1. */
VEXA_API int32_t saveDisResolutionToEmmc(const DisResolutionRecord *record);
/* Reads the HDMI display-information block into block[DISP_INFO_SIZE]. */
VEXA_API void getDispInfo(uint8_t *block);
/* Fills words 1-10 of record from the HDMI display block; magic and CRC 0. */
VEXA_API void getSaveParameterInfo(ResolutionRecord *record);
/* 1 when the product keeps saved resolutions but has none, else 0. */
VEXA_API int32_t getresolutiontype(void);
/* Clears item 45 on the products that keep saved resolutions (38444, 38448,
 * 38449) so the output follows the sink again: 0, -1 when the write fails,
 * 0 without touching anything on other products. */
VEXA_API int32_t formatVendor45(void);
/* On the products that keep saved resolutions: 1 when item 45 holds a valid
 * record (a fixed mode), 0 when not (automatic mode). Other products: 0. */
VEXA_API int32_t getDisplayMode(void);
/* Rows {index, offset} for indexes 0 to 10: offset 512 x (index + 1). */
VEXA_API extern const uint32_t offset_addr_table[11][2];
/* The offset_addr_table offset of an index; index 11, which has no row, gives
 * 6144 by the same rule. 0, or -1 for an index of 12 or more. */
VEXA_API int32_t get_offset_by_index(uint32_t index, uint32_t *offset);

/* ---- Resolution API ---- */

/* Checks width x height against the product's border row, computes the
 * timing (a preset, or the product's calculators) and saves it when save is
 * not 0. Returns the status, also stored in result (which must not be null).
 * Wide screens (4097 to 16368) of the split-capable products go to
 * calculate_ultra_resolution_parameters(). */
VEXA_API int32_t bi_resolution_calculate_parameters(uint32_t width, uint32_t height, int32_t save,
                                                    st_bi_sffe_resolution *result);
/* The same at fps Hz (presets must match the fps too); -1 for a product
 * without a border row. */
VEXA_API int32_t bi_resolution_calculate_parameters_fps(uint32_t width, uint32_t height,
                                                        uint32_t fps, int32_t save,
                                                        st_bi_sffe_resolution *result);
/* Ultra-wide screens. Enabled by the property
 * "persist.vexa.ultra_screen.enable" ("1" or "true"; otherwise status -2).
 * The width is split by calculateDiscountResolution() into factor parts of
 * part_width x height, the part is checked against the product's border row
 * as one stacked screen (part_width x factor*height, area limit waived), its
 * timing is computed with the product's calculators, and the result reports
 * {width, height, refresh, status}. When save is not 0 the part timing is
 * saved as item 45 (saveResolutionToEmmc) and item 47 holds {magic, width,
 * height, part width, factor, stacked height, clock, htotal, vtotal,
 * refresh, 0, 0, CRC}. Statuses as the other calls; -1 when splitting fails. */
VEXA_API int32_t calculate_ultra_resolution_parameters(uint32_t width, uint32_t height,
                                                       int32_t save,
                                                       st_bi_sffe_resolution *result,
                                                       int32_t product_id);
/* The saved mode from the display block: {width, height, refresh, 1}. 0 or -1. */
VEXA_API int32_t bi_resolution_get_parameters(st_bi_sffe_resolution *result);
/* The saved mode (when one is saved) and every preset that differs from it,
 * into list[BI_RESOLUTION_LIST_MAX]; returns the number of entries. */
VEXA_API int32_t bi_resolution_get_parameters_list(st_bi_sffe_resolution *list);
/* A 256-byte EDID whose preferred timing is the mode (default_edid itself
 * for sizes of 4096 and more). 0 or -1. */
VEXA_API int32_t bi_resolution_get_edid_by_model(uint32_t width, uint32_t height, float refresh,
                                                 uint8_t *edid);
/* The preferred mode of an EDID: {width, height, fps, 1}. 0 or -1. */
VEXA_API int32_t bi_resolution_get_prefferred_timing_by_edid(const uint8_t *edid,
                                                             st_bi_sffe_resolution *mode);
VEXA_API int32_t bi_resolution_get_display_type(void);
VEXA_API int32_t bi_resolution_set_auto_mode(void);
VEXA_API int32_t bi_resolution_get_display_mode(void);

/* ---- Timing from the product resolution JSON ---- */

/* Most products parse_config() keeps. */
#define PRODUCT_RESOLUTION_CONFIG_MAX 50

/* Reads up to 50 products of the JSON file. The count, or -1 not opened,
 * -2 no memory, -3 syntax error, -4 "products" not an array. */
VEXA_API int32_t parse_config(const char *path, ProductResolutionConfig *entries);
VEXA_API void print_config(const ProductResolutionConfig *entries, int32_t count);
VEXA_API void dump_config(const ProductResolutionConfig *entries, int32_t count);
/* The timing of width x height at fps (1-60, else 60) within the limits of
 * the running product's JSON entry. 0, or the negative status. */
VEXA_API int32_t bi_timming_calculate_parameters(uint32_t width, uint32_t height, uint32_t fps,
                                                 int32_t save, st_bi_sffe_resolution *result);
VEXA_API int32_t bi_timming_calculate_json(uint32_t width, uint32_t height, uint32_t fps,
                                           int32_t save, st_bi_sffe_resolution *result,
                                           ProductResolutionConfig entry);
/* The saved display block's mode, refresh word / 1000 rounded. 0. */
VEXA_API int32_t bi_timming_get_parameters(st_bi_sffe_resolution *mode);

/* ---- Display status ---- */

VEXA_API int32_t bi_resolution_screen_mode_set_state(int32_t value);
VEXA_API int32_t bi_resolution_screen_mode_get_state(void);
VEXA_API int32_t bi_set_pq_state(int32_t enable);
/* 1 on, 0 off, negative on failure. */
VEXA_API int32_t bi_get_pq_state(void);
/* State number of HDMI input or output 1-4, or -1. */
VEXA_API int32_t bi_display_get_hdmi_in_state(int32_t index);
VEXA_API int32_t bi_display_get_hdmi_out_state(int32_t index);
VEXA_API int32_t bi_display_set_hdmi_splice_enable(int32_t enable);
VEXA_API int32_t bi_display_set_hdmi_splice_trigger_once(void);
VEXA_API int32_t bi_display_is_hdmi_splice_changing_hpd(void);
VEXA_API int32_t bi_display_is_hdmi_splice_edid_ready(void);
VEXA_API int32_t bi_display_get_hdmi_out_device_number(void);
VEXA_API int32_t bi_display_get_hdmi_out_connect_status(void);
/* The number held by a property, or -1. */
VEXA_API int32_t get_hdmi_link_prop_info(const char *key);

VEXA_EXTERN_C_END

#endif
