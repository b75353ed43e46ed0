#ifndef SCREENRECORD_STREAM_ENCODER_OUTPUT_H
#define SCREENRECORD_STREAM_ENCODER_OUTPUT_H

#include <zu3/venc.h>

/** A time stamp that says there is none. */
inline constexpr u64 SCREENRECORD_NO_PTS = ~0ull;

/**
 * Encoder callback of a transport-stream recording: pushes each encoded frame into the slot's multiplexer,
 * with its time relative to the first valid one. Waits while the multiplexer is busy, until the encoder is
 * stopped.
 * @return ZU_OK (pushed or dropped), ZU_INVALID_ARGUMENT for inconsistent data, ZU_FAILURE for an unknown
 * encoder, else the push's result
 */
u32 _SCREENRECORD_VencCbHandler(s32 s32Handle, u32 u32Event, ZU_VENC_FrameInfo_t* pstFrame, void* pUserData);

#endif
