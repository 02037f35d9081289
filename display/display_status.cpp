// Display status: the screen-mode file, the picture-quality switches, the
// HDMI input and output state files and the HDMI splice properties.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "display/display_internal.h"
#include "platform/android.h"
#include "platform/log.h"
#include "platform/os.h"
#include "vexasdk/product_config.h"

namespace {
const char *const kTag = vexa::display::kResolutionTag;
using vexa::display::UniqueFd;

const char *const kPqDebug = "/sys/class/amvecm/debug";
const char *const kPqDetect = "/sys/module/decoder_common/parameters/debug_vdetect";
const char *const kPqAipq = "/sys/module/aml_media/parameters/uvm_open_aipq";

bool path_set(const char *path)
{
    return path != nullptr && path[0] != '\0' && strstr(path, "UNDEF") == nullptr;
}

bool exists(const char *path)
{
    return vexa::os::access(path, F_OK) == 0;
}

// The screen-mode path, or null after the configuration error line.
const char *screen_mode_path(const char *func)
{
    if (bi_product == nullptr || !path_set(bi_product->screen_mode)) {
        VEXA_LOGE(kTag, "%s:bi_product is NULL or path is not set, need to check ini file.\n",
                  func);
        return nullptr;
    }
    return bi_product->screen_mode;
}

int32_t hdmi_state(const char *func, int32_t index, bool output)
{
    VEXA_LOGD(kTag, "%s: index = %d\n", func, int(index));
    if (index < 1 || index > 4) {
        VEXA_LOGD(kTag, "%s: invalid index = %d, max hdmi index is 4\n", func, int(index));
        return -1;
    }
    const char *path = nullptr;
    if (bi_product != nullptr)
        path = output ? bi_product->hdmi_out_path[index - 1] : bi_product->hdmi_in_path[index - 1];
    if (!path_set(path)) {
        VEXA_LOGE(kTag, "%s:bi_product is NULL or hdmi%d path is not set, need to check ini file.\n",
                  func, int(index));
        return -1;
    }
    if (index < 4)
        VEXA_LOGD(kTag, "%s:usb_path:%s\n", func, path);
    else
        VEXA_LOGD(kTag, "%s:device:%s\n", func, path);
    if (!exists(path)) {
        VEXA_LOGE(kTag, "%s: %s not exist\n", func, path);
        return -1;
    }
    VEXA_LOGD(kTag, "%s: %s exist\n", func, path);
    UniqueFd fd(vexa::os::open(path, O_RDWR));
    if (!fd) {
        VEXA_LOGE(kTag, "open path %s failed.\n", path);
        return -1;
    }
    char text[2] = {};
    if (vexa::os::read(fd.get(), text, 1) < 0) {
        VEXA_LOGE(kTag, "read path %s failed.\n", path);
        return -1;
    }
    const int state = atoi(text);
    VEXA_LOGD(kTag, "%s: read state = %d OK\n", func, state);
    return state;
}

int32_t read_number_property(const char *key)
{
    char value[PROPERTY_VALUE_MAX] = {};
    if (property_get(key, value, "0") < 0) {
        VEXA_LOGE(kTag, "%s property_get key %s", "get_hdmi_link_prop_info", key);
        return -1;
    }
    return atoi(value);
}

int32_t write_property(const char *func, const char *key, const char *value)
{
    VEXA_LOGI(kTag, "%s update key %s to %s", func, key, value);
    return property_set(key, value);
}
// The screen-mode file, opened read-write, or an empty descriptor after the
// failure's log line.
UniqueFd open_screen_mode(const char *func, const char **path)
{
    *path = screen_mode_path(func);
    if (*path == nullptr)
        return UniqueFd(-1);
    VEXA_LOGD(kTag, "%s:device:%s\n", func, *path);
    if (!exists(*path)) {
        VEXA_LOGE(kTag, "File does not exist.\n");
        return UniqueFd(-1);
    }
    UniqueFd fd(vexa::os::open(*path, O_RDWR));
    if (!fd)
        VEXA_LOGE(kTag, "%s:open file failed\n", func);
    return fd;
}
} // namespace

extern "C" {

VEXA_API int32_t bi_resolution_screen_mode_set_state(int32_t value)
{
    const char *path = nullptr;
    UniqueFd fd = open_screen_mode(__func__, &path);
    if (!fd)
        return -1;
    char text[20] = {};
    snprintf(text, sizeof(text), "%d", int(value));
    VEXA_LOGD(kTag, "str:%s, len:%d, sizeof:%d\n", text, int(strlen(text)), int(sizeof(text)));
    const ssize_t written = vexa::os::write(fd.get(), text, strlen(text));
    if (written < 0) {
        VEXA_LOGE(kTag, "%s:write file failed\n", __func__);
        return int32_t(written);
    }
    VEXA_LOGI(kTag, "%s: write path %s OK\n", __func__, path);
    return 0;
}

VEXA_API int32_t bi_resolution_screen_mode_get_state(void)
{
    const char *path = nullptr;
    UniqueFd fd = open_screen_mode(__func__, &path);
    if (!fd)
        return -1;
    char text[21] = {};
    const ssize_t got = vexa::os::read(fd.get(), text, 20);
    if (got < 0) {
        // The write message serves the read failure too; clients match it.
        VEXA_LOGE(kTag, "%s:write file failed\n", __func__);
        return int32_t(got);
    }
    VEXA_LOGD(kTag, "%s:get %s value is %s\n", __func__, path, text);
    return 0;
}

VEXA_API int32_t bi_set_pq_state(int32_t enable)
{
    const char *value = enable ? "1" : "0";
    const char *text = enable ? "vpp_pq enable" : "vpp_pq disable";
    VEXA_LOGI(kTag, "%s %s %s\n", __func__, value, text);
    if (!exists(kPqDebug)) {
        VEXA_LOGE(kTag, "%s %s not exist.\n", __func__, kPqDebug);
        return -1;
    }
    if (!exists(kPqDetect) || !exists(kPqAipq))
        VEXA_LOGE(kTag, "%s %s or %s not exist.\n", __func__, kPqDetect, kPqAipq);

    struct Target {
        const char *path;
        const char *data;
        size_t len;
    };
    // The amvecm command goes with its terminating zero.
    const Target targets[] = {
        {kPqDebug, text, strlen(text) + 1},
        {kPqAipq, value, 1},
        {kPqDetect, value, 1},
    };
    UniqueFd fds[3] = {UniqueFd(vexa::os::open(kPqDebug, O_RDWR)),
                       UniqueFd(vexa::os::open(kPqAipq, O_RDWR)),
                       UniqueFd(vexa::os::open(kPqDetect, O_RDWR))};
    for (int i = 0; i < 3; ++i) {
        if (!fds[i])
            VEXA_LOGE(kTag, "%s %s open failed.\n", __func__, targets[i].path);
    }
    for (int i = 0; i < 3; ++i) {
        if (fds[i] && vexa::os::write(fds[i].get(), targets[i].data, targets[i].len) < 0)
            VEXA_LOGE(kTag, "%s %s write failed.\n", __func__, targets[i].path);
    }
    return 0;
}

VEXA_API int32_t bi_get_pq_state(void)
{
    if (!exists(kPqDetect) || !exists(kPqAipq)) {
        VEXA_LOGE(kTag, "%s %s or %s not exist.\n", __func__, kPqDetect, kPqAipq);
        return -1;
    }
    int states[2] = {};
    const char *paths[2] = {kPqDetect, kPqAipq};
    for (int i = 0; i < 2; ++i) {
        UniqueFd fd(vexa::os::open(paths[i], O_RDONLY));
        if (!fd) {
            VEXA_LOGE(kTag, "%s %s open failed.\n", __func__, paths[i]);
            return -1;
        }
        char text[9] = {};
        const ssize_t got = vexa::os::read(fd.get(), text, 8);
        if (got < 0) {
            VEXA_LOGE(kTag, "%s read %s error!\n", __func__, paths[i]);
            return int32_t(got);
        }
        states[i] = atoi(text);
    }
    VEXA_LOGI(kTag, "%s detect_state:%d aipq_state:%d\n", __func__, states[0], states[1]);
    return states[1] != 0 && states[0] > 0 ? 1 : 0;
}

VEXA_API int32_t bi_display_get_hdmi_in_state(int32_t index)
{
    return hdmi_state(__func__, index, false);
}

VEXA_API int32_t bi_display_get_hdmi_out_state(int32_t index)
{
    return hdmi_state(__func__, index, true);
}

VEXA_API int32_t bi_display_set_hdmi_splice_enable(int32_t enable)
{
    return write_property(__func__, "persist.hdmi.splice.enable", enable ? "true" : "false");
}

VEXA_API int32_t bi_display_set_hdmi_splice_trigger_once(void)
{
    // The key's spelling is the display service's.
    return write_property(__func__, "persist.hdmi.out.trigered", "true");
}

VEXA_API int32_t bi_display_is_hdmi_splice_changing_hpd(void)
{
    return read_number_property("sys.hdmi.in.changing.state");
}

VEXA_API int32_t bi_display_is_hdmi_splice_edid_ready(void)
{
    return read_number_property("sys.hdmi.out.edid.ready");
}

VEXA_API int32_t bi_display_get_hdmi_out_device_number(void)
{
    return read_number_property("sys.hdmi.out.device.number");
}

VEXA_API int32_t bi_display_get_hdmi_out_connect_status(void)
{
    return read_number_property("sys.hdmi.out.connect.state");
}

VEXA_API int32_t get_hdmi_link_prop_info(const char *key)
{
    if (key == nullptr)
        return -1;
    char value[PROPERTY_VALUE_MAX] = {};
    if (property_get(key, value, "0") < 0) {
        VEXA_LOGE(kTag, "%s property_get key %s", __func__, key);
        VEXA_LOGE(kTag, "%s error\n", __func__);
        return -1;
    }
    return atoi(value);
}

} // extern "C"
