#include <cstring>

#include <utils/Timers.h>

#include "base/log.h"
#include "capture_encode/frame_ring.h"
#include "capture_encode/watermark.h"
#include "modules/display_connection.h"
#include "modules/inject_buffer.h"
#include "table/recording_table.h"

namespace {

/** A picture's address in the uncached, otherwise the cached mapping; NULL if it has neither. */
u8* AddressOf(u64 u64PhyAddr)
{
    u64 u64VirtAddr = 0;
    if (ZU_OS_Pa2NonCachedVa(u64PhyAddr, &u64VirtAddr) != ZU_OK || u64VirtAddr == 0) {
        if (ZU_OS_Pa2CachedVa(u64PhyAddr, &u64VirtAddr) != ZU_OK)
            return nullptr;
    }
    return reinterpret_cast<u8*>(static_cast<uintptr_t>(u64VirtAddr));
}

/** Inject mode: gives the encoder the address of the picture, without a copy. */
void PointEncoderAt(u8* pu8Picture, ZU_VENC_InputBuffer_t& stInput)
{
    stInput.pu8Data = pu8Picture;
    stInput.bEntireInject = 1;
    stInput.u32DataSize = _astSlotCtrl[0].stSrcInfo.u32FrameSize;
}

/**
 * Copy mode: copies the picture into a buffer that the encoder lends, as much as fits.
 * @param u32PictureSize bytes that the capture wrote
 */
void CopyToEncoder(u32 u32Venc, const u8* pu8Picture, u32 u32PictureSize,
                   ZU_VENC_InputBuffer_t& stInput)
{
    stInput.bEntireInject = 0;
    const bool bLent = ZU_VENC_QueryBuffer(u32Venc, &stInput) == ZU_OK;
    if (!bLent || stInput.pu8Data == nullptr || stInput.u32DataSize == 0) {
        ZU_OS_DelayTask(SCREENRECORD_ENCODER_BUSY_MS);
        SR_HELPER_LOGD("venc query buffer is null\n");
    }
    // A failed query lends nothing, even if it wrote to the record. If the encoder lends the
    // captured picture itself, there is nothing to copy.
    if (bLent && stInput.pu8Data != nullptr && stInput.pu8Data != pu8Picture)
        memcpy(stInput.pu8Data, pu8Picture,
               stInput.u32DataSize < u32PictureSize ? stInput.u32DataSize : u32PictureSize);
}

/**
 * Numbers and stamps the picture. Writes _au64InputPts before the encoder gets the picture, because
 * the encoder's output callback reads the time there.
 */
void StampPicture(SCREENRECORD_TaskCtrl_s* pstVenc, s64 s64Pts, ZU_VENC_InputBuffer_t& stInput)
{
    const u32 u32Index = (pstVenc->u32InBufIndex + 1) & 15;
    pstVenc->u32InBufIndex = u32Index;
    stInput.u32InBufIndex = u32Index;
    if (_bWaitKeyFrame == 1)
        stInput.bRequestIFrame = 1;
    _au64InputPts[u32Index] = static_cast<u64>(s64Pts);
    stInput.u64Pts = static_cast<u64>(s64Pts);
    _u64LastPts = static_cast<u64>(s64Pts);
}

/** True if the picture is older than the start time or falls into a pause. */
bool IsDropped(const SCREENRECORD_TaskCtrl_s* pstVenc, s64 s64Pts)
{
    const s64 s64StartTimeUs = pstVenc->u64StartTimeUs;
    if (s64Pts < s64StartTimeUs) {
        SR_HELPER_LOGD("Drop capture frame, pts(%lld) < startTimeUs(%lld)\n",
                       static_cast<long long>(s64Pts), static_cast<long long>(s64StartTimeUs));
        return true;
    }
    if (_bPaused == 1) {
        SR_HELPER_LOGD("Drop capture frame, pts(%lld), cause by pausing\n",
                       static_cast<long long>(s64Pts));
        return true;
    }
    return false;
}

} // namespace

u32 _SCREENRECORD_Callback(s32 s32Handle, u32, ZU_CAP_FrameInfo_t* pstFrame, void* pUserData)
{
    const LogAs as(__func__);
    const CallbackGuard guard(E_SCREENRECORD_MODULE_VCAP, static_cast<u32>(s32Handle));
    if (!guard.Found()) {
        SR_LOGD("Drop capture frame, its capture is closed\n");
        return 1;
    }
    // The pictures of both slots go to slot 0's encoder, so that must not close meanwhile either.
    SCREENRECORD_TaskCtrl_s* pstVenc = _SCREENRECORD_TaskOf(0, E_SCREENRECORD_MODULE_VENC);
    const GatePass encoderPass(pstVenc->callbackGate);
    const u32 u32Cap = static_cast<u32>(s32Handle);

    SR_LOGD_LINE(
        "(%s %d) Cap Callback! pUsrParam:%s Y Addr=0x%llx, C Addr=0x%llx, u32BufIndex=%u, buffer fd=%d, buffer physic=0x%llx\n",
        static_cast<const char*>(pUserData), static_cast<unsigned long long>(pstFrame->phyYAddr),
        static_cast<unsigned long long>(pstFrame->phyCAddr), pstFrame->u32BufIndex,
        _stInjectBufFd.s32Fd.Get(), static_cast<unsigned long long>(_stInjectBufFd.u64PhyAddr));
    const s64 s64Pts = systemTime(SYSTEM_TIME_MONOTONIC) / 1000;
    if (IsDropped(pstVenc, s64Pts)) {
        ZU_CAP_ProcessBufDone(u32Cap, pstFrame->u32BufIndex);
        return 1;
    }
    u8* pu8Picture = AddressOf(pstFrame->phyYAddr);
    if (pu8Picture == nullptr) {
        SR_LOGE("Fail to convert phyYAddr(0x%llx) to virtual address\n",
                static_cast<unsigned long long>(pstFrame->phyYAddr));
        ZU_CAP_ProcessBufDone(u32Cap, pstFrame->u32BufIndex);
        return 1;
    }

    const u32 u32Venc = pstVenc->u32Handle;
    ZU_VENC_InputBuffer_t stInput = {};
    if (_bUseEntireInjectBuf == 1) {
        PointEncoderAt(pu8Picture, stInput);
        _SCREENRECORD_RenderWatermark(*pstFrame);
    } else {
        CopyToEncoder(u32Venc, pu8Picture, _astSlotCtrl[guard.SlotId()].stSrcInfo.u32FrameSize,
                      stInput);
    }
    if (ZU_CAP_ProcessBufDone(u32Cap, pstFrame->u32BufIndex) != ZU_OK) {
        SR_LOGE_LINE("\033[35m%s %d[ ZU_CAP_ProcessBufDone bufindex = %d fail !!]\033[m\n",
                     static_cast<int>(pstFrame->u32BufIndex));
        return 0;
    }
    StampPicture(pstVenc, s64Pts, stInput);
    if (ZU_VENC_WriteBufferComplete(u32Venc, &stInput) != ZU_OK) {
        SR_LOGE("Failed to ZU_VENC_WriteBufferComplete(...)!\n");
        ZU_OS_DelayTask(SCREENRECORD_ENCODER_BUSY_MS);
    }
    return 1;
}
