#include <cstdlib>

#include <screenrecord/screenrecord.h>

#include "base/log.h"
#include "base/picture_size.h"
#include "modules/encoder.h"
#include "modules/screen_capture.h"
#include "modules/sound_capture.h"
#include "modules/source_reader.h"
#include "recording/client_names.h"
#include "table/control_call.h"

namespace {

enum { DEFAULT_BIT_WIDTH = 16 };

u32 PointedValueOr(const u32* pu32Value, u32 u32Default)
{
    return pu32Value != nullptr ? _SCREENRECORD_ValueOr(*pu32Value, u32Default) : u32Default;
}

/**
 * Checks the codec name, and frees the source's name if it is the screen. False if the codec is
 * rejected.
 */
bool SelectVideoSource(SCREENRECORD_SrcInfo_s& stSrcInfo, const u8* pu8VencType)
{
    const SCREENRECORD_SrcKind_e eKind = _SCREENRECORD_SrcKindOf(stSrcInfo.pu8VideoSrcName);
    if (eKind == E_SCREENRECORD_SRC_TS_FILE)
        return true;
    if (_SCREENRECORD_GetVencSrcType(pu8VencType, &stSrcInfo) != ZU_OK)
        return false;
    if (eKind == E_SCREENRECORD_SRC_CAPTURE) {
        free(stSrcInfo.pu8VideoSrcName);
        stSrcInfo.pu8VideoSrcName = nullptr;
    }
    return true;
}

bool Opened(u32 u32Result, const char* pText)
{
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("%s\n", pText);
    return u32Result == ZU_OK;
}

/** Opens the file or the capture that feeds the encoder. */
bool OpenVideoSource(SCREENRECORD_SlotCtrl_s* pstSlot)
{
    SCREENRECORD_TaskCtrl_s* pastTask = pstSlot->astTaskCtrl;
    if (pstSlot->stSrcInfo.pu8VideoSrcName != nullptr)
        return Opened(
            _SCREENRECORD_OpenSrcReader(pstSlot, &pastTask[E_SCREENRECORD_MODULE_VIDEO_SRC_READER]),
            "[DEMO TRANSCODE] Open Src File Reader Failed!");
    return Opened(_SCREENRECORD_OpenVcap(pstSlot, &pastTask[E_SCREENRECORD_MODULE_VCAP]),
                  "[DEMO TRANSCODE] Open Vcap Failed!");
}

/**
 * Checks the codec name, and frees the source's name if it is the capture. A rejection is logged.
 */
bool SelectAudioSource(SCREENRECORD_SrcInfo_s& stSrcInfo, const u8* pu8AencType)
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
    SCREENRECORD_TaskCtrl_s* pastTask = pstSlot->astTaskCtrl;
    if (pstSlot->stSrcInfo.pu8AudioSrcName != nullptr)
        return Opened(
            _SCREENRECORD_OpenSrcReader(pstSlot, &pastTask[E_SCREENRECORD_MODULE_AUDIO_SRC_READER]),
            "[DEMO TRANSCODE] Open AUDIO Src File Reader Failed!");
    return Opened(_SCREENRECORD_OpenAcap(&pastTask[E_SCREENRECORD_MODULE_ACAP], 1),
                  "[DEMO TRANSCODE] Open Acap Failed!");
}

/** Sets the name of an idle slot's source. NULL, logged, if that fails. */
SCREENRECORD_SlotCtrl_s* NameSource(const u32* pu32Handle, u8* pu8SrcName,
                                    char* SCREENRECORD_SrcInfo_s::*pName)
{
    if (!_SCREENRECORD_CheckIdleSlot(pu32Handle))
        return nullptr;
    SCREENRECORD_SlotCtrl_s* pstSlot = &_astSlotCtrl[*pu32Handle];
    const bool bNamed = _SCREENRECORD_ReplaceSourceName(pu8SrcName, &(pstSlot->stSrcInfo.*pName));
    return bNamed ? pstSlot : nullptr;
}

} // namespace

u32 SCREENRECORD_SetVideo(u32* pu32Handle, u8* pu8SrcName, u8* pu8VencType, u32* pu32Width,
                          u32* pu32Height, u32* pu32FrameRate)
{
    const LogAs as(__func__);
    const ControlLock lock(_controlMutex);
    SCREENRECORD_SlotCtrl_s* pstSlot =
        NameSource(pu32Handle, pu8SrcName, &SCREENRECORD_SrcInfo_s::pu8VideoSrcName);
    if (pstSlot == nullptr)
        return 0;
    SCREENRECORD_SrcInfo_s& stSrcInfo = pstSlot->stSrcInfo;
    if (!SelectVideoSource(stSrcInfo, pu8VencType)) {
        SR_LOGE("Error: invalid Venc Type\n");
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    stSrcInfo.u32Width = PointedValueOr(pu32Width, SCREENRECORD_DEFAULT_WIDTH);
    stSrcInfo.u32Height = PointedValueOr(pu32Height, SCREENRECORD_DEFAULT_HEIGHT);
    stSrcInfo.u32FrameRate = PointedValueOr(pu32FrameRate, SCREENRECORD_DEFAULT_FRAME_RATE);
    if (!Opened(_SCREENRECORD_OpenVenc(pstSlot, &pstSlot->astTaskCtrl[E_SCREENRECORD_MODULE_VENC]),
                "[DEMO TRANSCODE] Open Venc Failed!") ||
        !OpenVideoSource(pstSlot)) {
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    stSrcInfo.bVideoSrcAssigned = 1;
    return 1;
}

u32 SCREENRECORD_SetAudio(u32* pu32Handle, u8* pu8SrcName, u8* pu8AencType, u32* pu32BitWidth)
{
    const LogAs as(__func__);
    const ControlLock lock(_controlMutex);
    SCREENRECORD_SlotCtrl_s* pstSlot =
        NameSource(pu32Handle, pu8SrcName, &SCREENRECORD_SrcInfo_s::pu8AudioSrcName);
    if (pstSlot == nullptr)
        return 0;
    SCREENRECORD_SrcInfo_s& stSrcInfo = pstSlot->stSrcInfo;
    if (!SelectAudioSource(stSrcInfo, pu8AencType)) {
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
