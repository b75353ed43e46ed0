/**
 * The ring of encoded frames between the encoder and the caller of the capture-encode interface.
 */
#ifndef SCREENRECORD_CAPTURE_ENCODE_FRAME_RING_H
#define SCREENRECORD_CAPTURE_ENCODE_FRAME_RING_H

#include <zu3/venc.h>

#include "base/cross_thread.h"

enum {
    /** bytes of one ring buffer */
    CAPENC_MAX_FRAME_SIZE = 2 * 1024 * 1024,
    /** input-buffer indices of the encoder */
    CAPENC_INPUT_COUNT = 16,
};

/** 1 = captured pictures are dropped. */
extern CrossThread<u8> _bPaused;
/**
 * 1 = the ring accepts only a key frame; the captured-frame handler asks the encoder for one.
 */
extern CrossThread<u8> _bWaitKeyFrame;
/**
 * Capture times, microseconds: by input-buffer index, and of the last picture. Written by the
 * captured-frame handler.
 */
extern CrossThread<u64> _au64InputPts[CAPENC_INPUT_COUNT];
extern CrossThread<u64> _u64LastPts;

/**
 * Rewinds the ring and waits for a key frame. The next allocation drops the buffered frames.
 */
void _SCREENRECORD_ResetRing();
/**
 * Allocates the missing buffers. False if one cannot be allocated; the others stay.
 */
bool _SCREENRECORD_AllocateRing();
void _SCREENRECORD_FreeRing();

/**
 * Encoder callback of the capture-encode interface, on the encoder's thread: stores each access
 * unit in the ring.
 * @return ZU_OK (stored or dropped); ZU_INVALID_ARGUMENT for inconsistent data; ZU_FAILURE for an
 *     unknown encoder, a ring without buffers, or a lock that was not obtained
 */
u32 _SCREENRECORD_VencCbHandler_NoTs(s32 s32Handle, u32 u32Event, ZU_VENC_FrameInfo_t* pstFrame,
                                     void* pUserData);

#endif
