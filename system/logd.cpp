// The log daemon's configuration (five persistent properties), packing a log
// directory into a gzip tar archive, and clearing a log directory around the
// file the daemon is writing.
#include <dirent.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "platform/android.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/shell.h"
#include "vexasdk/system.h"

namespace {

const char kTag[] = "vexa_system_bi_vexa_logd";
const char kPathProperty[] = "persist.vendor.vexa_logd.path";
const char kSyslogDir[] = "/syslog/logs";
constexpr size_t kCommandSize = 1024;
// The daemon's file names are 13 characters long ("main_0003.log").
constexpr size_t kCurrentNameLength = 13;

// The record's fields in the order they are written and read.
struct Field {
    const char *property;
    size_t offset;
    size_t capacity;
};

#define VEXA_LOGD_FIELD(name)                                                                      \
    Field { "persist.vendor.vexa_logd." #name, offsetof(vexa_logd_config_t, name),                 \
            sizeof(vexa_logd_config_t::name) }
const Field kFields[] = {VEXA_LOGD_FIELD(level), VEXA_LOGD_FIELD(base), VEXA_LOGD_FIELD(mode),
                         VEXA_LOGD_FIELD(total_size), VEXA_LOGD_FIELD(once_size)};
#undef VEXA_LOGD_FIELD

char *field_of(vexa_logd_config_t *config, const Field &field)
{
    return reinterpret_cast<char *>(config) + field.offset;
}

// A command buffer of the size the daemon's tools have always used.
std::unique_ptr<char[]> command_buffer()
{
    return std::unique_ptr<char[]>(new (std::nothrow) char[kCommandSize]);
}

// The exit code of a finished shell command, or -1 when it did not run.
int exit_code(int status)
{
    return status == -1 ? -1 : (status >> 8) & 0xff;
}

} // namespace

extern "C" {

VEXA_API int32_t bi_vexa_logd_set_configure(vexa_logd_config_t config)
{
    VEXA_LOGD(kTag, "%s is called\n", __func__);
    for (const Field &field : kFields) {
        const char *value = field_of(&config, field);
        if (value[0] == '\0')
            continue;
        // A field that fills its whole capacity has no end: it is refused
        // rather than read past.
        if (strnlen(value, field.capacity) == field.capacity) {
            VEXA_LOGE(kTag, "%s: %s is not terminated within %zu bytes\n", __func__, field.property,
                      field.capacity);
            return -1;
        }
        const int rc = property_set(field.property, value);
        if (rc < 0) {
            VEXA_LOGE(kTag, "set %s failed", field.property);
            return rc;
        }
    }
    return 0;
}

VEXA_API int32_t bi_vexa_logd_get_configure(vexa_logd_config_t *out)
{
    VEXA_LOGD(kTag, "%s is called\n", __func__);
    if (out == nullptr)
        return -1;
    vexa_logd_config_t config;
    std::memset(&config, 0, sizeof config);
    int len = 0;
    for (const Field &field : kFields) {
        char value[PROPERTY_VALUE_MAX] = {0};
        len = property_get(field.property, value, nullptr);
        if (len <= 0)
            continue;
        if (static_cast<size_t>(len) >= field.capacity) {
            VEXA_LOGE(kTag, "%s: %s is %d characters, too long for its %zu-byte field\n", __func__,
                      field.property, len, field.capacity);
            continue;
        }
        std::memcpy(field_of(&config, field), value, static_cast<size_t>(len) + 1);
    }
    *out = config;
    return len;
}

VEXA_API int32_t bi_vexa_logd_compress(const char *dir, const char *archive)
{
    VEXA_LOGD(kTag, "%s is called\n", __func__);
    const auto cmd = command_buffer();
    if (!cmd)
        return -1;
    if (dir == nullptr)
        return -2;
    if (archive == nullptr)
        return -3;
    if (!vexa::shell_paths_safe(kTag, __func__, {dir, archive}))
        return -1;
    if (std::strcmp(dir, kSyslogDir) == 0) {
        // The tools that write the system log directory stop on these.
        property_set("sys.video_tools.state", "true");
        property_set("sys.display_tools.state", "true");
        vexa::os::sleep_us(2 * 1000 * 1000);
    }
    // Both paths fit the buffer with the command around them.
    if (std::strlen(archive) + std::strlen(dir) >= 998)
        return 0;
    std::snprintf(cmd.get(), kCommandSize, "/system/bin/tar -zcf %s %s", archive, dir);
    VEXA_LOGD(kTag, "VexaCompress: cmd[%s]\n", cmd.get());
    const int tar = exit_code(vexa::os::system(cmd.get()));
    if (tar != 0) {
        // The result stays 0: the failure is in the log for the caller to see.
        VEXA_LOGE(kTag, "%s: tar of %s into %s failed (exit %d)\n", __func__, dir, archive, tar);
        return 0;
    }
    std::snprintf(cmd.get(), kCommandSize, "/system/bin/chmod 666 %s", archive);
    const int chmod = exit_code(vexa::os::system(cmd.get()));
    if (chmod != 0)
        VEXA_LOGE(kTag, "%s: chmod 666 %s failed (exit %d)\n", __func__, archive, chmod);
    return 0;
}

VEXA_API int32_t bi_vexa_logd_clear(const char *dir)
{
    VEXA_LOGD(kTag, "%s is called\n", __func__);
    char path[128] = {0};
    property_get(kPathProperty, path, "");
    if (path[0] == '\0') {
        VEXA_LOGD(kTag, "VexaClearFile Erorr!");
        return -1;
    }
    // The current file's name is the path's last 13 characters; a shorter
    // path is taken whole.
    const size_t path_len = std::strlen(path);
    const char *current = path + (path_len > kCurrentNameLength ? path_len - kCurrentNameLength : 0);

    if (dir == nullptr || !vexa::shell_paths_safe(kTag, __func__, {dir}))
        return -1;
    if (std::strlen(dir) > 1004)
        return -2;
    const auto cmd = command_buffer();
    if (!cmd)
        return -3;
    std::vector<std::string> names;
    {
        const std::unique_ptr<DIR, int (*)(DIR *)> d(vexa::os::opendir(dir), ::closedir);
        if (!d) {
            VEXA_LOGD(kTag, "VexaClearFile Open %s Erorr!\n", dir);
            return -4;
        }
        while (const dirent *entry = ::readdir(d.get())) {
            if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0 &&
                std::strcmp(entry->d_name, current) != 0)
                names.emplace_back(entry->d_name);
        }
    }
    int last = 0;
    bool refused = false;
    for (const std::string &name : names) {
        const std::string target = std::string(dir) + "/" + name;
        // A name the shell would not take literally is left alone; so is one
        // whose command would not fit (a cut command names another path).
        // Either stays, so the clear has failed whatever comes after.
        if (!vexa::shell_paths_safe(kTag, __func__, {target.c_str()})) {
            refused = true;
            continue;
        }
        const int n = std::snprintf(cmd.get(), kCommandSize, "/system/bin/rm -r %s/%s", dir, name.c_str());
        if (n < 0 || static_cast<size_t>(n) >= kCommandSize) {
            VEXA_LOGE(kTag, "%s: command for %s does not fit %zu bytes\n", __func__, target.c_str(),
                      kCommandSize);
            refused = true;
            continue;
        }
        VEXA_LOGD(kTag, "VexaClearFile execute delete cmd\n");
        last = vexa::os::system(cmd.get());
        if (last != 0)
            VEXA_LOGE(kTag, "%s: %s failed (exit %d)\n", __func__, cmd.get(), exit_code(last));
    }
    return last != 0 || refused ? -5 : 0;
}

} // extern "C"
