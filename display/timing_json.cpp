// Timing from the product resolution JSON: the product's limits come from
// "/vendor/etc/vexa_product_resolution.json" and the timing from the
// floating-point CVT reduced-blanking path.
#include <cJSON.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "display/display_internal.h"
#include "platform/log.h"
#include "platform/os.h"

namespace {
using namespace vexa::display;
const char *const kTag = kResolutionTag;
const char *const kResolutionJson = "/vendor/etc/vexa_product_resolution.json";

struct JsonDelete {
    void operator()(cJSON *j) const { cJSON_Delete(j); }
};
struct FileClose {
    void operator()(FILE *f) const { fclose(f); }
};

// A member's number, 0 when absent or not a number.
uint32_t number_of(const cJSON *item, const char *name)
{
    const cJSON *m = cJSON_GetObjectItemCaseSensitive(item, name);
    if (!cJSON_IsNumber(m) || !(m->valuedouble > 0.0))
        return 0;
    return m->valuedouble >= 4294967295.0 ? 0xffffffffu : uint32_t(m->valuedouble);
}

void fill_entry(const cJSON *item, ProductResolutionConfig &e)
{
    const cJSON *type = cJSON_GetObjectItemCaseSensitive(item, "calculate_type");
    const char *text = cJSON_IsString(type) && type->valuestring ? type->valuestring : "cvtrb";
    snprintf(e.calculate_type, sizeof(e.calculate_type), "%s", text);
    e.modID = number_of(item, "modID");
    e.min_hdisplay = number_of(item, "min_hdisplay");
    e.max_hdisplay = number_of(item, "max_hdisplay");
    // The height members are spelled so in the file.
    e.min_vidsplay = number_of(item, "min_vidsplay");
    e.max_vidsplay = number_of(item, "max_vidsplay");
    e.bandwidth = number_of(item, "bandwidth");
    e.pclock = number_of(item, "pclock") * 1000u; // MHz in the file, kHz here
}
} // namespace

extern "C" {

VEXA_API int32_t parse_config(const char *path, ProductResolutionConfig *entries)
{
    if (path == nullptr || entries == nullptr)
        return -1;
    std::unique_ptr<FILE, FileClose> f(vexa::os::fopen(path, "rb"));
    if (!f) {
        perror("Failed to open file");
        return -1;
    }
    std::string text;
    try {
        char chunk[4096];
        size_t n;
        while ((n = fread(chunk, 1, sizeof(chunk), f.get())) > 0)
            text.append(chunk, n);
    } catch (const std::bad_alloc &) {
        perror("Memory allocation failed");
        return -2;
    }
    f.reset();

    std::unique_ptr<cJSON, JsonDelete> root(cJSON_Parse(text.c_str()));
    if (!root) {
        const char *where = cJSON_GetErrorPtr();
        fprintf(stderr, "JSON解析错误: %s\n", where ? where : "");
        return -3;
    }
    const cJSON *products = cJSON_GetObjectItemCaseSensitive(root.get(), "products");
    if (!cJSON_IsArray(products)) {
        fprintf(stderr, "无效的JSON格式: 'products' 不是数组\n");
        return -4;
    }
    int32_t count = 0;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, products)
    {
        if (count == PRODUCT_RESOLUTION_CONFIG_MAX) {
            fprintf(stderr, "警告: 已达到最大配置数量(%d)，忽略多余配置\n",
                    PRODUCT_RESOLUTION_CONFIG_MAX);
            break;
        }
        ProductResolutionConfig &e = entries[count];
        memset(&e, 0, sizeof(e));
        fill_entry(item, e);
        ++count;
        if (e.min_hdisplay > e.max_hdisplay)
            fprintf(stderr, "警告: 产品 #%d 水平分辨率范围无效\n", count);
        if (e.min_vidsplay > e.max_vidsplay)
            fprintf(stderr, "警告: 产品 #%d 垂直分辨率范围无效\n", count);
    }
    return count;
}

VEXA_API void print_config(const ProductResolutionConfig *entries, int32_t count)
{
    if (entries == nullptr)
        return;
    printf("成功加载 %d 个产品配置:\n", count);
    printf("%s\n", std::string(48, '=').c_str());
    for (int32_t i = 0; i < count; ++i) {
        const ProductResolutionConfig &e = entries[i];
        printf("产品配置 #%d:\n", i + 1);
        printf("  算法类型:     %-*s\n", 35, e.calculate_type);
        printf("  模块ID:       %u\n", e.modID);
        printf("  水平分辨率:   %u - %u 像素\n", e.min_hdisplay, e.max_hdisplay);
        printf("  垂直分辨率:   %u - %u 像素\n", e.min_vidsplay, e.max_vidsplay);
        printf("  最大带宽:     %u (h×v)\n", e.bandwidth);
        printf("  最大像素时钟: %u MHz\n", e.pclock);
        printf("%s\n", std::string(48, '-').c_str());
    }
}

VEXA_API void dump_config(const ProductResolutionConfig *entries, int32_t count)
{
    if (entries == nullptr)
        return;
    VEXA_LOGI(kTag, "Successfully loaded %d product configurations:\n", count);
    VEXA_LOGI(kTag, "%s\n", std::string(48, '=').c_str());
    for (int32_t i = 0; i < count; ++i) {
        const ProductResolutionConfig &e = entries[i];
        VEXA_LOGI(kTag, "Product Configuration #%d:\n", i + 1);
        VEXA_LOGI(kTag, "  Algorithm Type:     %-*s\n", 35, e.calculate_type);
        VEXA_LOGI(kTag, "  Module ID:          %u\n", e.modID);
        VEXA_LOGI(kTag, "  Horizontal Resolution:  %u - %u pixels\n", e.min_hdisplay,
                  e.max_hdisplay);
        VEXA_LOGI(kTag, "  Vertical Resolution:    %u - %u pixels\n", e.min_vidsplay,
                  e.max_vidsplay);
        VEXA_LOGI(kTag, "  Maximum Bandwidth:      %u (h×v)\n", e.bandwidth);
        // The stored kHz value under the MHz label: clients read it so.
        VEXA_LOGI(kTag, "  Maximum Pixel Clock:    %u MHz\n", e.pclock);
        VEXA_LOGI(kTag, "%s\n", std::string(48, '-').c_str());
    }
}

VEXA_API int32_t bi_timming_calculate_parameters(uint32_t width, uint32_t height, uint32_t fps,
                                                 int32_t save, st_bi_sffe_resolution *result)
{
    VEXA_LOGI(kTag, "%s width:%d height:%d fps:%d save:%d\n", __func__, int(width), int(height),
              int(fps), int(save));
    if (fps < 1 || fps > 60) {
        VEXA_LOGE(kTag, "fps is invalid, fps:%d, redefine to 60\n", int(fps));
        fps = 60;
    }
    const int32_t product = getProductModel_timming();
    ProductResolutionConfig configs[PRODUCT_RESOLUTION_CONFIG_MAX] = {};
    const int32_t count = parse_config(kResolutionJson, configs);
    if (count > 0)
        dump_config(configs, count);
    // Sizes of the table and of one entry on the device.
    VEXA_LOGD(kTag, "sizeof(configs): %d, sizeof(border): %d\n", 3200, 64);
    ProductResolutionConfig entry{};
    for (int32_t i = 0; i < count; ++i) {
        if (int32_t(configs[i].modID) == product)
            entry = configs[i];
    }
    VEXA_LOGI(kTag, "%s modID = %d\n", __func__, int(entry.modID));
    const int32_t status = bi_timming_calculate_json(width, height, fps, save, result, entry);
    if (status < 0) {
        VEXA_LOGE(kTag, "bi_timming_calculate_parameters failed\n");
        return status;
    }
    return 0;
}

VEXA_API int32_t bi_timming_calculate_json(uint32_t width, uint32_t height, uint32_t fps,
                                           int32_t save, st_bi_sffe_resolution *result,
                                           ProductResolutionConfig e)
{
    VEXA_LOGI(kTag, "%s width:%d height:%d fps:%d\n", __func__, int(width), int(height), int(fps));
    if (result == nullptr) {
        VEXA_LOGE(kTag, "input st_bi_sffe_resolution is null\n");
        return -1;
    }
    *result = {width, height, fps, -2};
    VEXA_LOGI(kTag, "Product border: %d, %d, %d, %d, %d, %d, %d\n", int(e.modID),
              int(e.min_hdisplay), int(e.max_hdisplay), int(e.min_vidsplay), int(e.max_vidsplay),
              int(e.bandwidth), int(e.pclock));
    if (width < e.min_hdisplay || width > e.max_hdisplay || height < e.min_vidsplay ||
        height > e.max_vidsplay)
        return -2;
    if (save != 1 && uint64_t(width) * height > e.bandwidth) {
        VEXA_LOGE(kTag, "Resolution bandwidth over load!\n");
        result->height = e.bandwidth / width <= e.max_vidsplay ? e.max_vidsplay / width
                                                               : e.max_vidsplay;
        result->status = -1;
        return -1;
    }
    const uint32_t w = width + (width & 1u);
    const uint32_t h = height + (height & 1u);
    ResolutionRecord record{};
    calculate_cvtrb_timming(w, h, fps, e.calculate_type, &record.timing);
    const ResolutionTiming &t = record.timing;
    VEXA_LOGI(kTag, "%d %d %d %d %d %d %d %d %d %d\n", int(t.clock), int(t.hdisplay),
              int(t.hsync_start), int(t.hsync_end), int(t.htotal), int(t.vdisplay),
              int(t.vsync_start), int(t.vsync_end), int(t.vtotal), int(t.vrefresh));
    seal(record);
    *result = {t.hdisplay, t.vdisplay, t.vrefresh, 1};
    if (t.clock > e.pclock) {
        VEXA_LOGE(kTag, "Resolution pcolock over load!\n");
        result->status = -3;
    }
    if (t.vdisplay < h) {
        VEXA_LOGE(kTag, "Resolution height over load!\n");
        result->status = -1;
    }
    if (save == 0)
        return result->status;
    if (!save_record(record)) {
        VEXA_LOGE(kTag, "Failed to save resolution!\n");
        result->status = -4;
        return -4;
    }
    VEXA_LOGI(kTag, "save resolution success!\n");
    return result->status;
}

VEXA_API int32_t bi_timming_get_parameters(st_bi_sffe_resolution *mode)
{
    VEXA_LOGI(kTag, "%s %d\n", __func__, mode != nullptr);
    if (mode == nullptr)
        return -1;
    ResolutionRecord saved;
    getSaveParameterInfo(&saved);
    *mode = {saved.timing.hdisplay, saved.timing.vdisplay,
             uint32_t(std::lround(saved.timing.vrefresh / 1000.0)), 1};
    return 0;
}

} // extern "C"
