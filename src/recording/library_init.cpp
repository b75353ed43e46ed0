#include <screenrecord/screenrecord.h>

#include "base/log.h"
#include "modules/module.h"
#include "table/control_call.h"

namespace {

/** Clears both slots. */
void ClearTable()
{
    for (SCREENRECORD_SlotCtrl_s& stSlot : _astSlotCtrl) {
        // Set each record's module before the slot's first open, so that a source configured
        // without an open is closed by its module.
        for (u32 u32Module = 0; u32Module < E_SCREENRECORD_MODULE_MAX; u32Module++)
            _SCREENRECORD_ResetTask(&stSlot.astTaskCtrl[u32Module],
                                    static_cast<SCREENRECORD_ZuModule_e>(u32Module));
        _SCREENRECORD_ClearSrcInfo(&stSlot.stSrcInfo);
        stSlot.u32SlotId = 0;
        stSlot.u64CapBufTotalSize = 0;
        stSlot.u64CapFrameSize = 0;
        stSlot.u32MaxFrameNum = 0;
        stSlot.u64CapBufPhyAddr = 0;
        stSlot.u32CapPitch = 0;
        stSlot.s32CapBufFd = SCREENRECORD_NO_ID;
    }
}

} // namespace

u32 SCREENRECORD_Init(void)
{
    const ControlLock lock(_controlMutex);
    if (_bModuleInited != 0)
        return 1;
    _u32ModuleInitMask = 0;
    _u32ModuleDeinitMask = 0;
    ClearTable();

    static constexpr SCREENRECORD_ZuModule_e aeOrder[] = {
        E_SCREENRECORD_MODULE_VCAP,
        E_SCREENRECORD_MODULE_ACAP,
        E_SCREENRECORD_MODULE_VIDEO_SRC_READER,
        E_SCREENRECORD_MODULE_AUDIO_SRC_READER,
        E_SCREENRECORD_MODULE_VENC,
        E_SCREENRECORD_MODULE_AENC,
        E_SCREENRECORD_MODULE_TSMUX,
    };
    for (const SCREENRECORD_ZuModule_e eModule : aeOrder) {
        if (_SCREENRECORD_InitModule(eModule) == ZU_OK)
            continue;
        if (eModule == E_SCREENRECORD_MODULE_ACAP)
            SR_LOGE("Failed to ZU_ACAP_Init(...)!\n");
        else if (eModule == E_SCREENRECORD_MODULE_VENC)
            SR_LOGE("Failed to ZU_VENC_Init(...)!\n");
        else
            SR_LOGE("Failed to ZU Tsmux Init(...)!\n");
        SCREENRECORD_DeInit();
        return 0;
    }
    _SCREENRECORD_GetModuleCaps();
    _bModuleInited = 1;
    SR_LOGD("%s() succeeded\n", __func__);
    return 1;
}

u32 SCREENRECORD_DeInit(void)
{
    const ControlLock lock(_controlMutex);
    u32 u32Success = 1;
    for (u32 u32SlotId = 0; u32SlotId < SCREENRECORD_SLOT_COUNT; u32SlotId++) {
        if (SCREENRECORD_Close(&u32SlotId) == 0) {
            SR_LOGE("SCREENRECORD_Close failed module: %d", static_cast<int>(u32SlotId));
            u32Success = 0;
        }
        _SCREENRECORD_ReclaimRetiredWriter(u32SlotId);
    }
    for (u32 u32Module = 0; u32Module < E_SCREENRECORD_MODULE_MAX; u32Module++)
        _SCREENRECORD_DeInitModule(u32Module);
    _u32ModuleInitMask = 0;
    _u32ModuleDeinitMask = 0;
    _bModuleInited = 0;
    return u32Success;
}
