// The boot-time load processes of the board families: a pending update
// first, then the program, the parameters and (pz50pro) the network.
#include <cstring>

#include "fpga/fpga_internal.h"
#include "platform/android.h"
#include "platform/hal.h"
#include "platform/log.h"
#include "vexasdk/fpga.h"
#include "vexasdk/selftest.h"

using namespace vexa::fpga;

namespace {

bool config_loaded(const char *func)
{
    if (config_info)
        return true;
    VEXA_LOGE(kTagFw, "%s: config_info is NULL, parseConfigInfo has not run", func);
    return false;
}

void set_updating(int32_t flag) { config_info->fpga_updating = flag; }

// After the program: DDR, parameters and network; their failures are
// logged and do not fail the boot.
void bring_up(const char *func)
{
    if (fpgaCheckDDRAndRecovery() < 0)
        VEXA_LOGE(kTagFw, "%s: fpgaRecoveryDdr failed", func);
    VEXA_LOGI(kTagFw, "%s: fpgaRecoveryDdr ok", func);
    if (fpgaLoadScreenParamsBySpi() < 0)
        VEXA_LOGE(kTagFw, "%s: fpgaLoadScreenParamsBySpi failed", func);
    fpgaNetworkConfig();
    VEXA_LOGI(kTagFw, "%s: fpgaNetworkConfig ok", func);
}

} // namespace

extern "C" {

VEXA_API int32_t fpgaLoadProcessPz50Pro(void)
{
    if (!config_loaded(__func__))
        return -1;
    char update[PROPERTY_VALUE_MAX] = {};
    property_get(kUpdateProperty, update, "0");
    VEXA_LOGI(kTagFw, "%s: persist.vexa.system.fpga.fw.update = %s", __func__, update);
    open_hdr();

    if (update[0] != '1') {
        set_updating(0);
        if (fpgaCheckDone() == 0) {
            VEXA_LOGE(kTagFw, "%s: fpgaCheckDone failed", __func__);
            return -1;
        }
        bring_up(__func__);
        return 0;
    }

    // A pending update: the property stays "1" until it has succeeded, so
    // a failed one is tried again at the next boot.
    set_updating(1);
    if (fpgaFlashFormat() != 0) {
        set_updating(0);
        VEXA_LOGE(kTagFw, "%s: fpgaFlashFormat failed", __func__);
        return -1;
    }
    VEXA_LOGI(kTagFw, "%s: now wait 1s...", __func__);
    sleep_ms(1000);
    if (fpgaFlashWrite() != 0) {
        set_updating(0);
        VEXA_LOGE(kTagFw, "%s: fpgaFlashWrite failed", __func__);
        return -1;
    }
    if (fpgaCheckDone() == 0) {
        set_updating(0);
        VEXA_LOGE(kTagFw, "%s: fpgaCheckDone failed", __func__);
        return -1;
    }
    set_updating(0);
    VEXA_LOGI(kTagFw, "%s: fpga update done ", __func__);
    property_set(kUpdateProperty, "0");
    bring_up(__func__);
    if (fpgaSwitchGmacToUdp() < 0) {
        VEXA_LOGE(kTagFw, "%s: fpgaSwitchGmacToUdp failed", __func__);
        return -1;
    }
    return 0;
}

VEXA_API int32_t fpgaLoadProcessHcu900Pro(void)
{
    if (!config_loaded(__func__))
        return -1;
    if (hal_fpga_load_program_sync_temp(config_info->fpga_drv_path, config_info->fpga_fw_path) < 0) {
        VEXA_LOGE(kTagFw, "%s: hal_fpga_load_program_sync failed", __func__);
        return -1;
    }
    sleep_ms(1000);
    bi_fpga_eth1_config_hcu900pro();
    sleep_ms(1000);
    if (bi_fpga_load_screen_params_by_udp(config_info->fpga_parameter, config_info->hex_parameter) >= 0) {
        VEXA_LOGI(kTagFw, "%s: fpgaLoadScreenParamsByUdp ok", __func__);
        return 0;
    }
    VEXA_LOGE(kTagFw, "%s: fpgaLoadScreenParamsByUdp failed", __func__);
    return -1;
}

VEXA_API int32_t fpgaLoadProcessQRxx_t507(void)
{
    char update[PROPERTY_VALUE_MAX] = {};
    property_get(kUpdateProperty, update, "0");
    if (std::strcmp(update, "1") == 0) {
        if (bi_fpga_active_update_program() < 0) {
            VEXA_LOGE(kTagFw, "%s: bi_fpga_active_update_program failed", __func__);
            return -1;
        }
        property_set(kUpdateProperty, "0");
    }
    if (bi_fpga_load_parameter() >= 0) {
        VEXA_LOGI(kTagFw, "%s: bi_fpga_load_parameter ok", __func__);
        return 0;
    }
    VEXA_LOGE(kTagFw, "%s: bi_fpga_load_parameter failed", __func__);
    return -1;
}

} // extern "C"
