#include "modules/screen_capture.h"

#include "base/log.h"
#include "base/picture_size.h"
#include "modules/encoder.h"
#include "modules/inject_buffer.h"
#include "modules/module_stop.h"

namespace {

/**
 * Rounds up to a multiple of `u32Alignment`, a power of two; 0 = unknown, returns the address.
 */
u64 AlignAddressUp(u32 u32Address, u32 u32Alignment)
{
    const u64 u64Mask = u32Alignment != 0 ? u32Alignment - 1 : 0;
    return ((u32Address - 1ull) | u64Mask) + 1;
}

void FillCaptureOutput(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask,
                       u32 u32OutWidth, u32 u32OutHeight)
{
    const SCREENRECORD_SrcInfo_s& stSrcInfo = pstSlot->stSrcInfo;
    pstTask->u32CapturePath = 0;
    pstTask->u32Osd = stSrcInfo.bOsd;
    pstTask->stCapOutput.u32OutFrameRate = stSrcInfo.u32FrameRate;
    pstTask->stCapOutput.u32OutWidth = u32OutWidth;
    pstTask->stCapOutput.u32OutHeight = u32OutHeight;
    pstTask->stCapOutput.eOutFormat = E_ZU_CAP_FORMAT_NV12;
    pstTask->stCapOutput.u32OutSize = static_cast<u32>(2ull * stSrcInfo.u32FrameSize);
}

} // namespace

u32 _SCREENRECORD_OpenVcap(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    SCREENRECORD_SrcInfo_s& stSrcInfo = pstSlot->stSrcInfo;
    const u32 u32OutWidth = _SCREENRECORD_CaptureWidth(stSrcInfo.u32Width);
    const u32 u32OutHeight = _SCREENRECORD_CaptureHeight(stSrcInfo.u32Height);
    // A size beyond the encoder is left to the encoder's open, which refuses it with its own text.
    if (!_SCREENRECORD_CaptureFits(u32OutWidth, u32OutHeight) &&
        _SCREENRECORD_VencSupports(stSrcInfo.u32Width, stSrcInfo.u32Height,
                                   stSrcInfo.u32FrameRate)) {
        SR_LOGE("Picture of %ux%u is too large!\n", u32OutWidth, u32OutHeight);
        return ZU_INVALID_ARGUMENT;
    }
    stSrcInfo.u32FrameSize = _SCREENRECORD_CaptureFrameSize(u32OutWidth, u32OutHeight);
    pstTask->stCapOutput.u64VirtAddr = 0;
    pstTask->stCapOutput.u64PhyAddr = 0;

    const ZU_CAP_OpenParams_t stParams = {.u8CapturePath = 0};
    _SCREENRECORD_OrphanCapture(pstTask->u32Handle);
    u32 u32Result = ZU_CAP_Open(&stParams, pstTask->u32Handle.OutputArgument());
    if (u32Result != ZU_OK) {
        SR_LOGE("Failed to ZU_CAP_Open(0x%x)!\n", u32Result);
        _SCREENRECORD_CloseVcap(pstTask);
        return u32Result;
    }
    const u32 u32Handle = pstTask->u32Handle;

    FillCaptureOutput(pstSlot, pstTask, u32OutWidth, u32OutHeight);
    const ZU_CAP_Output_t& stOutput = pstTask->stCapOutput;
    SR_LOGD("_SCREENRECORD_OpenVcap:DIP capture path:[%d], osd:[%d]\n", 0, stSrcInfo.bOsd);
    SR_LOGD(
        "_SCREENRECORD_OpenVcap:DIP output w:[%u], h:[%u], frameRate:[%u], format:[%d], size:[%u]\n",
        stOutput.u32OutWidth, stOutput.u32OutHeight, stOutput.u32OutFrameRate,
        static_cast<int>(stOutput.eOutFormat), stOutput.u32OutSize);
    SR_LOGD("_SCREENRECORD_OpenVcap:mem align[%u], DIP output PA = 0x%llx, VA = 0x%llx\n",
            _stModuleCaps.stVencCaps.u32MemAlign,
            static_cast<unsigned long long>(stOutput.u64PhyAddr),
            static_cast<unsigned long long>(stOutput.u64VirtAddr));

    u32Result = _SCREENRECORD_ConnectDisp(static_cast<s32>(u32Handle));
    if (u32Result != ZU_OK) {
        SR_LOGE("Fail to Connect Disp!\n");
        _SCREENRECORD_CloseVcap(pstTask);
        return u32Result;
    }
    if (_SCREENRECORD_RegisterCallback(static_cast<s32>(u32Handle)) == 0) {
        SR_LOGE_LINE("Error: %s(%d) _SCREENRECORD_RegisterCallback failed\n");
        _SCREENRECORD_CloseVcap(pstTask);
        return ZU_FAILURE;
    }
    return ZU_OK;
}

bool _SCREENRECORD_OpenVcapNoEnc(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const ZU_CAP_OpenParams_t stParams = {.u8CapturePath = 0};
    if (ZU_CAP_Open(&stParams, pstTask->u32Handle.OutputArgument()) != ZU_OK) {
        SR_LOGE("Failed to ZU_CAP_Open(...)!\n");
        _SCREENRECORD_CloseVcap(pstTask);
        return false;
    }
    if (_SCREENRECORD_ConnectDisp(static_cast<s32>(pstTask->u32Handle)) != ZU_OK) {
        SR_LOGE("Fail to Connect Disp!\n");
        _SCREENRECORD_CloseVcap(pstTask);
        return false;
    }
    return true;
}

u32 _SCREENRECORD_StartVcap(SCREENRECORD_TaskCtrl_s* pstTask, u32)
{
    pstTask->stCapOutput.s32OutFd = -1;
    ZU_CAP_CaptureParams_t stParams = {};
    stParams.u32CapturePath = pstTask->u32CapturePath;
    stParams.u32Osd = pstTask->u32Osd;
    stParams.stOutput = pstTask->stCapOutput;
    if (_bUseEntireInjectBuf == 1) {
        stParams.stOutput.u64VirtAddr =
            AlignAddressUp(_stEntireInjectBuf.u32VirtAddr, _stModuleCaps.stVencCaps.u32MemAlign);
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

void _SCREENRECORD_StopVcap(SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (pstTask->bRunning == 1 && ZU_CAP_CaptureStop(pstTask->u32Handle) != ZU_OK)
        SR_HELPER_LOGE("[DEMO TRANSCODE] ZU_VCAP_STOP FAIL\n");
    if (_SCREENRECORD_UnRegisterCallback(static_cast<s32>(pstTask->u32Handle)) == 0)
        SR_HELPER_LOGE("[DEMO TRANSCODE] _SCREENRECORD_UnRegisterCallback FAIL\n");
    if (_SCREENRECORD_DisconnectDisp(pstTask->u32Handle) != ZU_OK)
        SR_HELPER_LOGE("[DEMO TRANSCODE] ZU_CAP_DisconnectInput FAIL\n");
}

u32 _SCREENRECORD_CloseVcap(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    if (const ModuleStop stop(pstTask, __func__); stop.Needed())
        _SCREENRECORD_StopVcap(pstTask);
    const u32 u32Handle = _SCREENRECORD_WithdrawHandle(pstTask);
    if (u32Handle != 0 && ZU_CAP_Close(u32Handle) != ZU_OK)
        SR_LOGE("ZU_CAP_Close Failed\n");
    return ZU_OK;
}
