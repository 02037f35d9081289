// Marks for the next boot: the factory-reset request to recovery, the
// downgrade flag, and the picture-quality data files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "platform/android.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/unique.h"
#include "vexasdk/storage.h"

namespace {

const char kTag[] = "vexa_system_bi_misc";
const char kRecoveryDir[] = "/cache/recovery";
const char kRecoveryCommand[] = "/cache/recovery/command";
const char kUpgradeFlag[] = "persist.upgrade.flag";
const char kUpgradeVersion[] = "persist.upgrade.version";
const char kBuildVersion[] = "ro.build.version.incremental";

} // namespace

extern "C" {

VEXA_API int32_t bi_restore_factory_setting(uint32_t mode)
{
    if (mode == 1)
        VEXA_LOGE(kTag, "%s, back up screen, is nonsupport!\n", __func__);
    if (vexa::os::access(kRecoveryDir, F_OK) != 0)
        vexa::os::mkdir(kRecoveryDir, 0777);
    {
        const vexa::UniqueFd fd(vexa::os::open(kRecoveryCommand, O_RDWR | O_CREAT | O_TRUNC, 0777));
        if (!fd) {
            VEXA_LOGE(kTag, "%s, open /cache/recovery/command error\n", __func__);
            return -1;
        }
        // Recovery reads one option per line.
        static const char *const lines[] = {"--wipe_cache\n", "--wipe_data\n", "--reason=WipeAllFlash\n"};
        for (const char *line : lines) {
            const size_t len = std::strlen(line);
            if (vexa::os::write(fd.get(), line, len) != static_cast<ssize_t>(len)) {
                VEXA_LOGE(kTag, "%s, write error\n", __func__);
                return -2;
            }
        }
    } // the command file is closed before the reboot
    VEXA_LOGE(kTag, "%s, RestoreFactory\n", __func__);
    vexa::os::sync();
    VEXA_LOGI(kTag, "%s do reboot recovery\n", __func__);
    vexa::os::system("/system/bin/reboot recovery");
    return 0;
}

VEXA_API int32_t bi_set_system_downgrade_flag(uint32_t flag)
{
    if (flag == 0) {
        property_set(kUpgradeFlag, "false");
        VEXA_LOGD(kTag, "%s: set persist.upgrade.flag false\n", __func__);
        return 0;
    }
    property_set(kUpgradeFlag, "demote");
    char version[PROPERTY_VALUE_MAX] = {0};
    if (property_get(kBuildVersion, version, "V010600CN2401") <= 0 || version[0] == '\0') {
        VEXA_LOGE(kTag, "%s:property_get is error\n", __func__);
        return -1;
    }
    const char *stored = (version[0] == 'v' || version[0] == 'V') ? version + 1 : version;
    property_set(kUpgradeVersion, stored);
    VEXA_LOGD(kTag, "%s: set persist.upgrade.flag demote\n", __func__);
    VEXA_LOGD(kTag, "%s: set persist.upgrade.version %s\n", __func__, stored);
    return 0;
}

VEXA_API int32_t bi_get_system_downgrade_flag(void)
{
    char flag[PROPERTY_VALUE_MAX] = {0};
    if (property_get(kUpgradeFlag, flag, "false") <= 0 || flag[0] == '\0') {
        VEXA_LOGE(kTag, "%s:property_get is error\n", __func__);
        return -1;
    }
    if (std::strcmp(flag, "demote") == 0) {
        VEXA_LOGD(kTag, "%s:persist.upgrade.flag is demote\n", __func__);
        return 1;
    }
    VEXA_LOGD(kTag, "%s:persist.upgrade.flag is false\n", __func__);
    return 0;
}

VEXA_API int32_t bi_reset_ssmdata(void)
{
    static const char *const files[] = {"/mnt/vendor/param/pq/SSMHandler",
                                        "/mnt/vendor/param/pq/ssm_data",
                                        "/mnt/vendor/param/pq/pq.db"};
    VEXA_LOGI(kTag, "%s success setPreUpgrade\n", __func__);
    int32_t rc = 0;
    for (const char *file : files) {
        if (vexa::os::remove(file) == 0) {
            VEXA_LOGI(kTag, "%s success delete file: %s\n", __func__, file);
        } else {
            VEXA_LOGE(kTag, "%s can not delete file: %s\n", __func__, file);
            rc = -1;
        }
    }
    return rc;
}

VEXA_API int32_t bi_demote_clean_files(void)
{
    VEXA_LOGI(kTag, "%s success bi_demote_clean_files\n", __func__);
    return 0;
}

VEXA_API int32_t bi_get_res_beable_hdr(uint32_t width, uint32_t height, uint32_t rate)
{
    char mode[48];
    std::snprintf(mode, sizeof mode, "%d*%d@%d", static_cast<int>(width), static_cast<int>(height),
                  static_cast<int>(rate));
    return std::strcmp(mode, "1920*1080@60") == 0 || std::strcmp(mode, "3840*2160@60") == 0 ||
           std::strcmp(mode, "1280*720@60") == 0;
}

} // extern "C"
