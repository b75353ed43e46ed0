#include <screenrecord/screenrecord.h>
#include <zu3/fs.h>
#include <zu3/tsmux.h>

#include "capture_encode/watermark.h"
#include "modules/module.h"
#include "table/control_lock.h"

namespace {

void StopBeforeClose(SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (_SCREENRECORD_StopModule(pstTask) != ZU_OK)
        SR_HELPER_LOGE("SCREENRECORD_StopModule Failed!\n");
}

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
        LogIfFailed(ZU_TSMUX_SetAttr(stTsmux.u32Handle, E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL, &stOff),
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
        LogIfFailed(_SCREENRECORD_CloseVcap(&pastTask[E_SCREENRECORD_MODULE_VCAP]), "Failed to CloseVcap()");
    if (pastTask[E_SCREENRECORD_MODULE_ACAP].u32Handle != 0)
        LogIfFailed(_SCREENRECORD_CloseAcap(&pastTask[E_SCREENRECORD_MODULE_ACAP]), "Failed to CloseAcap()");
    CloseEncoderOf(stSlot);
    // The writer ends here, behind all that feeds the multiplexer, and writes what was left.
    if (pastTask[E_SCREENRECORD_MODULE_TSMUX].u32Handle != 0)
        LogIfFailed(_SCREENRECORD_CloseTsmux(&pastTask[E_SCREENRECORD_MODULE_TSMUX]),
                    "Failed to _SCREENRECORD_CloseTsmux()");
}

/** Gives back the inject buffer's descriptor, whichever slot's encoder is closed, once no picture is drawn by
 * it. */
void PutInjectDescriptor()
{
    const s32 s32Fd = _stInjectBufFd.s32Fd.Exchange(SCREENRECORD_NO_ID);
    if (s32Fd < 0)
        return;
    _SCREENRECORD_TaskOf(0, E_SCREENRECORD_MODULE_VENC)->callbackGate.Drain();
    ZU_OS_IommuBufFd_t stFd = {.u64PhyAddr = _stInjectBufFd.u64PhyAddr, .s32Fd = s32Fd, .u32Reserved = 0};
    if (ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD, &stFd) != ZU_OK)
        SR_HELPER_LOGD("%s put buffer fd failed, fd:%d, physic: 0x%llx", LogAs::Name(), s32Fd,
                       static_cast<unsigned long long>(stFd.u64PhyAddr));
}

} // namespace

u32 _SCREENRECORD_CloseSrcReader(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    StopBeforeClose(pstTask);
    if (pstTask->u32SrcFile != 0 && ZU_FS_Fclose(pstTask->u32SrcFile) != ZU_OK)
        SR_LOGE("ZU_FS_Fclose Failed!\n");
    ZU_FS_Sync();
    pstTask->u32SrcFile = 0;
    pstTask->u32Handle = 0;
    return ZU_OK;
}

u32 _SCREENRECORD_CloseVcap(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    StopBeforeClose(pstTask);
    const u32 u32Handle = _SCREENRECORD_WithdrawHandle(pstTask);
    if (u32Handle != 0 && ZU_CAP_Close(u32Handle) != ZU_OK)
        SR_LOGE("ZU_CAP_Close Failed\n");
    return ZU_OK;
}

u32 _SCREENRECORD_CloseAcap(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    StopBeforeClose(pstTask);
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

u32 _SCREENRECORD_CloseVenc(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    StopBeforeClose(pstTask);
    const u32 u32Handle = _SCREENRECORD_WithdrawHandle(pstTask);
    PutInjectDescriptor();
    if (u32Handle != 0 && ZU_VENC_Close(u32Handle) != ZU_OK)
        SR_LOGE("ZU_VENC_Close Failed\n");
    return ZU_OK;
}

u32 _SCREENRECORD_CloseTsmux(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    StopBeforeClose(pstTask);
    const u32 u32Handle = pstTask->u32Handle.Exchange(0);
    // The callbacks that push into a multiplexer are its slot's encoder's.
    if (SCREENRECORD_SlotCtrl_s* pstSlot = _SCREENRECORD_SlotOf(pstTask))
        pstSlot->astTaskCtrl[E_SCREENRECORD_MODULE_VENC].callbackGate.Drain();
    if (u32Handle != 0 && ZU_TSMUX_Close(u32Handle) != ZU_OK)
        SR_LOGE("Failed to ZU_TSMUX_Close()\n");
    if (pstTask->u64OutBufVa != 0) {
        if (pstTask->bOutBufCached == 1)
            ZU_OS_DcacheFlush(pstTask->u64OutBufVa, pstTask->u32OutBufSize);
        ZU_OS_FlushMemory();
    }
    pstTask->u64OutBufVa = 0;
    pstTask->u32OutBufSize = 0;
    return ZU_OK;
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
