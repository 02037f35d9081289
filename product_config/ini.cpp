// Thin accessors over iniparser, looked up as "section:key".
#include "product_config/ini.h"

#include <fcntl.h>
#include <iniparser.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/log.h"
#include "platform/os.h"
#include "vexasdk/product_config.h"

namespace vexa::config {

namespace {

constexpr const char *kTag = "vexa_system_bi_common";

// Composes "section:key" into a 64-byte key. A key that does not fit is a
// programming error of the caller: report it and stop, as a bounds-checked
// formatter would.
struct IniKey {
    char text[64];
    IniKey(const char *section, const char *key)
    {
        const int n = std::snprintf(text, sizeof text, "%s:%s", section, key);
        if (n < 0 || static_cast<size_t>(n) >= sizeof text) {
            std::fprintf(stderr, "ini key too long: %s:%s\n", section, key);
            std::abort();
        }
    }
};

const dictionary *as_dict(void *dict) { return static_cast<const dictionary *>(dict); }

} // namespace

void *load_ini(const char *path)
{
    // iniparser opens files by name; hand it the descriptor that the OS layer
    // opened, so the file comes through the one door like every other path.
    const int fd = path ? os::open(path, O_RDONLY) : -1;
    dictionary *dict = nullptr;
    if (fd >= 0) {
        char name[32];
        std::snprintf(name, sizeof name, "/proc/self/fd/%d", fd);
        dict = iniparser_load(name);
        os::close(fd);
    }
    if (dict == nullptr)
        std::fprintf(stderr, "cannot parse file: %s\n", path ? path : "(null)");
    return dict;
}

int32_t get_int(void *dict, const char *section, const char *key)
{
    if (dict == nullptr) {
        std::fprintf(stderr, "ini empty \n");
        return -1;
    }
    return iniparser_getint(as_dict(dict), IniKey(section, key).text, -1);
}

double get_double(void *dict, const char *section, const char *key)
{
    if (dict == nullptr) {
        std::fprintf(stderr, "ini empty \n");
        return -1.0;
    }
    return iniparser_getdouble(as_dict(dict), IniKey(section, key).text, -1.0);
}

int32_t get_boolean(void *dict, const char *section, const char *key)
{
    if (dict == nullptr) {
        std::fprintf(stderr, "ini empty \n");
        return -1;
    }
    return iniparser_getboolean(as_dict(dict), IniKey(section, key).text, -1);
}

int32_t get_string(void *dict, const char *section, const char *key, char *dst, size_t cap)
{
    if (dict == nullptr) {
        std::fprintf(stderr, "ini empty \n");
        return -1;
    }
    const char *value = iniparser_getstring(as_dict(dict), IniKey(section, key).text, "UNDEF");
    const size_t len = std::strlen(value);
    if (len >= cap) {
        VEXA_LOGE(kTag, "%s: value of %s:%s is %zu bytes, cut to %zu\n", __func__, section, key, len,
                  cap - 1);
        std::memcpy(dst, value, cap - 1);
        dst[cap - 1] = '\0';
        return 0;
    }
    std::memcpy(dst, value, len + 1);
    return 0;
}

void free_ini(void *dict)
{
    if (dict != nullptr)
        iniparser_freedict(static_cast<dictionary *>(dict));
}

} // namespace vexa::config

extern "C" {

VEXA_API void *bi_common_load_ini_file(const char *path) { return vexa::config::load_ini(path); }

VEXA_API int32_t bi_common_ini_get_int(void *dict, const char *section, const char *key)
{
    return vexa::config::get_int(dict, section, key);
}

VEXA_API double bi_common_ini_get_double(void *dict, const char *section, const char *key)
{
    return vexa::config::get_double(dict, section, key);
}

VEXA_API int32_t bi_common_ini_get_boolean(void *dict, const char *section, const char *key)
{
    return vexa::config::get_boolean(dict, section, key);
}

VEXA_API int32_t bi_common_ini_get_string(void *dict, const char *section, const char *key, char *dst)
{
    return vexa::config::get_string(dict, section, key, dst, BI_COMMON_INI_STRING_MAX);
}

VEXA_API int32_t bi_common_ini_free(void *dict)
{
    vexa::config::free_ini(dict);
    return 0;
}

} // extern "C"
