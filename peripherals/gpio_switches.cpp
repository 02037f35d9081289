// GPIO-driven lamps, relays, power lines and switches.
//
// Each operation looks its line up in the product record, judges the id and
// calls the HAL. The families differ only in the entry, the id test, the tag
// and the messages, so each is one row of a descriptor table.
//
// Clients match the log texts, so they are kept as the board has always
// printed them, "invaild" included.
#include <fcntl.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "platform/hal.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/unique.h"
#include "vexasdk/peripherals.h"
#include "vexasdk/product_config.h"

namespace vexa::gpio {
namespace {

bool id_positive(int32_t id) { return id > 0; }
bool id_in_1_to_998(int32_t id) { return static_cast<uint32_t>(id - 1) < 998u; }
bool id_below_1000_not_0(int32_t id) { return id < 1000 && id != 0; }

constexpr const char *kLed = "vexa_system_bi_led";
constexpr const char *kMisc = "vexa_system_bi_misc";
constexpr const char *kOps = "vexa_system_bi_ops_usb_port";
constexpr const char *kFan = "vexa_system_bi_fan";

// Which arguments an error text takes.
enum class ErrArgs { FuncId, Func, None };

// What a member logs once its id has passed the test.
enum class Note {
    None,
    StdoutIdState, // printf "%s:gpio_id=%d,state=%d\n"
    FuncId,        // (function, id)
    FuncIdValue,   // (function, id, value)
};

struct Log {
    Note note = Note::None;
    int prio = ANDROID_LOG_DEBUG;
    const char *fmt = nullptr;
};

struct Switch {
    size_t entry; // offset of the GPIO entry in the record
    bool (*valid)(int32_t);
    const char *tag;
    const char *set_error;
    const char *get_error;
    ErrArgs err_args;
    Log on_set;
    Log on_get;
    bool enter_log = false; // "<%s>: enter..." before the id test
};

#define ENTRY(name) offsetof(bi_product_config_t, name)
#define STEP1(name) "%s:bi_product is NULL or invaild " name ".gpio_id is %d, need to check ini file.\n"
#define ANGLED(name) "<%s>: bi_product is NULL or invaild " name ".gpio_id is %d, need to check ini file.\n"

const Switch kSysLed{ENTRY(led_sys), id_positive, kLed, STEP1("led_sys"), STEP1("led_sys"), ErrArgs::FuncId,
                     {Note::StdoutIdState}, {}};
const Switch kNetLed{ENTRY(led_network), id_positive, kLed, STEP1("led_network"), STEP1("led_network"),
                     ErrArgs::FuncId, {}, {}};
const Switch k4gLed{ENTRY(led_4gwork), id_positive, kLed, STEP1("led_4g"), STEP1("led_4g"), ErrArgs::FuncId, {}, {}};
const Switch kPositionLed{ENTRY(led_position), id_positive, kLed, STEP1("led_position"), STEP1("led_position"),
                          ErrArgs::FuncId, {}, {}};
const Switch kSwitchLed{ENTRY(led_switch), id_in_1_to_998, kLed, ANGLED("led_switch"), ANGLED("led_switch"),
                        ErrArgs::FuncId, {}, {}};
const Switch kRunningLed{ENTRY(led_running), id_positive, kLed, ANGLED("led_running"), ANGLED("led_running"),
                         ErrArgs::FuncId, {Note::FuncId, ANDROID_LOG_ERROR, "%s:%d\n"}, {}};
const Switch kCloudLed{ENTRY(led_cloud), id_positive, kLed, STEP1("led_cloud"), STEP1("led_cloud"),
                       ErrArgs::FuncId, {}, {}};
const Switch kFactoryTools{ENTRY(factory_tools), id_positive, kMisc, STEP1("factory_tools"), STEP1("factory_tools"),
                           ErrArgs::FuncId,
                           {Note::FuncIdValue, ANDROID_LOG_INFO, "%s: factory_tools_id = %d, enable = %d\n"},
                           {Note::FuncId, ANDROID_LOG_INFO, "%s: factory_tools_id = %d\n"}};
const Switch kPcCtrl{ENTRY(pc_ctrl), id_positive, kMisc, STEP1("pc_ctrl"), STEP1("pc_ctrl"), ErrArgs::FuncId,
                     {Note::FuncIdValue, ANDROID_LOG_INFO, "%s: pc_ctrl_id = %d, enable = %d\n"},
                     {Note::FuncId, ANDROID_LOG_INFO, "%s: pc_ctrl_id = %d\n"}};
// The sub-card lamp reports its failures with the pc_ctrl text.
const Switch kSubCardLed{ENTRY(sub_card_led), id_positive, kMisc, STEP1("pc_ctrl"), STEP1("pc_ctrl"),
                         ErrArgs::FuncId,
                         {Note::FuncIdValue, ANDROID_LOG_INFO, "%s: sub_card_led_id = %d, enable = %d\n"},
                         {Note::FuncId, ANDROID_LOG_INFO, "%s: sub_card_led_id = %d\n"}};
// The interior relay and the 4G lines accept a missing key (-1): the id is
// then handed to the HAL as it is.
const Switch kRelay{ENTRY(interior_relay), id_below_1000_not_0, kMisc, "<%s>: relay_id error!!!\n",
                    "<%s>: relay_id error!!!\n", ErrArgs::Func, {}, {}, true};
const Switch k4gModule{ENTRY(reset_4g), id_below_1000_not_0, kMisc, "<%s>: 4g_id error!!!\n",
                       "<%s>: relay_id error!!!\n", ErrArgs::Func, {}, {}, true};
const Switch k4gPower{ENTRY(power_4g), id_below_1000_not_0, kMisc, "<%s>: 4g_id error!!!\n",
                      "<%s>: relay_id error!!!\n", ErrArgs::Func, {}, {}, true};
const Switch kHeadphone{ENTRY(headphone_power), id_positive, kMisc, STEP1("headphone_power"),
                        STEP1("headphone_power"), ErrArgs::FuncId, {}, {}};
const Switch kLora{ENTRY(lora_check), id_in_1_to_998, kMisc, ANGLED("lora_check"), ANGLED("lora_check"),
                   ErrArgs::FuncId, {}, {}};
const Switch kSimpleFan{ENTRY(simple_fan_1), id_in_1_to_998, kFan, ANGLED("simple_fan_1"), ANGLED("simple_fan_1"),
                        ErrArgs::FuncId, {Note::FuncIdValue, ANDROID_LOG_DEBUG, "<%s>: gpio_id=%d, status=%d\n"},
                        {}};
const Switch kOpsUsb{ENTRY(ops_usb), id_positive, kOps, "ops_usb_id error!!!\n", "ops_usb_id error!!!\n",
                     ErrArgs::None, {Note::FuncId, ANDROID_LOG_DEBUG, "%s:ops_usb_id = %d\n"},
                     {Note::FuncId, ANDROID_LOG_DEBUG, "%s:ops_usb_id = %d\n"}};
const Switch kOpsSwitch{ENTRY(ops_switch), id_positive, kOps, "ops_switch_id error!!!\n",
                        "ops_switch_id error!!!\n", ErrArgs::None,
                        {Note::FuncId, ANDROID_LOG_DEBUG, "%s:ops_switch_id = %d\n"},
                        {Note::FuncId, ANDROID_LOG_DEBUG, "%s:ops_switch_id = %d\n"}};
const Switch kOpsOn{ENTRY(ops_on), id_positive, kOps, STEP1("ops_on"), STEP1("ops_on"), ErrArgs::FuncId, {}, {}};
const Switch kOpsControl{ENTRY(ops_control), id_positive, kOps, STEP1("ops_control"), STEP1("ops_control"),
                         ErrArgs::FuncId, {}, {}};
const Switch kOpsDetect{ENTRY(ops_detect), id_positive, kOps, STEP1("ops_detect"), STEP1("ops_detect"),
                        ErrArgs::FuncId, {}, {}};

int32_t entry_id(size_t entry)
{
    bi_gpio_entry_t e;
    std::memcpy(&e, reinterpret_cast<const unsigned char *>(bi_product) + entry, sizeof e);
    return e.gpio_id;
}

void log_error(const Switch &sw, const char *fmt, const char *func, int32_t id)
{
    switch (sw.err_args) {
    case ErrArgs::FuncId: VEXA_LOGE(sw.tag, fmt, func, id); break;
    case ErrArgs::Func: VEXA_LOGE(sw.tag, fmt, func); break;
    case ErrArgs::None: VEXA_LOGE(sw.tag, "%s", fmt); break;
    }
}

void log_note(const Switch &sw, const Log &log, const char *func, int32_t id, int value)
{
    switch (log.note) {
    case Note::None: break;
    case Note::StdoutIdState: std::printf("%s:gpio_id=%d,state=%d\n", func, id, value); break;
    case Note::FuncId: __android_log_print(log.prio, sw.tag, log.fmt, func, id); break;
    case Note::FuncIdValue: __android_log_print(log.prio, sw.tag, log.fmt, func, id, value); break;
    }
}

// The id of a member's line, or nullopt after its error line. With no record
// the id printed is -1, as for a missing key.
bool checked_id(const Switch &sw, const char *fmt, const char *func, int32_t *id)
{
    *id = bi_product ? entry_id(sw.entry) : -1;
    if (bi_product == nullptr || !sw.valid(*id)) {
        log_error(sw, fmt, func, *id);
        return false;
    }
    return true;
}

int set(const Switch &sw, int value, const char *func)
{
    if (sw.enter_log)
        VEXA_LOGD(sw.tag, "<%s>: enter, state = %d\n", func, value);
    int32_t id;
    if (!checked_id(sw, sw.set_error, func, &id))
        return -1;
    log_note(sw, sw.on_set, func, id, value);
    return hal_gpio_set_value(id, value);
}

int get(const Switch &sw, const char *func)
{
    if (sw.enter_log)
        VEXA_LOGD(sw.tag, "<%s>: enter\n", func);
    int32_t id;
    if (!checked_id(sw, sw.get_error, func, &id))
        return -1;
    log_note(sw, sw.on_get, func, id, 0);
    return hal_gpio_get_value(id);
}

// The three lines of the tri-colour lamp, or false after the error line.
bool tri_ids(const char *func, int32_t *r, int32_t *g, int32_t *b)
{
    *r = bi_product ? bi_product->led_tri_red.gpio_id : -1;
    *g = bi_product ? bi_product->led_tri_green.gpio_id : -1;
    *b = bi_product ? bi_product->led_tri_blue.gpio_id : -1;
    if (bi_product == nullptr || *r < 1 || *g < 1 || *b <= 0) {
        VEXA_LOGE(kLed,
                  "%s:bi_product is NULL or invaild led_tri_red.gpio_id is %d, led_tri_green.gpio_id is %d, "
                  "led_tri_blue.gpio_id is %dneed to check ini file.\n",
                  func, *r, *g, *b);
        return false;
    }
    return true;
}

int triled_set(int red, int green, int blue, const char *func)
{
    int32_t r, g, b;
    if (!tri_ids(func, &r, &g, &b))
        return -1;
    // The red line is active low.
    int ret = hal_gpio_set_value(r, !red);
    if (ret < 0) {
        VEXA_LOGE(kLed, "<%s>: gpio_red_setvalue failed, ret = %d\n", func, ret);
        return -1;
    }
    ret = hal_gpio_set_value(g, green);
    if (ret < 0) {
        VEXA_LOGE(kLed, "<%s>: gpio_green_setvalue failed, ret = %d\n", func, ret);
        return -1;
    }
    ret = hal_gpio_set_value(b, blue);
    if (ret < 0) {
        VEXA_LOGE(kLed, "<%s>: gpio_blue_setvalue failed, ret = %d\n", func, ret);
        return -1;
    }
    return ret;
}

int triled_get(const char *func)
{
    int32_t r, g, b;
    if (!tri_ids(func, &r, &g, &b))
        return -1;
    struct {
        int32_t id;
        const char *name;
        int value;
    } lines[] = {{r, "red", 0}, {g, "green", 0}, {b, "blue", 0}};
    for (auto &line : lines) {
        line.value = hal_gpio_get_value(line.id);
        // Anything but 0 or 1 (negative results included) is a failed read.
        if (static_cast<unsigned>(line.value) >= 2)
            VEXA_LOGE(kLed, "<%s>: gpio_%s_getvalue failed, ret = %d\n", func, line.name, line.value);
        VEXA_LOGD(kLed, "<%s>: gpio_%s_getvalue = %d\n", func, line.name, line.value);
    }
    return lines[0].value == 1 && lines[1].value == 1 && lines[2].value == 0 ? 1 : 0;
}

const Switch *peripheral_relay(int dev_num)
{
    static const Switch relays[] = {
        {ENTRY(peripheral_relay_1), id_positive, kMisc,
         "%s: bi_product is NULL or invaild peripheral_relay_1.gpio_id, need to check ini file.\n",
         "%s: bi_product is NULL or invaild peripheral_relay_1.gpio_id, need to check ini file.\n", ErrArgs::Func,
         {Note::FuncIdValue, ANDROID_LOG_INFO, "%s: relay_id = %d, enable = %d\n"},
         {Note::FuncId, ANDROID_LOG_INFO, "%s: relay_id = %d\n"}},
        {ENTRY(peripheral_relay_2), id_positive, kMisc,
         "%s: bi_product is NULL or invaild peripheral_relay_2.gpio_id, need to check ini file.\n",
         "%s: bi_product is NULL or invaild peripheral_relay_2.gpio_id, need to check ini file.\n", ErrArgs::Func,
         {Note::FuncIdValue, ANDROID_LOG_INFO, "%s: relay_id = %d, enable = %d\n"},
         {Note::FuncId, ANDROID_LOG_INFO, "%s: relay_id = %d\n"}},
        {ENTRY(peripheral_relay_3), id_positive, kMisc,
         "%s: bi_product is NULL or invaild peripheral_relay_3.gpio_id, need to check ini file.\n",
         "%s: bi_product is NULL or invaild peripheral_relay_3.gpio_id, need to check ini file.\n", ErrArgs::Func,
         {Note::FuncIdValue, ANDROID_LOG_INFO, "%s: relay_id = %d, enable = %d\n"},
         {Note::FuncId, ANDROID_LOG_INFO, "%s: relay_id = %d\n"}},
        {ENTRY(peripheral_relay_4), id_positive, kMisc,
         "%s: bi_product is NULL or invaild peripheral_relay_4.gpio_id, need to check ini file.\n",
         "%s: bi_product is NULL or invaild peripheral_relay_4.gpio_id, need to check ini file.\n", ErrArgs::Func,
         {Note::FuncIdValue, ANDROID_LOG_INFO, "%s: relay_id = %d, enable = %d\n"},
         {Note::FuncId, ANDROID_LOG_INFO, "%s: relay_id = %d\n"}},
    };
    return dev_num >= 1 && dev_num <= 4 ? &relays[dev_num - 1] : nullptr;
}

int peripheral_relay_set(int dev_num, int enable, const char *func)
{
    if (const Switch *sw = peripheral_relay(dev_num))
        return set(*sw, enable, func);
    // An unknown relay still reaches the HAL, with line -1.
    VEXA_LOGE(kMisc, "%s: not support dev_num = %d, dev_num must be 1-4\n", func, dev_num);
    VEXA_LOGI(kMisc, "%s: relay_id = %d, enable = %d\n", func, -1, enable);
    return hal_gpio_set_value(-1, enable);
}

int peripheral_relay_get(int dev_num, const char *func)
{
    if (const Switch *sw = peripheral_relay(dev_num))
        return get(*sw, func);
    VEXA_LOGE(kMisc, "%s: not support dev_num = %d, dev_num must be 1-4\n", func, dev_num);
    VEXA_LOGI(kMisc, "%s: relay_id = %d\n", func, -1);
    return hal_gpio_get_value(-1);
}

// The selector pair does not test the record; with none, both ids read as -1
// and the pair is refused like a missing key.
bool usb_ids(const char *func, int32_t *sel0, int32_t *sel1)
{
    VEXA_LOGD(kOps, "%s:enter\n", func);
    *sel0 = bi_product ? bi_product->usb_select_0.gpio_id : -1;
    *sel1 = bi_product ? bi_product->usb_select_1.gpio_id : -1;
    if (*sel0 < 1 || *sel1 <= 0) {
        VEXA_LOGE(kOps, "%s: invalid usb_select_gpio_0(%u) or usb_select_gpio_1(%u) <= 0\n", func,
                  static_cast<unsigned>(*sel0), static_cast<unsigned>(*sel1));
        return false;
    }
    return true;
}

int usb_switch_set(uint32_t en_usb_id, const char *func)
{
    int32_t sel0, sel1;
    if (!usb_ids(func, &sel0, &sel1))
        return -1;
    if (en_usb_id > 3) {
        VEXA_LOGD(kOps, "%s: not support en_usb_id = %u, should be 0 to 3\n", func, en_usb_id);
        return 0;
    }
    hal_gpio_set_value(sel0, en_usb_id & 1);
    hal_gpio_set_value(sel1, (en_usb_id >> 1) & 1);
    return 0;
}

int usb_switch_get(const char *func)
{
    int32_t sel0, sel1;
    if (!usb_ids(func, &sel0, &sel1))
        return -1;
    const unsigned v0 = static_cast<uint8_t>(hal_gpio_get_value(sel0));
    const unsigned v1 = static_cast<uint8_t>(hal_gpio_get_value(sel1));
    VEXA_LOGD(kOps, "%s:usb_sel_0_val = %u, usb_sel_1_val = %u\n", func, v0, v1);
    if (v0 > 1 || v1 > 1) {
        VEXA_LOGE(kOps, "%s: invalid usb_sel_0_val = %u, usb_sel_1_val = %u\n", func, v0, v1);
        return -1;
    }
    return static_cast<int>(v0 | (v1 << 1));
}

int external_relay_number(int32_t *out, const char *func)
{
    const int32_t num = bi_product ? bi_product->external_relay_num : -1;
    if (bi_product == nullptr || num <= -1) {
        VEXA_LOGE(kMisc, "%s:bi_product is NULL or invaild relay_num is %d, need to check ini file.\n", func, num);
        return -1;
    }
    VEXA_LOGI(kMisc, "%s:relay_num is %d.\n", func, num);
    *out = num;
    return 0;
}

} // namespace
} // namespace vexa::gpio

// ---- exported family ----

using namespace vexa::gpio;

extern "C" {

#define SWITCH_PAIR(set_name, get_name, desc)                                                     \
    VEXA_API int set_name(int state) { return set(desc, state, __func__); }                       \
    VEXA_API int get_name(void) { return get(desc, __func__); }

SWITCH_PAIR(bi_sysled_set_state, bi_sysled_get_state, kSysLed)
SWITCH_PAIR(bi_netled_set_state, bi_netled_get_state, kNetLed)
SWITCH_PAIR(bi_4gled_set_state, bi_4gled_get_state, k4gLed)
SWITCH_PAIR(bi_position_led_set_state, bi_position_led_get_state, kPositionLed)
SWITCH_PAIR(bi_switchled_set_state, bi_switchled_get_state, kSwitchLed)
SWITCH_PAIR(bi_runningled_set_state, bi_runningled_get_state, kRunningLed)
SWITCH_PAIR(bi_cloudled_set_state, bi_cloudled_get_state, kCloudLed)
SWITCH_PAIR(bi_factory_tools_enable, bi_factory_tools_get_status, kFactoryTools)
SWITCH_PAIR(bi_pc_ctrl_enable, bi_pc_ctrl_get_status, kPcCtrl)
SWITCH_PAIR(bi_usb_sub_card_led_enable, bi_usb_sub_card_led_get_status, kSubCardLed)
SWITCH_PAIR(bi_relay_set_state, bi_relay_get_state, kRelay)
SWITCH_PAIR(bi_4g_module_set_state, bi_4g_module_get_state, k4gModule)
SWITCH_PAIR(bi_4g_power_set_state, bi_4g_power_get_state, k4gPower)
SWITCH_PAIR(bi_headphone_power_set_state, bi_headphone_power_get_state, kHeadphone)
SWITCH_PAIR(bi_fan_simple_set_status, bi_fan_simple_get_status, kSimpleFan)
SWITCH_PAIR(bi_ops_set_usb_port, bi_ops_get_usb_port, kOpsUsb)
SWITCH_PAIR(bi_ops_switch_control, bi_ops_get_switch_state, kOpsSwitch)
SWITCH_PAIR(bi_ops_on_set_state, bi_ops_on_get_state, kOpsOn)
SWITCH_PAIR(bi_ops_control_set_state, bi_ops_control_get_state, kOpsControl)

VEXA_API int bi_lora_get_state(void) { return get(kLora, __func__); }
VEXA_API int bi_ops_detect_get_state(void) { return get(kOpsDetect, __func__); }

VEXA_API int bi_triled_set_state(int red, int green, int blue) { return triled_set(red, green, blue, __func__); }
VEXA_API int bi_triled_get_state(void) { return triled_get(__func__); }

VEXA_API int bi_peripheral_relay_enable(int dev_num, int enable)
{
    return peripheral_relay_set(dev_num, enable, __func__);
}
VEXA_API int bi_peripheral_relay_get_status(int dev_num) { return peripheral_relay_get(dev_num, __func__); }

VEXA_API int bi_usb_set_switch_enable(uint32_t en_usb_id) { return usb_switch_set(en_usb_id, __func__); }
VEXA_API int bi_usb_get_switch_enable(void) { return usb_switch_get(__func__); }

VEXA_API int bi_get_external_relay_number(int32_t *out) { return external_relay_number(out, __func__); }

VEXA_API int bi_power_low_power_mode(void)
{
    VEXA_LOGD("vexa_system_bi_power", "%s: enter\n", __func__);
    return 0;
}

VEXA_API int bi_power_normal_mode(void)
{
    VEXA_LOGD("vexa_system_bi_power", "%s: enter\n", __func__);
    return 0;
}

VEXA_API void bi_set_bit(uint64_t *word, uint32_t n)
{
    if (word != nullptr && n < 64)
        *word |= UINT64_C(1) << n;
}

VEXA_API void bi_clear_bit(uint64_t *word, uint32_t n)
{
    if (word != nullptr && n < 64)
        *word &= ~(UINT64_C(1) << n);
}

VEXA_API int bi_get_bit(uint64_t value, uint32_t n) { return n < 64 ? static_cast<int>((value >> n) & 1) : 0; }

VEXA_API int bi_set_qrxx_volume_status(int status)
{
    static const char kMute[] = "/sys/class/rk817_codec/rk817_codec/mute";
    if (status != 0 && status != 1) {
        VEXA_LOGE(kMisc, "Invalid status value: %d (must be 0 or 1)\n", status);
        return -1;
    }
    const vexa::UniqueFd fd(vexa::os::open(kMute, O_RDWR));
    if (!fd) {
        VEXA_LOGE(kMisc, "<%s>, open %s \n", __func__, kMute);
        return -1;
    }
    // Status 1 is sound on: the mute file takes the inverse.
    const char c = status == 1 ? '0' : '1';
    const ssize_t ret = vexa::os::write(fd.get(), &c, 1);
    if (ret < 0) {
        VEXA_LOGE(kMisc, "<%s>, write %s return %d\n", __func__, kMute, static_cast<int>(ret));
        return -1;
    }
    return 0;
}

VEXA_API int64_t gpio_config(int gpio_id, int value) { return hal_gpio_config(gpio_id, 0, value, 0, 0, 0); }

} // extern "C"
