#include "modules/sound_capture.h"

#include <zu3/acap.h>

#include "base/log.h"
#include "modules/module_stop.h"

namespace {

enum { CAPTURE_VOLUME = 100 };

/** Logs each event of the audio capture as unexpected. */
u32 _SCREENRECORD_AcapCbHandler(s32 s32Handle, ZU_ACAP_CallbackEvent_e, void*, void*)
{
    const CallbackGuard guard(E_SCREENRECORD_MODULE_ACAP, static_cast<u32>(s32Handle));
    u32 u32SlotId = 0;
    _SCREENRECORD_Handle2SlotId(guard, &u32SlotId);
    SR_LOGE("Invalid Event!\n");
    return ZU_FAILURE;
}

bool RegisterAcapCallback(u32 u32Handle)
{
    const ZU_ACAP_CallbackParams_t stParams = {.u64CallbackId = 0,
                                               .pfnCallback = _SCREENRECORD_AcapCbHandler,
                                               .u32EventMask = 1,
                                               .pUserData = nullptr,
                                               .u32Reserved = 0};
    // unused: the removal needs no id
    u64 u64CallbackId = 0;
    const u32 u32Result = ZU_ACAP_RegisterCallback(u32Handle, &stParams, &u64CallbackId);
    if (u32Result == ZU_OK)
        return true;
    SR_HELPER_LOGE_LINE("%s[%d] Error:%d Fail to register callback !.\n",
                        static_cast<int>(u32Result));
    return false;
}

} // namespace

u32 _SCREENRECORD_InitAcap()
{
    const ZU_ACAP_InitParams_t stParams = {};
    const u32 u32Result = ZU_ACAP_Init(&stParams);
    if (u32Result != ZU_OK && u32Result != ZU_ALREADY_INITIALISED)
        SR_HELPER_LOGE("Failed to ZU_ACAP_Init(...)!\n");
    return u32Result;
}

u32 _SCREENRECORD_OpenAcap(SCREENRECORD_TaskCtrl_s* pstTask, u8 bRegisterCallback)
{
    const LogAs as(__func__);
    if (pstTask->u32Handle != 0) {
        SR_LOGE("Warning!Acap is opened,Please close first !\n");
        return ZU_FAILURE;
    }
    const ZU_ACAP_OpenParams_t stParams = {.pu8Name = "acap_s", .u32Reserved = 0};
    if (ZU_ACAP_Open(&stParams, pstTask->u32Handle.OutputArgument()) != ZU_OK) {
        SR_LOGE("ZU_ACAP_OPEN FAIL\n");
        return ZU_FAILURE;
    }
    const u32 u32Handle = pstTask->u32Handle;
    if (bRegisterCallback == 1 && !RegisterAcapCallback(u32Handle)) {
        _SCREENRECORD_CloseAcap(pstTask);
        return ZU_FAILURE;
    }
    ZU_ACAP_SetVolume(u32Handle, CAPTURE_VOLUME);
    return ZU_OK;
}

u32 _SCREENRECORD_StartAcap(SCREENRECORD_TaskCtrl_s* pstTask, u32)
{
    const ZU_ACAP_StartParams_t stParams = {};
    const u32 u32Result = ZU_ACAP_Start(pstTask->u32Handle, &stParams);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("Failed to ZU_ACAP_Start(...)!\n");
    return u32Result;
}

void _SCREENRECORD_StopAcap(SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (ZU_ACAP_Stop(pstTask->u32Handle) != ZU_OK)
        SR_HELPER_LOGE("[DEMO TRANSCODE] ZU_ACAP_STOP FAIL\n");
}

u32 _SCREENRECORD_CloseAcap(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    if (const ModuleStop stop(pstTask, __func__); stop.Needed())
        _SCREENRECORD_StopAcap(pstTask);
    const u32 u32Handle = _SCREENRECORD_WithdrawHandle(pstTask);
    if (u32Handle == 0)
        return ZU_OK;
    const ZU_ACAP_CallbackParams_t stRemoval = {.u64CallbackId = 0,
                                                .pfnCallback = nullptr,
                                                .u32EventMask = 1,
                                                .pUserData = nullptr,
                                                .u32Reserved = 0};
    if (ZU_ACAP_UnRegisterCallback(u32Handle, &stRemoval) != ZU_OK)
        SR_LOGE("ZU_ACAP_UnRegisterCallback Failed\n");
    if (ZU_ACAP_Close(u32Handle) != ZU_OK)
        SR_LOGE("ZU_ACAP_Close Failed\n");
    return ZU_OK;
}
