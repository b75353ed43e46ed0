#include <cstdlib>

#include <screenrecord/screenrecord.h>

#include "base/picture_size.h"
#include "capture_encode/capture_encode.h"
#include "modules/display_connection.h"
#include "modules/encoder_output.h"
#include "modules/module.h"
#include "modules/sources.h"
#include "recording/codec_names.h"
#include "recording/name_copy.h"
#include "table/control_lock.h"

namespace {

/** More than any level of H.264 allows: the encoder chooses. The file's writer is the limit of a recording.
 */
constexpr u32 RECORDING_BITRATE = 0x100000;

u32 PointedValueOr(const u32* pu32Value, u32 u32Default)
{
    return pu32Value != nullptr ? _SCREENRECORD_ValueOr(*pu32Value, u32Default) : u32Default;
}

/** Keeps a file source's name, drops the screen's, and checks the codec name. False when that is rejected. */
bool TakeSource(SCREENRECORD_SrcInfo_s& stSrcInfo, const u8* pu8VencType)
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

/** Opens the file or the capture, whichever feeds the encoder. */
bool OpenVideoSource(SCREENRECORD_SlotCtrl_s* pstSlot)
{
    if (pstSlot->stSrcInfo.pu8VideoSrcName != nullptr) {
        SCREENRECORD_TaskCtrl_s* pstReader = &pstSlot->astTaskCtrl[E_SCREENRECORD_MODULE_VIDEO_SRC_READER];
        if (_SCREENRECORD_OpenSrcReader(pstSlot, pstReader) == ZU_OK)
            return true;
        SR_HELPER_LOGE("[DEMO TRANSCODE] Open Src File Reader Failed!\n");
        return false;
    }
    if (_SCREENRECORD_OpenVcap(pstSlot, &pstSlot->astTaskCtrl[E_SCREENRECORD_MODULE_VCAP]) == ZU_OK)
        return true;
    SR_HELPER_LOGE("[DEMO TRANSCODE] Open Vcap Failed!\n");
    return false;
}

void FillCaptureOutput(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask, u32 u32OutWidth,
                       u32 u32OutHeight)
{
    const SCREENRECORD_SrcInfo_s& stSrcInfo = pstSlot->stSrcInfo;
    pstTask->u32CapturePath = 0;
    pstTask->u32Osd = stSrcInfo.bOsd;
    pstTask->stCapOutput.u32OutFrameRate = stSrcInfo.u32FrameRate;
    pstTask->stCapOutput.u32OutWidth = u32OutWidth;
    pstTask->stCapOutput.u32OutHeight = u32OutHeight;
    pstTask->stCapOutput.eOutFormat = E_ZU_CAP_FORMAT_NV12;
    pstTask->stCapOutput.u32OutSize = 2 * stSrcInfo.u32FrameSize;
}

} // namespace

u32 _SCREENRECORD_OpenVenc(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    const SCREENRECORD_SrcInfo_s& stSrcInfo = pstSlot->stSrcInfo;
    const ZU_VENC_Caps_t& stCaps = _stModuleCaps.stVencCaps;
    if (stSrcInfo.u32Width > stCaps.u32MaxWidth || stSrcInfo.u32Height > stCaps.u32MaxHeight ||
        stSrcInfo.u32FrameRate > stCaps.u32MaxFrameRate) {
        SR_LOGE("Venc Support!\n");
        return ZU_FAILURE;
    }
    ZU_VENC_OpenParams_t stParams = {};
    stParams.pu8Name = "venc0";
    stParams.eColorFormat = E_ZU_VENC_COLOR_COPY;
    stParams.u32Width = stSrcInfo.u32Width;
    stParams.u32Height = stSrcInfo.u32Height;
    stParams.u32FrameRate = stSrcInfo.u32FrameRate;
    stParams.u32Bitrate = RECORDING_BITRATE;
    stParams.eCodecType = stSrcInfo.eVencType;
    stParams.pfnCallback = _SCREENRECORD_VencCbHandler;
    stParams.u32EventMask = ZU_VENC_EVENT_FRAME;
    SR_LOGD("output frame: [%ld, %ld] frame rate = %ld\n", static_cast<long>(stParams.u32Width),
            static_cast<long>(stParams.u32Height), static_cast<long>(stParams.u32FrameRate));

    if (ZU_VENC_Open(&stParams, pstTask->u32Handle.OutputArgument()) != ZU_OK) {
        SR_LOGE("Fail to call ZU_VENC_Open()\n");
        _SCREENRECORD_CloseVenc(pstTask);
        return ZU_FAILURE;
    }
    // The pictures go to slot 0's encoder. If that is this one, which lends buffers, or is not open, the
    // inject buffer of an earlier capture-encode session went with its encoder.
    const u32 u32PictureEncoder = _astSlotCtrl[0].astTaskCtrl[E_SCREENRECORD_MODULE_VENC].u32Handle;
    if (u32PictureEncoder == pstTask->u32Handle || u32PictureEncoder == 0)
        _bUseEntireInjectBuf = 0;
    return ZU_OK;
}

u32 _SCREENRECORD_OpenVcap(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    SCREENRECORD_SrcInfo_s& stSrcInfo = pstSlot->stSrcInfo;
    const u32 u32OutWidth = _SCREENRECORD_CaptureWidth(stSrcInfo.u32Width);
    const u32 u32OutHeight = _SCREENRECORD_CaptureHeight(stSrcInfo.u32Height);
    const u64 u64FrameSize = _SCREENRECORD_CaptureFrameSize(u32OutWidth, u32OutHeight);
    if (u64FrameSize > UINT32_MAX / 2) { // the output buffer's size, twice this, has 32 bits
        SR_LOGE("Picture of %ux%u is too large!\n", u32OutWidth, u32OutHeight);
        return ZU_INVALID_ARGUMENT;
    }
    stSrcInfo.u32FrameSize = static_cast<u32>(u64FrameSize);
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
    SR_LOGD("_SCREENRECORD_OpenVcap:DIP output w:[%u], h:[%u], frameRate:[%u], format:[%d], size:[%u]\n",
            stOutput.u32OutWidth, stOutput.u32OutHeight, stOutput.u32OutFrameRate,
            static_cast<int>(stOutput.eOutFormat), stOutput.u32OutSize);
    SR_LOGD("_SCREENRECORD_OpenVcap:mem align[%u], DIP output PA = 0x%llx, VA = 0x%llx\n",
            _stModuleCaps.stVencCaps.u32MemAlign, static_cast<unsigned long long>(stOutput.u64PhyAddr),
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

u32 SCREENRECORD_SetVideo(u32* pu32Handle, u8* pu8SrcName, u8* pu8VencType, u32* pu32Width, u32* pu32Height,
                          u32* pu32FrameRate)
{
    const LogAs as(__func__);
    const ControlLock lock(_controlMutex);
    if (!_SCREENRECORD_CheckIdleSlot(pu32Handle))
        return 0;
    SCREENRECORD_SlotCtrl_s* pstSlot = &_astSlotCtrl[*pu32Handle];
    SCREENRECORD_SrcInfo_s& stSrcInfo = pstSlot->stSrcInfo;
    if (!_SCREENRECORD_TakeSourceName(pu8SrcName, &stSrcInfo.pu8VideoSrcName))
        return 0;
    if (!TakeSource(stSrcInfo, pu8VencType)) {
        SR_LOGE("Error: invalid Venc Type\n");
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    stSrcInfo.u32Width = PointedValueOr(pu32Width, SCREENRECORD_DEFAULT_WIDTH);
    stSrcInfo.u32Height = PointedValueOr(pu32Height, SCREENRECORD_DEFAULT_HEIGHT);
    stSrcInfo.u32FrameRate = PointedValueOr(pu32FrameRate, SCREENRECORD_DEFAULT_FRAME_RATE);
    if (_SCREENRECORD_OpenVenc(pstSlot, &pstSlot->astTaskCtrl[E_SCREENRECORD_MODULE_VENC]) != ZU_OK) {
        SR_LOGE("[DEMO TRANSCODE] Open Venc Failed!\n");
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    if (!OpenVideoSource(pstSlot)) {
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    stSrcInfo.bVideoSrcAssigned = 1;
    return 1;
}
