#include "modules/module.h"

#include <zu3/sys.h>
#include <zu3/tsmux.h>

#include "base/log.h"
#include "modules/encoder.h"
#include "modules/module_stop.h"
#include "modules/multiplexer.h"
#include "modules/screen_capture.h"
#include "modules/sound_capture.h"
#include "modules/source_reader.h"

namespace {

/**
 * The operations of a module. NULL = nothing to do; pfnInit is never NULL. Each logs under the name
 * of its caller.
 */
struct SCREENRECORD_ModuleOperations_s {
    /**
     * Initialises the module in the process. ZU_OK; ZU_ALREADY_INITIALISED if another user of the
     * process did it or there is nothing to undo; any other result is a failure, and logged.
     */
    u32 (*pfnInit)() = nullptr;
    u32 (*pfnDeInit)() = nullptr;
    /** log text */
    const char* pDeInitFailure = nullptr;
    /** Starts an opened module; passes `u32SlotId` to its worker. A failure is logged. */
    u32 (*pfnStart)(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId) = nullptr;
    /** Stops an open module's device; failures are only logged. */
    void (*pfnStop)(SCREENRECORD_TaskCtrl_s* pstTask) = nullptr;
    /** Handles the loss of an open handle (0 = none) by a reset of its record. */
    void (*pfnForget)(u32 u32Handle) = nullptr;
};

/** Counts as initialised by this library, with nothing to undo. */
u32 InitNothing()
{
    return ZU_OK;
}

/** The middleware has no initialisation for this module. */
u32 InitElsewhere()
{
    return ZU_ALREADY_INITIALISED;
}

/**
 * By SCREENRECORD_ZuModule_e. Every stop deletes the worker, so source readers need none. The audio
 * encoder has no operation.
 */
constexpr SCREENRECORD_ModuleOperations_s _astModuleOperations[E_SCREENRECORD_MODULE_MAX] = {
    /* VIDEO_SRC_READER */ {.pfnInit = InitNothing, .pfnStart = _SCREENRECORD_StartVideoReader},
    /* AUDIO_SRC_READER */ {.pfnInit = InitNothing, .pfnStart = _SCREENRECORD_StartAudioReader},
    /* VCAP */
    {.pfnInit = InitElsewhere,
     .pfnDeInit = ZU_CAP_DeInit,
     .pDeInitFailure = "Failed to Deinit Cap",
     .pfnStart = _SCREENRECORD_StartVcap,
     .pfnStop = _SCREENRECORD_StopVcap,
     .pfnForget = _SCREENRECORD_ForgetCapture},
    /* ACAP */
    {.pfnInit = _SCREENRECORD_InitAcap,
     .pfnDeInit = ZU_ACAP_DeInit,
     .pDeInitFailure = "Failed to Deinit ACap",
     .pfnStart = _SCREENRECORD_StartAcap,
     .pfnStop = _SCREENRECORD_StopAcap},
    /* VENC */
    {.pfnInit = _SCREENRECORD_InitVenc,
     .pfnDeInit = ZU_VENC_DeInit,
     .pDeInitFailure = "Failed to Deinit Venc",
     .pfnStart = _SCREENRECORD_StartVenc,
     .pfnStop = _SCREENRECORD_StopVenc},
    /* AENC */ {.pfnInit = InitElsewhere},
    /* TSMUX */
    {.pfnInit = _SCREENRECORD_InitTsmux,
     .pfnDeInit = ZU_TSMUX_DeInit,
     .pDeInitFailure = "Failed to Deinit Tsmux",
     .pfnStart = _SCREENRECORD_StartTsmux,
     .pfnStop = _SCREENRECORD_StopTsmux},
};

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

/** Records an initialisation's result in the masks. False if the module is unusable. */
bool NoteInit(SCREENRECORD_ZuModule_e eModule, u32 u32Result)
{
    if (u32Result != ZU_OK && u32Result != ZU_ALREADY_INITIALISED)
        return false;
    _u32ModuleInitMask |= BitOf(eModule);
    if (u32Result == ZU_OK)
        _u32ModuleDeinitMask |= BitOf(eModule);
    return true;
}

/** Queries capabilities. False, with a zero record, on a failure. */
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
    if (eModule >= E_SCREENRECORD_MODULE_MAX) {
        SR_LOGE("Init Undefine module\n");
        return ZU_INVALID_ARGUMENT;
    }
    return NoteInit(eModule, _astModuleOperations[eModule].pfnInit()) ? ZU_OK : ZU_FAILURE;
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
        // initialised by another user of the process, or without an initialisation
        return;
    const SCREENRECORD_ModuleOperations_s& stModule = _astModuleOperations[u32Module];
    if (stModule.pfnDeInit != nullptr && stModule.pfnDeInit() != ZU_OK)
        SR_LOGE("%s\n", stModule.pDeInitFailure);
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

void _SCREENRECORD_ResetTask(SCREENRECORD_TaskCtrl_s* pstTask, SCREENRECORD_ZuModule_e eModule)
{
    const u32 u32Handle = _SCREENRECORD_WithdrawHandle(pstTask);
    if (const auto pfnForget = _astModuleOperations[eModule].pfnForget)
        pfnForget(u32Handle);
    _SCREENRECORD_ClearTask(pstTask, eModule);
}

u32 _SCREENRECORD_StartModule(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId)
{
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    if (pstTask->eModule >= E_SCREENRECORD_MODULE_MAX) {
        SR_LOGE("INVALID ModuleID Id!\n");
        return ZU_INVALID_ARGUMENT;
    }
    if (pstTask->u32Handle == 0 || pstTask->bRunning == 1)
        return ZU_OK;
    u32 u32Result = ZU_OK;
    if (const auto pfnStart = _astModuleOperations[pstTask->eModule].pfnStart)
        u32Result = pfnStart(pstTask, u32SlotId);
    if (u32Result == ZU_OK) {
        pstTask->bRunning = 1;
        return ZU_OK;
    }
    if (_SCREENRECORD_StopModule(pstTask) != ZU_OK)
        SR_LOGE(" _SCREENRECORD_StopModule Failed!\n");
    return u32Result;
}

u32 _SCREENRECORD_StopModule(SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    const ModuleStop stop(pstTask);
    if (stop.Needed())
        if (const auto pfnStop = _astModuleOperations[pstTask->eModule].pfnStop)
            pfnStop(pstTask);
    return stop.Result();
}
