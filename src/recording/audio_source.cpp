#include <cstdlib>

#include <screenrecord/screenrecord.h>

#include "modules/module.h"
#include "modules/sources.h"
#include "recording/codec_names.h"
#include "recording/name_copy.h"
#include "table/control_lock.h"

namespace {

enum {
    DEFAULT_BIT_WIDTH = 16,
    CAPTURE_VOLUME = 100,
};

/** Events of the audio capture change nothing here; each is reported as unexpected. */
u32 _SCREENRECORD_AcapCbHandler(s32 s32Handle, ZU_ACAP_CallbackEvent_e, void*, void*)
{
    const CallbackStay stay(E_SCREENRECORD_MODULE_ACAP, static_cast<u32>(s32Handle));
    u32 u32SlotId = 0;
    _SCREENRECORD_Handle2SlotId(stay, &u32SlotId);
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
    u64 u64CallbackId = 0; // the removal names none
    const u32 u32Result = ZU_ACAP_RegisterCallback(u32Handle, &stParams, &u64CallbackId);
    if (u32Result == ZU_OK)
        return true;
    SR_HELPER_LOGE_LINE("%s[%d] Error:%d Fail to register callback !.\n", static_cast<int>(u32Result));
    return false;
}

/** Keeps a file source's name, drops the capture's, and checks the codec name; logs what it rejects. */
bool TakeSource(SCREENRECORD_SrcInfo_s& stSrcInfo, const u8* pu8AencType)
{
    const SCREENRECORD_SrcKind_e eKind = _SCREENRECORD_SrcKindOf(stSrcInfo.pu8AudioSrcName);
    if (eKind == E_SCREENRECORD_SRC_TS_FILE)
        return true;
    const bool bAccepted = _SCREENRECORD_GetAencSrcType(pu8AencType, &stSrcInfo) == ZU_OK;
    if (eKind == E_SCREENRECORD_SRC_CAPTURE) {
        if (!bAccepted) {
            SR_HELPER_LOGE("Error: invalid AENC Type!\n");
            return false;
        }
        free(stSrcInfo.pu8AudioSrcName);
        stSrcInfo.pu8AudioSrcName = nullptr;
        return true;
    }
    if (!bAccepted) {
        SR_HELPER_LOGE("Error: invalid Dst Type\n");
        return false;
    }
    if (stSrcInfo.eAencType != 0) {
        SR_HELPER_LOGE("Error: only aac could support file source\n");
        return false;
    }
    return true;
}

bool OpenAudioSource(SCREENRECORD_SlotCtrl_s* pstSlot)
{
    if (pstSlot->stSrcInfo.pu8AudioSrcName != nullptr) {
        SCREENRECORD_TaskCtrl_s* pstReader = &pstSlot->astTaskCtrl[E_SCREENRECORD_MODULE_AUDIO_SRC_READER];
        if (_SCREENRECORD_OpenSrcReader(pstSlot, pstReader) == ZU_OK)
            return true;
        SR_HELPER_LOGE("[DEMO TRANSCODE] Open AUDIO Src File Reader Failed!\n");
        return false;
    }
    if (_SCREENRECORD_OpenAcap(&pstSlot->astTaskCtrl[E_SCREENRECORD_MODULE_ACAP], 1) == ZU_OK)
        return true;
    SR_HELPER_LOGE("[DEMO TRANSCODE] Open Acap Failed!\n");
    return false;
}

} // namespace

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

u32 SCREENRECORD_SetAudio(u32* pu32Handle, u8* pu8SrcName, u8* pu8AencType, u32* pu32BitWidth)
{
    const LogAs as(__func__);
    const ControlLock lock(_controlMutex);
    if (!_SCREENRECORD_CheckIdleSlot(pu32Handle))
        return 0;
    SCREENRECORD_SlotCtrl_s* pstSlot = &_astSlotCtrl[*pu32Handle];
    SCREENRECORD_SrcInfo_s& stSrcInfo = pstSlot->stSrcInfo;
    if (!_SCREENRECORD_TakeSourceName(pu8SrcName, &stSrcInfo.pu8AudioSrcName))
        return 0;
    if (!TakeSource(stSrcInfo, pu8AencType)) {
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    if (stSrcInfo.eAencType == 0) {
        const bool bGiven = pu32BitWidth != nullptr && *pu32BitWidth != 0;
        stSrcInfo.u8AudioBitWidth =
            static_cast<u8>(bGiven ? *pu32BitWidth : static_cast<u32>(DEFAULT_BIT_WIDTH));
        if (!OpenAudioSource(pstSlot)) {
            SCREENRECORD_Close(pu32Handle);
            return 0;
        }
    }
    stSrcInfo.bAudioSrcAssigned = 1;
    return 1;
}
