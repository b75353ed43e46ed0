#include "modules/encoder_output.h"

#include <zu3/tsmux.h>

#include "base/log.h"

namespace {

enum { MULTIPLEXER_BUSY_MS = 200 };

/**
 * Sets the origin of relative times from the first frame with a time stamp. False while there is
 * none.
 */
bool EstablishOrigin(SCREENRECORD_TaskCtrl_s* pstVenc, const ZU_VENC_FrameInfo_t& stFrame)
{
    if (pstVenc->bFirstPtsSet != 0)
        return true;
    if (stFrame.u64Pts == SCREENRECORD_NO_PTS)
        return false;
    pstVenc->u64FirstPts = stFrame.u64Pts;
    pstVenc->bFirstPtsSet = 1;
    return true;
}

u64 RelativePts(const SCREENRECORD_TaskCtrl_s* pstVenc, const ZU_VENC_FrameInfo_t& stFrame)
{
    if (stFrame.u64Pts == SCREENRECORD_NO_PTS || stFrame.u8FrameType == E_ZU_VENC_FRAME_TYPE_KEY)
        return SCREENRECORD_NO_PTS;
    u64 u64Relative = 0;
    // Modulo 2^64 by design: a frame from before the origin keeps its distance from the others.
    static_cast<void>(
        __builtin_sub_overflow(stFrame.u64Pts, pstVenc->u64FirstPts.Get(), &u64Relative));
    return u64Relative;
}

/**
 * Pushes, and retries while the multiplexer is busy. Gives up when the encoder is stopping or its
 * handle is gone, because a close then waits for this callback.
 */
u32 Push(const SCREENRECORD_TaskCtrl_s* pstVenc, u32 u32Venc, u32 u32Tsmux,
         const ZU_TSMUX_MediaData_t& stData)
{
    for (;;) {
        const u32 u32Result = ZU_TSMUX_PushMediaData(u32Tsmux, &stData);
        if (u32Result != ZU_BUSY)
            return u32Result;
        ZU_OS_DelayTask(MULTIPLEXER_BUSY_MS);
        if (pstVenc->bTaskExit != 0 || pstVenc->u32Handle != u32Venc)
            return ZU_BUSY;
    }
}

} // namespace

std::optional<u32> _SCREENRECORD_CheckEncodedFrame(u32 u32Event, const ZU_VENC_FrameInfo_t& stFrame,
                                                   SCREENRECORD_TaskCtrl_s* pstVenc)
{
    if (u32Event != ZU_VENC_EVENT_FRAME) {
        SR_HELPER_LOGE("eEvent Error!\n");
        return ZU_OK;
    }
    if (stFrame.u8FrameType != E_ZU_VENC_FRAME_TYPE_KEY)
        pstVenc->u32LastInBufIndex = stFrame.u32InBufIndex;
    if (stFrame.pu8Data == nullptr && stFrame.u32DataSize == 0) {
        SR_HELPER_LOGD("[ZU DEMO TRANSCODE] Drop Frame\n");
        return ZU_OK;
    }
    if (stFrame.pu8Data == nullptr || stFrame.u32DataSize == 0) {
        SR_HELPER_LOGE("Invalid pu8Data\n");
        return ZU_INVALID_ARGUMENT;
    }
    return std::nullopt;
}

u32 _SCREENRECORD_VencCbHandler(s32 s32Handle, u32 u32Event, ZU_VENC_FrameInfo_t* pstFrame, void*)
{
    const LogAs as(__func__);
    if (pstFrame == nullptr)
        return ZU_INVALID_ARGUMENT;
    const u32 u32Venc = static_cast<u32>(s32Handle);
    const CallbackGuard guard(E_SCREENRECORD_MODULE_VENC, u32Venc);
    u32 u32SlotId = 0;
    if (_SCREENRECORD_Handle2SlotId(guard, &u32SlotId) != ZU_OK)
        return ZU_FAILURE;
    SCREENRECORD_TaskCtrl_s* pstVenc = _SCREENRECORD_TaskOf(u32SlotId, E_SCREENRECORD_MODULE_VENC);
    // not checked: there is one frame at a time, so it may proceed without the mutex
    const MiddlewareLock lock(pstVenc->s32MutexId);

    if (const auto answer = _SCREENRECORD_CheckEncodedFrame(u32Event, *pstFrame, pstVenc))
        return *answer;
    if (!EstablishOrigin(pstVenc, *pstFrame))
        return ZU_OK;

    const ZU_TSMUX_MediaData_t stData = {.u64MuxSrcId = pstVenc->u64MuxSrcId,
                                         .pu8Data = pstFrame->pu8Data,
                                         .u32DataSize = pstFrame->u32DataSize,
                                         .u64Pts = RelativePts(pstVenc, *pstFrame)};
    if (pstVenc->bTaskExit != 0)
        return ZU_OK;
    // Also without a multiplexer: the middleware then refuses.
    const u32 u32Tsmux = _SCREENRECORD_TaskOf(u32SlotId, E_SCREENRECORD_MODULE_TSMUX)->u32Handle;
    const u32 u32Result = Push(pstVenc, u32Venc, u32Tsmux, stData);
    if (u32Result != ZU_OK && u32Result != ZU_BUSY)
        SR_LOGE("Error 0x%x: failed to ZU_TSMUX_PushMediaData(VencCbHandler)\n", u32Result);
    return u32Result;
}
