#include <screenrecord/screenrecord.h>
#include <zu3/sys.h>
#include <zu3/tsmux.h>

#include "modules/module.h"
#include "table/control_lock.h"
#include "table/worker_tasks.h"

namespace {

u32 BitOf(u32 u32Module)
{
    return 1u << u32Module;
}

void InitSystemOnce()
{
    if (_bSysInited != 0)
        return;
    const u32 u32Result = ZU_SYS_Init(0);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("Error 0x%x: failed to ZU_SYS_Init()\n", u32Result);
    _bSysInited = 1;
}

/** Enters an initialisation's result into the masks. False when the module cannot be used. */
bool NoteInit(SCREENRECORD_ZuModule_e eModule, u32 u32Result)
{
    if (u32Result != ZU_OK && u32Result != ZU_ALREADY_INITIALISED)
        return false;
    _u32ModuleInitMask |= BitOf(eModule);
    if (u32Result == ZU_OK)
        _u32ModuleDeinitMask |= BitOf(eModule);
    return true;
}

void _SCREENRECORD_DeInitModule(u32 u32Module)
{
    if ((_u32ModuleInitMask & BitOf(u32Module)) == 0) {
        SR_LOGD("[DEMO TRANSCODE] Module %d has Deinited\n", static_cast<int>(u32Module));
        return;
    }
    const bool bOurs = (_u32ModuleDeinitMask & BitOf(u32Module)) != 0;
    _u32ModuleInitMask &= ~BitOf(u32Module);
    _u32ModuleDeinitMask &= ~BitOf(u32Module);
    if (!bOurs)
        return; // another user of the process initialised it, or it has no initialisation
    if (u32Module == E_SCREENRECORD_MODULE_VCAP && ZU_CAP_DeInit() != ZU_OK)
        SR_LOGE("Failed to Deinit Cap\n");
    if (u32Module == E_SCREENRECORD_MODULE_ACAP && ZU_ACAP_DeInit() != ZU_OK)
        SR_LOGE("Failed to Deinit ACap\n");
    if (u32Module == E_SCREENRECORD_MODULE_VENC && ZU_VENC_DeInit() != ZU_OK)
        SR_LOGE("Failed to Deinit Venc\n");
    if (u32Module == E_SCREENRECORD_MODULE_TSMUX && ZU_TSMUX_DeInit() != ZU_OK)
        SR_LOGE("Failed to Deinit Tsmux\n");
}

/** A capability query's outcome; a record that could not be filled is left zero. */
template <typename T> bool Query(u32 (*pfnGetCaps)(T*), T* pstCaps)
{
    if (pfnGetCaps(pstCaps) == ZU_OK)
        return true;
    *pstCaps = T{};
    return false;
}

} // namespace

u32 _SCREENRECORD_InitModule(SCREENRECORD_ZuModule_e eModule)
{
    const LogAs as(__func__);
    if (eModule < E_SCREENRECORD_MODULE_MAX && (_u32ModuleInitMask & BitOf(eModule)) != 0)
        return ZU_OK;
    InitSystemOnce();

    const ZU_ACAP_InitParams_t stAcapParams = {};
    const ZU_VENC_InitParams_t stVencParams = {};
    const ZU_TSMUX_InitParams_t stTsmuxParams = {};
    u32 u32Result = ZU_OK;
    switch (eModule) {
    case E_SCREENRECORD_MODULE_VIDEO_SRC_READER:
    case E_SCREENRECORD_MODULE_AUDIO_SRC_READER:
        NoteInit(eModule, ZU_OK);
        return ZU_OK;
    case E_SCREENRECORD_MODULE_VCAP:
    case E_SCREENRECORD_MODULE_AENC:
        NoteInit(eModule, ZU_ALREADY_INITIALISED); // no initialisation of its own, so none to undo
        return ZU_OK;
    case E_SCREENRECORD_MODULE_ACAP:
        if (NoteInit(eModule, ZU_ACAP_Init(&stAcapParams)))
            return ZU_OK;
        SR_LOGE("Failed to ZU_ACAP_Init(...)!\n");
        return ZU_FAILURE;
    case E_SCREENRECORD_MODULE_VENC:
        if (NoteInit(eModule, u32Result = ZU_VENC_Init(&stVencParams)))
            return ZU_OK;
        SR_LOGE("Fail to call ZU_VENC_Init() %d\n", static_cast<int>(u32Result));
        return ZU_FAILURE;
    case E_SCREENRECORD_MODULE_TSMUX:
        if (NoteInit(eModule, u32Result = ZU_TSMUX_Init(&stTsmuxParams)))
            return ZU_OK;
        SR_LOGE("Error 0x%x: failed to ZU_TSMUX_Init()\n", u32Result);
        return ZU_FAILURE;
    default:
        SR_LOGE("Init Undefine module\n");
        return ZU_INVALID_ARGUMENT;
    }
}

void _SCREENRECORD_GetModuleCaps(void)
{
    _stModuleCaps = SCREENRECORD_ModuleCaps_s{};
    if (!Query(ZU_VIDEO_GetCaps, &_stModuleCaps.stVideoCaps))
        SR_LOGE("[DEMO TRANSCODE] Failed to Get Video Caps\n");
    else if (!Query(ZU_VENC_GetCaps, &_stModuleCaps.stVencCaps))
        SR_LOGE("[DEMO TRANSCODE] Failed to Get Venc Caps\n");
    else if (!Query(ZU_AUDIO_GetCaps, &_stModuleCaps.stAudioCaps))
        SR_LOGE("[DEMO TRANSCODE] Failed to Get Audio Caps\n");
    else if (!Query(ZU_ACAP_GetCaps, &_stModuleCaps.stAcapCaps))
        SR_LOGE("[DEMO TRANSCODE] Failed to Get Acap Caps\n");
}

u32 SCREENRECORD_Init(void)
{
    const ControlLock lock(_controlMutex);
    if (_bModuleInited != 0)
        return 1;
    _u32ModuleInitMask = 0;
    _u32ModuleDeinitMask = 0;
    _SCREENRECORD_ClearTable();

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
