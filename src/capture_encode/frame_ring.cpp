#include "capture_encode/frame_ring.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include <screenrecord/screenrecord.h>

#include "base/log.h"
#include "modules/encoder_output.h"
#include "table/recording_table.h"

CrossThread<u8> _bPaused;
CrossThread<u8> _bWaitKeyFrame;
CrossThread<u64> _au64InputPts[CAPENC_INPUT_COUNT];
CrossThread<u64> _u64LastPts;

namespace {

enum { RING_SIZE = 3 };

struct CapEnc_EsFrame {
    /** CAPENC_MAX_FRAME_SIZE bytes while the pipeline is open */
    CrossThread<u8*> pu8Data;
    u32 u32DataSize = 0;
    u8 u8FrameType = 0;
    /** microseconds of the monotonic clock */
    u64 u64Pts = 0;
    /** the caller has not fetched it yet */
    u8 bFilled = 0;
};

CapEnc_EsFrame _astEsFrameRing[RING_SIZE];
u8 _u8EsReadIdx;
CrossThread<u8> _u8EsWriteIdx;
/**
 * The frame after the last one in the ring was lost. Implies _bWaitKeyFrame.
 */
bool _bTailLost;

/**
 * Guards the ring. The encoder's middleware mutex is not enough, because it exists only between
 * start and stop: before and after, the caller fetches frames while a late callback may still
 * arrive.
 */
std::mutex _ringMutex;

u8 NextIndex(u8 u8Index)
{
    return static_cast<u8>((u8Index + 1) % RING_SIZE);
}

void LogDrop(u64 u64Pts, u32 u32DataSize, u8 u8FrameType)
{
    SR_HELPER_LOGD("drop u64Pts: %lld, u32DataSize: %d, u8FrameType: %d",
                   static_cast<long long>(u64Pts), static_cast<int>(u32DataSize), u8FrameType);
}

/** Drops a buffered frame: the oldest one, if the ring's indices are consistent. */
void DropBuffered(CapEnc_EsFrame& stFrame)
{
    LogDrop(stFrame.u64Pts, stFrame.u32DataSize, stFrame.u8FrameType);
    stFrame.bFilled = 0;
    _u8EsReadIdx = NextIndex(_u8EsReadIdx);
}

/**
 * Drops frames up to the next key frame. Keeps waiting for a new key frame if none is buffered, or
 * if the frame after the buffered ones was lost.
 */
void _dropToNextKeyFrame_lock()
{
    const LogAs as(__func__);
    _bWaitKeyFrame = 1;
    while (_astEsFrameRing[_u8EsReadIdx].bFilled != 0) {
        if (_astEsFrameRing[_u8EsReadIdx].u8FrameType == E_ZU_VENC_FRAME_TYPE_KEY) {
            _bWaitKeyFrame = _bTailLost;
            return;
        }
        DropBuffered(_astEsFrameRing[_u8EsReadIdx]);
    }
}

/**
 * Capture time of a frame's picture. A key frame has no input index and gets the last picture's
 * time.
 */
u64 CaptureTimeOf(const ZU_VENC_FrameInfo_t& stFrame)
{
    if (stFrame.u8FrameType != E_ZU_VENC_FRAME_TYPE_KEY &&
        stFrame.u32InBufIndex < CAPENC_INPUT_COUNT)
        return _au64InputPts[stFrame.u32InBufIndex];
    const u64 u64LastPts = _u64LastPts;
    SR_HELPER_LOGD("pts from %lld to last %lld", static_cast<long long>(stFrame.u64Pts),
                   static_cast<long long>(u64LastPts));
    return u64LastPts;
}

/** Records the first valid time. False for an earlier frame, which has none. */
bool NoteFirstPts(SCREENRECORD_TaskCtrl_s* pstVenc, u64 u64Pts)
{
    if (pstVenc->bFirstPtsSet != 0)
        return true;
    if (u64Pts == SCREENRECORD_NO_PTS) {
        SR_HELPER_LOGE("Invalid pts fstpts=%d,pts=%lld\n", 0, -1ll);
        return false;
    }
    pstVenc->u64FirstPts = u64Pts;
    pstVenc->bFirstPtsSet = 1;
    return true;
}

bool RingIsAllocated()
{
    if (_astEsFrameRing[_u8EsWriteIdx].pu8Data != nullptr)
        return true;
    SR_HELPER_LOGE("Invalid frame data pointer!\n");
    return false;
}

/** Makes room in a full ring: drops the frames before its next key frame. */
void MakeRoom()
{
    CapEnc_EsFrame& stNext = _astEsFrameRing[_u8EsWriteIdx];
    if (stNext.bFilled == 0)
        return;
    SR_HELPER_LOGE("write index overlap read index, will try to drop to next I frames");
    DropBuffered(stNext);
    _dropToNextKeyFrame_lock();
}

/** False for a frame that must be dropped: after a loss, any frame before the next key frame. */
bool PassesKeyFrameWait(const ZU_VENC_FrameInfo_t& stFrame)
{
    if (_bWaitKeyFrame != 1)
        return true;
    if (stFrame.u8FrameType != E_ZU_VENC_FRAME_TYPE_KEY) {
        LogDrop(stFrame.u64Pts, stFrame.u32DataSize, stFrame.u8FrameType);
        return false;
    }
    _bWaitKeyFrame = 0;
    _bTailLost = false;
    SR_HELPER_LOGD("found first I frame u64Pts: %lld, u32DataSize: %d, u8FrameType: %d",
                   static_cast<long long>(stFrame.u64Pts), static_cast<int>(stFrame.u32DataSize),
                   stFrame.u8FrameType);
    return true;
}

void Store(const ZU_VENC_FrameInfo_t& stFrame)
{
    SR_HELPER_LOGD("u64Pts: %lld, u32DataSize: %d, u8FrameType: %d",
                   static_cast<long long>(stFrame.u64Pts), static_cast<int>(stFrame.u32DataSize),
                   stFrame.u8FrameType);
    CapEnc_EsFrame& stEntry = _astEsFrameRing[_u8EsWriteIdx];
    memcpy(stEntry.pu8Data, stFrame.pu8Data, stFrame.u32DataSize);
    stEntry.u32DataSize = stFrame.u32DataSize;
    stEntry.u64Pts = stFrame.u64Pts;
    stEntry.u8FrameType = stFrame.u8FrameType;
    stEntry.bFilled = 1;
    _u8EsWriteIdx = NextIndex(_u8EsWriteIdx);
}

/** Stores a stamped frame in the ring, or drops it if it is too large or the ring is waiting. */
void StoreOrDrop(const ZU_VENC_FrameInfo_t& stFrame)
{
    if (stFrame.u32DataSize > CAPENC_MAX_FRAME_SIZE) {
        // The next frames cannot be decoded without it: resume at a key frame, as after any loss.
        LogDrop(stFrame.u64Pts, stFrame.u32DataSize, stFrame.u8FrameType);
        _bWaitKeyFrame = 1;
        _bTailLost = true;
        return;
    }
    MakeRoom();
    if (PassesKeyFrameWait(stFrame))
        Store(stFrame);
}

/** Copies the head of the ring to the caller and removes it, even if it does not fit. */
s32 video_capenc_getES_lock(u8* pu8Buffer, u64 u64BufferSize, CapEnc_EsInfo* pstInfo)
{
    CapEnc_EsFrame& stHead = _astEsFrameRing[_u8EsReadIdx];
    if (stHead.bFilled == 0) {
        pstInfo->u64DataSize = 0;
        return 0;
    }
    pstInfo->bTypeZero = stHead.u8FrameType == 0;
    pstInfo->bKeyFrame = stHead.u8FrameType == E_ZU_VENC_FRAME_TYPE_KEY;
    pstInfo->u64Pts = stHead.u64Pts;
    pstInfo->u64DataSize = stHead.u32DataSize;
    const bool bFits = u64BufferSize >= stHead.u32DataSize;
    if (bFits)
        memcpy(pu8Buffer, stHead.pu8Data, stHead.u32DataSize);
    else
        SR_LOGE("bufferSize(%lld) is smaller than dataSize(%lld), drop frame !",
                static_cast<long long>(u64BufferSize), static_cast<long long>(stHead.u32DataSize));
    stHead.bFilled = 0;
    _u8EsReadIdx = NextIndex(_u8EsReadIdx);
    return bFits ? 0 : -1;
}

} // namespace

void _SCREENRECORD_ResetRing()
{
    const std::lock_guard<std::mutex> ringLock(_ringMutex);
    _u8EsReadIdx = 0;
    _u8EsWriteIdx = 0;
    _bWaitKeyFrame = 1;
    _bTailLost = false;
}

bool _SCREENRECORD_AllocateRing()
{
    const std::lock_guard<std::mutex> ringLock(_ringMutex);
    for (CapEnc_EsFrame& stFrame : _astEsFrameRing) {
        stFrame.bFilled = 0;
        if (stFrame.pu8Data == nullptr)
            stFrame.pu8Data = static_cast<u8*>(malloc(CAPENC_MAX_FRAME_SIZE));
        if (stFrame.pu8Data == nullptr)
            return false;
    }
    return true;
}

void _SCREENRECORD_FreeRing()
{
    const std::lock_guard<std::mutex> ringLock(_ringMutex);
    for (CapEnc_EsFrame& stFrame : _astEsFrameRing) {
        free(stFrame.pu8Data.Exchange(nullptr));
        stFrame.bFilled = 0;
    }
}

u32 _SCREENRECORD_VencCbHandler_NoTs(s32 s32Handle, u32 u32Event, ZU_VENC_FrameInfo_t* pstFrame,
                                     void*)
{
    const LogAs as(__func__);
    if (pstFrame == nullptr)
        return ZU_INVALID_ARGUMENT;
    const CallbackGuard guard(E_SCREENRECORD_MODULE_VENC, static_cast<u32>(s32Handle));
    u32 u32SlotId = 0;
    if (_SCREENRECORD_Handle2SlotId(guard, &u32SlotId) != ZU_OK)
        return ZU_FAILURE;
    if (!RingIsAllocated())
        return ZU_FAILURE;
    SCREENRECORD_TaskCtrl_s* pstVenc = _SCREENRECORD_TaskOf(u32SlotId, E_SCREENRECORD_MODULE_VENC);
    const MiddlewareLock lock(pstVenc->s32MutexId);
    if (!lock.HeldOrNone())
        return ZU_FAILURE;
    const std::lock_guard<std::mutex> ringLock(_ringMutex);
    if (!RingIsAllocated()) // freed by a close that timed out on this callback
        return ZU_FAILURE;

    if (const auto answer = _SCREENRECORD_CheckEncodedFrame(u32Event, *pstFrame, pstVenc))
        return *answer;
    pstFrame->u64Pts = CaptureTimeOf(*pstFrame);
    if (NoteFirstPts(pstVenc, pstFrame->u64Pts))
        StoreOrDrop(*pstFrame);
    return ZU_OK;
}

s32 video_capenc_getES(u8* buffer, u64 bufferSize, CapEnc_EsInfo* info)
{
    // The stop that deletes the mutex waits until this call has left the encoder's record.
    SCREENRECORD_TaskCtrl_s* pstVenc = _SCREENRECORD_TaskOf(0, E_SCREENRECORD_MODULE_VENC);
    const GatePass pass(pstVenc->callbackGate);
    const MiddlewareLock lock(pstVenc->s32MutexId);
    if (!lock.HeldOrNone()) {
        info->u64DataSize = 0;
        return -1;
    }
    const std::lock_guard<std::mutex> ringLock(_ringMutex);
    return video_capenc_getES_lock(buffer, bufferSize, info);
}

u32 video_capenc_getMaxEsSize(void)
{
    return CAPENC_MAX_FRAME_SIZE;
}

s32 video_capenc_requestKeyFrame(void)
{
    SCREENRECORD_TaskCtrl_s* pstVenc = _SCREENRECORD_TaskOf(0, E_SCREENRECORD_MODULE_VENC);
    const GatePass pass(pstVenc->callbackGate);
    const MiddlewareLock lock(pstVenc->s32MutexId);
    if (!lock.HeldOrNone()) {
        SR_LOGE("No key frame requested, the lock was not obtained\n");
        return 0;
    }
    const std::lock_guard<std::mutex> ringLock(_ringMutex);
    _dropToNextKeyFrame_lock();
    return 0;
}
