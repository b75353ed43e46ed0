#ifndef SCREENRECORD_MODULES_ENCODER_OUTPUT_H
#define SCREENRECORD_MODULES_ENCODER_OUTPUT_H

#include <optional>

#include "table/recording_table.h"

/** A time stamp that says there is none. */
inline constexpr u64 SCREENRECORD_NO_PTS = ~0ull;

/**
 * The checks that every encoder callback begins with: the event, the input index (noted in the
 * encoder's record) and whether data and size agree. A fault is logged.
 * @return nothing for a good frame, otherwise the callback's answer: ZU_OK for an event that is no
 * frame and for a picture that the encoder dropped, ZU_INVALID_ARGUMENT for data without size or
 * size without data
 */
std::optional<u32> _SCREENRECORD_CheckEncodedFrame(u32 u32Event, const ZU_VENC_FrameInfo_t& stFrame,
                                                   SCREENRECORD_TaskCtrl_s* pstVenc);

/**
 * Encoder callback of a transport-stream recording: pushes each encoded frame into the slot's
 * multiplexer, with its time relative to the first valid one. Waits while the multiplexer is busy,
 * until the encoder is stopped.
 * @return ZU_OK (pushed or dropped), ZU_INVALID_ARGUMENT for inconsistent data, ZU_FAILURE for an
 * unknown encoder, otherwise the push's result
 */
u32 _SCREENRECORD_VencCbHandler(s32 s32Handle, u32 u32Event, ZU_VENC_FrameInfo_t* pstFrame,
                                void* pUserData);

#endif
