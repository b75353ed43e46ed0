#include <screenrecord/screenrecord.h>

#include "base/log.h"
#include "base/picture_size.h"
#include "capture_encode/frame_ring.h"
#include "capture_encode/watermark.h"
#include "modules/encoder.h"
#include "modules/module.h"
#include "modules/screen_capture.h"
#include "table/control_call.h"

namespace {

/** bit/s */
constexpr u32 DEFAULT_BITRATE = 0x100000;

SCREENRECORD_TaskCtrl_s* EncoderTask()
{
    return _SCREENRECORD_TaskOf(0, E_SCREENRECORD_MODULE_VENC);
}

/**
 * Rounds the caller's size and copies the parameters into the slot; 0 becomes the default.
 */
void ApplyParams(CapEnc_OpenParams* pstParams)
{
    pstParams->width = _SCREENRECORD_CaptureWidth(pstParams->width);
    pstParams->height = _SCREENRECORD_CaptureHeight(pstParams->height);
    SCREENRECORD_SrcInfo_s& stSrcInfo = _astSlotCtrl[0].stSrcInfo;
    stSrcInfo.u32Width = _SCREENRECORD_ValueOr(pstParams->width, SCREENRECORD_DEFAULT_WIDTH);
    stSrcInfo.u32Height = _SCREENRECORD_ValueOr(pstParams->height, SCREENRECORD_DEFAULT_HEIGHT);
    stSrcInfo.u32FrameRate =
        _SCREENRECORD_ValueOr(pstParams->frameRate, SCREENRECORD_DEFAULT_FRAME_RATE);
    stSrcInfo.u32OutputBitrate = _SCREENRECORD_ValueOr(pstParams->outputBitrate, DEFAULT_BITRATE);
    stSrcInfo.bOsd = static_cast<u8>(pstParams->osd);
}

/** Stops and closes after a start that failed half-way. */
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
    ApplyParams(params);
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
    if (_SCREENRECORD_OpenVenc_NoTs(*params, _SCREENRECORD_VencCbHandler_NoTs) != ZU_OK) {
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
    if (!lock.HeldOrNone() || u32Venc == 0)
        return -1;
    const u32 u32Kilobits = u32BitRate >> 10;
    return ZU_VENC_SetAttr(u32Venc, ZU_VENC_ATTR_BITRATE, &u32Kilobits) == ZU_OK ? 0 : -1;
}
