#include <screenrecord/screenrecord.h>
#include <zu3/tsmux.h>

#include "capture_encode/capture_encode.h"
#include "modules/display_connection.h"
#include "modules/module.h"
#include "table/control_lock.h"
#include "table/worker_tasks.h"

namespace {

/** Rounds up to a multiple of `u32Alignment`, a power of two; 0 = the encoder did not say, so none is needed.
 */
u64 AlignUp(u32 u32Address, u32 u32Alignment)
{
    const u64 u64Mask = u32Alignment != 0 ? u32Alignment - 1 : 0;
    return ((u32Address - 1ull) | u64Mask) + 1;
}

u32 StartCapture(SCREENRECORD_TaskCtrl_s* pstTask)
{
    pstTask->stCapOutput.s32OutFd = -1;
    ZU_CAP_CaptureParams_t stParams = {};
    stParams.u32CapturePath = pstTask->u32CapturePath;
    stParams.u32Osd = pstTask->u32Osd;
    stParams.stOutput = pstTask->stCapOutput;
    if (_bUseEntireInjectBuf == 1) {
        stParams.stOutput.u64VirtAddr =
            AlignUp(_stEntireInjectBuf.u32VirtAddr, _stModuleCaps.stVencCaps.u32MemAlign);
        stParams.stOutput.u32OutSize = _stEntireInjectBuf.u32Size;
        SR_HELPER_LOGD("start vcap, virtOutAddr:0x%llx, u32OutSize:0x%llx",
                       static_cast<unsigned long long>(stParams.stOutput.u64VirtAddr),
                       static_cast<unsigned long long>(stParams.stOutput.u32OutSize));
    }
    SR_HELPER_LOGD("ZU_CAP_CaptureStart, rate:%u", stParams.stOutput.u32OutFrameRate);
    const u32 u32Result = ZU_CAP_CaptureStart(pstTask->u32Handle, &stParams);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("Failed to ZU_CAP_CaptureStart(...)!\n");
    return u32Result;
}

u32 StartAudioCapture(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const ZU_ACAP_StartParams_t stParams = {};
    const u32 u32Result = ZU_ACAP_Start(pstTask->u32Handle, &stParams);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("Failed to ZU_ACAP_Start(...)!\n");
    return u32Result;
}

u32 StartEncoder(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId)
{
    u32 u32Result = _SCREENRECORD_CreateTask(pstTask, u32SlotId, 0, nullptr);
    if (u32Result != ZU_OK) {
        SR_HELPER_LOGE("Failed to ZU VENC CreateTask(...)!\n");
        return u32Result;
    }
    pstTask->u32InBufIndex = 0;
    pstTask->u32LastInBufIndex = 0;
    const ZU_VENC_StartParams_t stParams = {};
    u32Result = ZU_VENC_Start(pstTask->u32Handle, &stParams);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("Fail to call ZU_VENC_Start()\n");
    return u32Result;
}

/** The writer exists before the multiplexer runs, so that its output is drained from the first packet on. */
u32 StartTsmux(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId)
{
    u32 u32Result = _SCREENRECORD_CreateTask(pstTask, u32SlotId, SCREENRECORD_WRITER_STACK_SIZE,
                                             _SCREENRECORD_TsmuxTaskHandler);
    if (u32Result != ZU_OK) {
        SR_HELPER_LOGE("Error 0x%x: failed to _SCREENRECORD_CreateTask()\n", u32Result);
        return u32Result;
    }
    const ZU_TSMUX_StartParams_t stParams = {};
    u32Result = ZU_TSMUX_Start(pstTask->u32Handle, &stParams);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("Error 0x%x: failed to ZU_TSMUX_Start()\n", u32Result);
    return u32Result;
}

/** `pKind`: "VIDEO" or "AUDIO", for the log. */
u32 StartReader(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId, ZU_OS_TaskEntry pfnEntry, const char* pKind)
{
    const u32 u32Result =
        _SCREENRECORD_CreateTask(pstTask, u32SlotId, SCREENRECORD_READER_STACK_SIZE, pfnEntry);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("Failed to Create %s Src Reader Handler Task(...)!\n", pKind);
    return u32Result;
}

u32 StartByModule(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId)
{
    switch (pstTask->eModule) {
    case E_SCREENRECORD_MODULE_VIDEO_SRC_READER:
        return StartReader(pstTask, u32SlotId, _SCREENRECORD_VreaderTaskHandler, "VIDEO");
    case E_SCREENRECORD_MODULE_AUDIO_SRC_READER:
        return StartReader(pstTask, u32SlotId, _SCREENRECORD_AreaderTaskHandler, "AUDIO");
    case E_SCREENRECORD_MODULE_VCAP:
        return StartCapture(pstTask);
    case E_SCREENRECORD_MODULE_ACAP:
        return StartAudioCapture(pstTask);
    case E_SCREENRECORD_MODULE_VENC:
        return StartEncoder(pstTask, u32SlotId);
    case E_SCREENRECORD_MODULE_TSMUX:
        return StartTsmux(pstTask, u32SlotId);
    default:
        return ZU_OK;
    }
}

void StopCapture(SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (pstTask->bRunning == 1 && ZU_CAP_CaptureStop(pstTask->u32Handle) != ZU_OK)
        SR_HELPER_LOGE("[DEMO TRANSCODE] ZU_VCAP_STOP FAIL\n");
    if (_SCREENRECORD_UnRegisterCallback(static_cast<s32>(pstTask->u32Handle)) == 0)
        SR_HELPER_LOGE("[DEMO TRANSCODE] _SCREENRECORD_UnRegisterCallback FAIL\n");
    if (_SCREENRECORD_DisconnectDisp(pstTask->u32Handle) != ZU_OK)
        SR_HELPER_LOGE("[DEMO TRANSCODE] ZU_CAP_DisconnectInput FAIL\n");
}

void StopTsmux(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const ZU_TSMUX_CallbackParams_t stRemoval = {.u64CallbackId = pstTask->u64CallbackId,
                                                 .pfnCallback = nullptr,
                                                 .u32EventMask = 0,
                                                 .pUserData = nullptr,
                                                 .u32Reserved = 0};
    u32 u32Result = ZU_TSMUX_UnRegisterCallback(pstTask->u32Handle, &stRemoval);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("Error 0x%x: failed to ZU_TSMUX_UnRegisterCallback(u64CallbackId = 0x%llx)\n",
                       u32Result, static_cast<unsigned long long>(stRemoval.u64CallbackId));

    const u8 bForceStop = 1;
    u32Result = ZU_TSMUX_SetAttr(pstTask->u32Handle, E_ZU_TSMUX_PARAMTYPE_IGNORE_REMAIN_MEDIA_DATA_WHEN_STOP,
                                 &bForceStop);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE(
            "Error 0x%x: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_IGNORE_REMAIN_MEDIA_DATA_WHEN_STOP, "
            "bForceStop = %d)\n",
            u32Result, bForceStop);
    if (ZU_TSMUX_Stop(pstTask->u32Handle) != ZU_OK)
        SR_HELPER_LOGE("Failed to ZU_TSMUX_Stop() with force stop = %d\n", bForceStop);
}

void StopByModule(SCREENRECORD_TaskCtrl_s* pstTask)
{
    switch (pstTask->eModule) {
    case E_SCREENRECORD_MODULE_VCAP:
        StopCapture(pstTask);
        break;
    case E_SCREENRECORD_MODULE_ACAP:
        if (ZU_ACAP_Stop(pstTask->u32Handle) != ZU_OK)
            SR_HELPER_LOGE("[DEMO TRANSCODE] ZU_ACAP_STOP FAIL\n");
        break;
    case E_SCREENRECORD_MODULE_VENC:
        if (ZU_VENC_Stop(pstTask->u32Handle) != ZU_OK)
            SR_HELPER_LOGE("[DEMO TRANSCODE] ZU_VENC_STOP FAIL\n");
        break;
    case E_SCREENRECORD_MODULE_TSMUX:
        StopTsmux(pstTask);
        break;
    default: // a source reader is its task, which is deleted for all modules alike
        break;
    }
}

/** A module in the order of a whole slot's start or stop, with what is logged when it fails. */
struct ModuleStep {
    SCREENRECORD_ZuModule_e eModule;
    const char* pName;
};

/** Consumers ahead of their producers. */
constexpr ModuleStep astStartOrder[] = {
    {E_SCREENRECORD_MODULE_TSMUX, "TSMUX"},
    {E_SCREENRECORD_MODULE_AENC, "AENC"},
    {E_SCREENRECORD_MODULE_VENC, "VENC"},
    {E_SCREENRECORD_MODULE_ACAP, "ACAP"},
    {E_SCREENRECORD_MODULE_VCAP, "VCAP"},
    {E_SCREENRECORD_MODULE_AUDIO_SRC_READER, "AUDIO SrcReader"},
    {E_SCREENRECORD_MODULE_VIDEO_SRC_READER, "VIDEO SrcReader"},
};

/** Producers first; the multiplexer goes on until the slot is closed. */
constexpr ModuleStep astStopOrder[] = {
    {E_SCREENRECORD_MODULE_VIDEO_SRC_READER, "VIDEO SRC_READER"},
    {E_SCREENRECORD_MODULE_AUDIO_SRC_READER, "AUDIO SRC_READER"},
    {E_SCREENRECORD_MODULE_VCAP, "VCAP"},
    {E_SCREENRECORD_MODULE_ACAP, "ACAP"},
    {E_SCREENRECORD_MODULE_VENC, "VENC"},
    {E_SCREENRECORD_MODULE_AENC, "AENC"},
};

} // namespace

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
    const u32 u32Result = StartByModule(pstTask, u32SlotId);
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
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    if (pstTask->u32Handle == 0) {
        SR_LOGE("_SCREENRECORD_StopModule handle is NULL  \n");
        pstTask->bRunning = 0;
        return ZU_OK;
    }
    if (pstTask->eModule >= E_SCREENRECORD_MODULE_MAX) {
        SR_LOGE("INVALID ModuleID Id!\n");
        return ZU_INVALID_ARGUMENT;
    }
    StopByModule(pstTask);
    if (_SCREENRECORD_DeleteTask(pstTask) != ZU_OK)
        SR_LOGE("_SCREENRECORD_DeleteTask Failed\n");
    pstTask->bRunning = 0;
    return ZU_OK;
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
        const u32 u32Result = _SCREENRECORD_StartModule(&stSlot.astTaskCtrl[stStep.eModule], *pu32Handle);
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
