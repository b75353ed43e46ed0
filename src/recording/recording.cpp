#include <cstring>

#include <screenrecord/screenrecord.h>
#include <zu3/fs.h>
#include <zu3/tsmux.h>

#include "base/log.h"
#include "modules/encoder.h"
#include "modules/module.h"
#include "modules/multiplexer.h"
#include "modules/screen_capture.h"
#include "modules/sound_capture.h"
#include "modules/source_reader.h"
#include "recording/client_names.h"
#include "table/control_call.h"

namespace {

/** A step of a slot's start or stop: the module, and its name in the log. */
struct ModuleStep {
    SCREENRECORD_ZuModule_e eModule;
    const char* pName;
};

/** Each consumer before its producer. */
constexpr ModuleStep astStartOrder[] = {
    {E_SCREENRECORD_MODULE_TSMUX, "TSMUX"},
    {E_SCREENRECORD_MODULE_AENC, "AENC"},
    {E_SCREENRECORD_MODULE_VENC, "VENC"},
    {E_SCREENRECORD_MODULE_ACAP, "ACAP"},
    {E_SCREENRECORD_MODULE_VCAP, "VCAP"},
    {E_SCREENRECORD_MODULE_AUDIO_SRC_READER, "AUDIO SrcReader"},
    {E_SCREENRECORD_MODULE_VIDEO_SRC_READER, "VIDEO SrcReader"},
};

/** Producers first; the multiplexer runs until the slot is closed. */
constexpr ModuleStep astStopOrder[] = {
    {E_SCREENRECORD_MODULE_VIDEO_SRC_READER, "VIDEO SRC_READER"},
    {E_SCREENRECORD_MODULE_AUDIO_SRC_READER, "AUDIO SRC_READER"},
    {E_SCREENRECORD_MODULE_VCAP, "VCAP"},
    {E_SCREENRECORD_MODULE_ACAP, "ACAP"},
    {E_SCREENRECORD_MODULE_VENC, "VENC"},
    {E_SCREENRECORD_MODULE_AENC, "AENC"},
};

void LogIfFailed(u32 u32Result, const char* pText)
{
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("%s\n", pText);
}

void CloseEncoderOf(SCREENRECORD_SlotCtrl_s& stSlot)
{
    SCREENRECORD_TaskCtrl_s& stVenc = stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_VENC];
    const SCREENRECORD_TaskCtrl_s& stTsmux = stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_TSMUX];
    if (stVenc.u32Handle != 0) {
        const ZU_TSMUX_AvInterleaving_t stOff = {};
        LogIfFailed(ZU_TSMUX_SetAttr(stTsmux.u32Handle,
                                     E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL, &stOff),
                    "Failed to ZU_TSMUX_SetAttr()");
        LogIfFailed(_SCREENRECORD_CloseVenc(&stVenc), "Failed to _SCREENRECORD_CloseVenc()");
    }
    if (stVenc.u64MuxSrcId != 0 && stTsmux.u32Handle != 0)
        LogIfFailed(ZU_TSMUX_DetachMediaSource(stTsmux.u32Handle, stVenc.u64MuxSrcId),
                    "Failed to DetachMediaSource() Video");
    stVenc.u64MuxSrcId = 0;
}

void CloseModules(SCREENRECORD_SlotCtrl_s& stSlot)
{
    SCREENRECORD_TaskCtrl_s* pastTask = stSlot.astTaskCtrl;
    if (pastTask[E_SCREENRECORD_MODULE_VIDEO_SRC_READER].u32SrcFile != 0)
        LogIfFailed(_SCREENRECORD_CloseSrcReader(&pastTask[E_SCREENRECORD_MODULE_VIDEO_SRC_READER]),
                    "Failed to VIDEO CloseSrcReader()");
    if (pastTask[E_SCREENRECORD_MODULE_AUDIO_SRC_READER].u32SrcFile != 0)
        LogIfFailed(_SCREENRECORD_CloseSrcReader(&pastTask[E_SCREENRECORD_MODULE_AUDIO_SRC_READER]),
                    "Failed to AUDIO CloseSrcReader()");
    if (pastTask[E_SCREENRECORD_MODULE_VCAP].u32Handle != 0)
        LogIfFailed(_SCREENRECORD_CloseVcap(&pastTask[E_SCREENRECORD_MODULE_VCAP]),
                    "Failed to CloseVcap()");
    if (pastTask[E_SCREENRECORD_MODULE_ACAP].u32Handle != 0)
        LogIfFailed(_SCREENRECORD_CloseAcap(&pastTask[E_SCREENRECORD_MODULE_ACAP]),
                    "Failed to CloseAcap()");
    CloseEncoderOf(stSlot);
    // Last: the writer ends here and writes the rest, after everything that feeds the multiplexer.
    if (pastTask[E_SCREENRECORD_MODULE_TSMUX].u32Handle != 0)
        LogIfFailed(_SCREENRECORD_CloseTsmux(&pastTask[E_SCREENRECORD_MODULE_TSMUX]),
                    "Failed to _SCREENRECORD_CloseTsmux()");
}

} // namespace

u32 SCREENRECORD_Open(u32* pu32Handle, u8* pu8DstName)
{
    const LogAs as(__func__);
    const ControlLock lock(_controlMutex);
    if (!_SCREENRECORD_CheckIdleSlot(pu32Handle))
        return 0;
    if (pu8DstName == nullptr) {
        SR_LOGE("Error: invalid destination file name\n");
        return 0;
    }

    SCREENRECORD_SlotCtrl_s& stSlot = _astSlotCtrl[*pu32Handle];
    stSlot.u32SlotId = *pu32Handle;
    for (u32 u32Module = 0; u32Module < E_SCREENRECORD_MODULE_MAX; u32Module++)
        _SCREENRECORD_ResetTask(&stSlot.astTaskCtrl[u32Module],
                                static_cast<SCREENRECORD_ZuModule_e>(u32Module));
    _SCREENRECORD_ClearSrcInfo(&stSlot.stSrcInfo);

    stSlot.stSrcInfo.pu8DstName = _SCREENRECORD_CopyName(pu8DstName);
    if (stSlot.stSrcInfo.pu8DstName == nullptr)
        return 0;
    if (strcmp(stSlot.stSrcInfo.pu8DstName, "wifi") == 0) {
        SR_LOGE("no support!!\n");
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    const u32 u32File = ZU_FS_Fopen(stSlot.stSrcInfo.pu8DstName, "wb");
    stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_TSMUX].u32OutFile = u32File;
    if (u32File == 0) {
        SR_LOGE("Error: failed to ZU_FS_Fopen(%s) for output TS stream\n",
                reinterpret_cast<const char*>(pu8DstName));
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    return 1;
}

u32 SCREENRECORD_Start(u32* pu32Handle)
{
    const LogAs as(__func__);
    const ControlLock lock(_controlMutex);
    if (!_SCREENRECORD_CheckSlot(pu32Handle))
        return 0;
    SCREENRECORD_SlotCtrl_s& stSlot = _astSlotCtrl[*pu32Handle];
    const SCREENRECORD_TaskCtrl_s& stTsmux = stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_TSMUX];
    if (stSlot.stSrcInfo.bVideoSrcAssigned == 0 && stSlot.stSrcInfo.bAudioSrcAssigned == 0) {
        SR_LOGE("Need to Assign one source!\n");
        return 0;
    }
    if (stTsmux.u32Handle == 0) {
        SR_LOGE("[DEMO TRANCODE] Please Set Mux First!\n");
        return 0;
    }
    if (stTsmux.u32OutFile == 0) {
        SR_LOGE("[DEMO TRANCODE] Please Open Transcode First!\n");
        return 0;
    }
    for (const ModuleStep& stStep : astStartOrder) {
        const u32 u32Result =
            _SCREENRECORD_StartModule(&stSlot.astTaskCtrl[stStep.eModule], *pu32Handle);
        if (u32Result == ZU_OK)
            continue;
        SR_LOGE("Error 0x%x: failed to Start %s\n", u32Result, stStep.pName);
        SCREENRECORD_Stop(pu32Handle);
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    return 1;
}

u32 SCREENRECORD_Stop(u32* pu32Handle)
{
    const LogAs as(__func__);
    const ControlLock lock(_controlMutex);
    if (!_SCREENRECORD_CheckSlot(pu32Handle))
        return 0;
    u32 u32Success = 1;
    for (const ModuleStep& stStep : astStopOrder) {
        if (_SCREENRECORD_StopModule(_SCREENRECORD_TaskOf(*pu32Handle, stStep.eModule)) == ZU_OK)
            continue;
        SR_LOGE("Stop %s Failed\n", stStep.pName);
        u32Success = 0;
    }
    return u32Success;
}

u32 SCREENRECORD_Close(u32* pu32Handle)
{
    const LogAs as(__func__);
    const ControlLock lock(_controlMutex);
    if (!_SCREENRECORD_CheckSlot(pu32Handle))
        return 0;
    u32 u32Success = 1;
    if (SCREENRECORD_Stop(pu32Handle) == 0) {
        SR_LOGE("SCREENRECORD_Stop Failed\n");
        u32Success = 0;
    }
    SCREENRECORD_SlotCtrl_s& stSlot = _astSlotCtrl[*pu32Handle];
    CloseModules(stSlot);

    const u32 u32File = stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_TSMUX].u32OutFile.Exchange(0);
    if (u32File != 0 && ZU_FS_Fclose(u32File) != ZU_OK) {
        SR_LOGE("ZU_FS_Fclose Failed!\n");
        u32Success = 0;
    }
    ZU_FS_Sync();
    _SCREENRECORD_ClearSrcInfo(&stSlot.stSrcInfo);
    return u32Success;
}
