#include "capture_encode/capture_encode.h"

#include <screenrecord/screenrecord.h>

#include "base/picture_size.h"
#include "capture_encode/frame_ring.h"
#include "capture_encode/watermark.h"
#include "modules/module.h"
#include "modules/sources.h"
#include "table/control_lock.h"
#include "table/worker_tasks.h"

CrossThread<u8> _bPaused;
CrossThread<u8> _bUseEntireInjectBuf;
SCREENRECORD_EntireInjectBuf_s _stEntireInjectBuf;

namespace {

constexpr u32 DEFAULT_BITRATE = 0x100000; /**< bit/s */

SCREENRECORD_TaskCtrl_s* EncoderTask()
{
    return _SCREENRECORD_TaskOf(0, E_SCREENRECORD_MODULE_VENC);
}

/** Rounds the caller's size, and keeps what the slot needs of the record, with defaults for zeros. */
void TakeParams(CapEnc_OpenParams* pstParams)
{
    pstParams->width = _SCREENRECORD_CaptureWidth(pstParams->width);
    pstParams->height = _SCREENRECORD_CaptureHeight(pstParams->height);
    SCREENRECORD_SrcInfo_s& stSrcInfo = _astSlotCtrl[0].stSrcInfo;
    stSrcInfo.u32Width = _SCREENRECORD_ValueOr(pstParams->width, SCREENRECORD_DEFAULT_WIDTH);
    stSrcInfo.u32Height = _SCREENRECORD_ValueOr(pstParams->height, SCREENRECORD_DEFAULT_HEIGHT);
    stSrcInfo.u32FrameRate = _SCREENRECORD_ValueOr(pstParams->frameRate, SCREENRECORD_DEFAULT_FRAME_RATE);
    stSrcInfo.u32OutputBitrate = _SCREENRECORD_ValueOr(pstParams->outputBitrate, DEFAULT_BITRATE);
    stSrcInfo.bOsd = static_cast<u8>(pstParams->osd);
}

/** Android's AVC profile code to profile_idc (ISO/IEC 14496-10, 7.4.2.1.1). */
u32 _SCREENRECORD_Venc_Profile_Convert(u32 u32Profile)
{
    switch (u32Profile) {
    case 1:
        return 66;
    case 2:
        return 77;
    default:
        SR_LOGE("not surport venc profile =%x!\n", u32Profile);
        return 0;
    }
}

/** Android's AVC level code, a bit a level, to a hundred times the level's number. */
u32 _SCREENRECORD_Venc_Level_Convert(u32 u32Level)
{
    static constexpr u32 au32Levels[] = {100, 101, 110, 120, 130, 200, 210, 220, 300, 310, 320, 400, 410};
    for (u32 u32Bit = 0; u32Bit < sizeof(au32Levels) / sizeof(au32Levels[0]); u32Bit++)
        if (u32Level == 1u << u32Bit)
            return au32Levels[u32Bit];
    SR_LOGE("not surport venc level =%x!\n", u32Level);
    return 0;
}

ZU_VENC_OpenParams_t EncoderParams(const CapEnc_OpenParams& stParams)
{
    ZU_VENC_OpenParams_t stOpen = {};
    stOpen.pu8Name = "venc0";
    stOpen.eColorFormat = E_ZU_VENC_COLOR_INJECT;
    stOpen.u32Width = stParams.width;
    stOpen.u32Height = stParams.height;
    stOpen.u32FrameRate = stParams.frameRate;
    stOpen.u32Bitrate = stParams.outputBitrate >> 10;
    stOpen.u32Profile = _SCREENRECORD_Venc_Profile_Convert(stParams.profile);
    stOpen.u32Level = _SCREENRECORD_Venc_Level_Convert(stParams.level);
    stOpen.eCodecType = E_ZU_VENC_CODEC_H264;
    stOpen.pfnCallback = _SCREENRECORD_VencCbHandler_NoTs;
    stOpen.u32EventMask = ZU_VENC_EVENT_FRAME;
    return stOpen;
}

/** Decides whether the capture writes into the encoder's buffer: that holds at least one picture then. */
bool ChooseInjectMode(u32 u32Venc, const CapEnc_OpenParams& stParams)
{
    _bUseEntireInjectBuf = 0; // an earlier session's buffer is forgotten, whatever this encoder answers
    ZU_VENC_EntireInjectBuf_t stBuffer = {};
    const u32 u32Result = ZU_VENC_QueryEntireInjectBuffer(u32Venc, &stBuffer);
    _stEntireInjectBuf.u32VirtAddr = stBuffer.u32VirtAddr;
    _stEntireInjectBuf.u32Size = stBuffer.u32Size;
    if (u32Result != ZU_OK)
        return false;
    const bool bFits = stBuffer.u32Size >= static_cast<u64>(stParams.width) * stParams.height * 3 / 2;
    _bUseEntireInjectBuf = stBuffer.u32VirtAddr != 0 && bFits;
    return true;
}

u32 _SCREENRECORD_OpenVenc_NoTs(const CapEnc_OpenParams& stParams)
{
    const ZU_VENC_Caps_t& stCaps = _stModuleCaps.stVencCaps;
    if (stParams.width > stCaps.u32MaxWidth || stParams.height > stCaps.u32MaxHeight ||
        stParams.frameRate > stCaps.u32MaxFrameRate) {
        SR_LOGE("Out of Venc Support size, %ux%u@%u)", stCaps.u32MaxWidth, stCaps.u32MaxHeight,
                stCaps.u32MaxFrameRate);
        return ZU_FAILURE;
    }
    const ZU_VENC_OpenParams_t stOpen = EncoderParams(stParams);
    SR_LOGD("output frame: [%ld, %ld] frame rate = %ld\n", static_cast<long>(stOpen.u32Width),
            static_cast<long>(stOpen.u32Height), static_cast<long>(stOpen.u32FrameRate));
    SCREENRECORD_TaskCtrl_s* pstTask = EncoderTask();
    if (ZU_VENC_Open(&stOpen, pstTask->u32Handle.OutputArgument()) != ZU_OK) {
        SR_LOGE("Fail to call ZU_VENC_Open()\n");
        _SCREENRECORD_CloseVenc(pstTask);
        return ZU_FAILURE;
    }
    if (!ChooseInjectMode(pstTask->u32Handle, stParams)) {
        SR_LOGE("Failed to ZU_VENC_QueryBuffer(...)!\n");
        _SCREENRECORD_CloseVenc(pstTask);
        return ZU_FAILURE;
    }
    return ZU_OK;
}

/** A start that failed half-way ends stopped and closed. */
s32 AbandonStart()
{
    video_capenc_stop();
    video_capenc_close();
    return -1;
}

} // namespace

s32 video_capenc_open(CapEnc_OpenParams* params)
{
    const ControlLock lock(_controlMutex);
    SCREENRECORD_TaskCtrl_s* pstVcap = _SCREENRECORD_CaptureTask();
    SCREENRECORD_TaskCtrl_s* pstVenc = EncoderTask();
    _SCREENRECORD_ReclaimRetiredWriter(0);
    if (pstVcap->u32Handle != 0) {
        SR_LOGE(" Vcap not closed,Please close vcap!handle =%x\n", pstVcap->u32Handle.Get());
        return -1;
    }
    if (_SCREENRECORD_InitModule(E_SCREENRECORD_MODULE_VCAP) != ZU_OK) {
        SR_LOGE(" _SCREENRECORD_InitModule VCAP Failed!\n");
        return -1;
    }
    _SCREENRECORD_GetModuleCaps();
    TakeParams(params);
    _SCREENRECORD_ResetRing();
    _bPaused = 0;
    SR_LOGD(" info w=%d,h=%d,frameRate=%d,outputBitrate=%d!\n", static_cast<int>(params->width),
            static_cast<int>(params->height), static_cast<int>(params->frameRate),
            static_cast<int>(params->outputBitrate));

    _SCREENRECORD_ResetTask(pstVcap, E_SCREENRECORD_MODULE_VCAP);
    if (_SCREENRECORD_OpenVcap(&_astSlotCtrl[0], pstVcap) != ZU_OK) {
        SR_LOGE(" _SCREENRECORD_OpenVcap Failed!\n");
        return -1;
    }
    if (pstVenc->u32Handle != 0) {
        SR_LOGE(" Venc not closed,Please close venc!handle =%x\n", pstVenc->u32Handle.Get());
        return -1;
    }
    if (!_SCREENRECORD_AllocateRing()) {
        SR_LOGE("malloc %d failed", CAPENC_MAX_FRAME_SIZE);
        _SCREENRECORD_CloseVcap(pstVcap);
        return -1;
    }
    _SCREENRECORD_ResetTask(pstVenc, E_SCREENRECORD_MODULE_VENC);
    if (_SCREENRECORD_OpenVenc_NoTs(*params) != ZU_OK) {
        SR_LOGE(" _SCREENRECORD_OpenVenc Failed!\n");
        _SCREENRECORD_CloseVcap(pstVcap);
        return -1;
    }
    return 0;
}

s32 video_capenc_start(s64 startTimeUs)
{
    const ControlLock lock(_controlMutex);
    if (!_SCREENRECORD_PrepareWatermark())
        return -1;
    u32 u32Result = _SCREENRECORD_StartModule(_SCREENRECORD_CaptureTask(), 0);
    if (u32Result != ZU_OK) {
        SR_LOGE("Error 0x%x: failed to Start Vcap\n", u32Result);
        return AbandonStart();
    }
    EncoderTask()->u64StartTimeUs = startTimeUs;
    u32Result = _SCREENRECORD_StartModule(EncoderTask(), 0);
    if (u32Result != ZU_OK) {
        SR_LOGE("Error 0x%x: failed to Start VENC\n", u32Result);
        return AbandonStart();
    }
    return 0;
}

s32 video_capenc_stop(void)
{
    const ControlLock lock(_controlMutex);
    if (_SCREENRECORD_StopModule(_SCREENRECORD_CaptureTask()) != ZU_OK) {
        SR_LOGE("Stop VCAP Failed\n");
        return -1;
    }
    _SCREENRECORD_ReleaseWatermark();
    if (_SCREENRECORD_StopModule(EncoderTask()) != ZU_OK) {
        SR_LOGE("Stop VENC Failed\n");
        return -1;
    }
    return 0;
}

s32 video_capenc_close(void)
{
    const ControlLock lock(_controlMutex);
    SCREENRECORD_TaskCtrl_s* pstVcap = _SCREENRECORD_CaptureTask();
    if (pstVcap->u32Handle != 0 && _SCREENRECORD_CloseVcap(pstVcap) != ZU_OK) {
        SR_LOGE("Failed to CloseVcap()\n");
        return -1;
    }
    if (EncoderTask()->u32Handle != 0 && _SCREENRECORD_CloseVenc(EncoderTask()) != ZU_OK) {
        SR_LOGE("Failed to _SCREENRECORD_CloseVenc()\n");
        return -1;
    }
    _SCREENRECORD_FreeRing();
    return 0;
}

s32 video_capenc_pause(void)
{
    _bPaused = 1;
    return 0;
}

s32 video_capenc_resume(void)
{
    _bPaused = 0;
    _bWaitKeyFrame = 1;
    return 0;
}

s32 video_capenc_setBitRate(u32 u32BitRate)
{
    SCREENRECORD_TaskCtrl_s* pstVenc = EncoderTask();
    const GatePass pass(pstVenc->callbackGate);
    const MiddlewareLock lock(pstVenc->s32MutexId);
    const u32 u32Venc = pstVenc->u32Handle;
    if (!lock.MayProceed() || u32Venc == 0)
        return -1;
    const u32 u32Kilobits = u32BitRate >> 10;
    return ZU_VENC_SetAttr(u32Venc, ZU_VENC_ATTR_BITRATE, &u32Kilobits) == ZU_OK ? 0 : -1;
}
