#ifndef SCREENRECORD_MODULES_ENCODER_OUTPUT_H
#define SCREENRECORD_MODULES_ENCODER_OUTPUT_H

#include <optional>

#include "table/recording_table.h"

/** No time stamp. */
inline constexpr u64 SCREENRECORD_NO_PTS = ~0ull;

/**
 * The checks at the start of every encoder callback: the event, and that data and size agree.
 * Records the input index in the encoder's record. A fault is logged.
 * @return nullopt for a valid frame; otherwise the callback's result: ZU_OK for another event and
 *     for a picture that the encoder dropped, ZU_INVALID_ARGUMENT for data without size or size
 *     without data
 */
std::optional<u32> _SCREENRECORD_CheckEncodedFrame(u32 u32Event, const ZU_VENC_FrameInfo_t& stFrame,
                                                   SCREENRECORD_TaskCtrl_s* pstVenc);

/**
 * Encoder callback of a transport-stream recording, on the encoder's thread: pushes each access
 * unit into the slot's multiplexer, with its time relative to the first valid one. Waits while the
 * multiplexer is busy, until the encoder is stopped.
 * @return ZU_OK (pushed or dropped); ZU_INVALID_ARGUMENT for inconsistent data; ZU_FAILURE for an
 *     unknown encoder; otherwise the result of the push
 */
u32 _SCREENRECORD_VencCbHandler(s32 s32Handle, u32 u32Event, ZU_VENC_FrameInfo_t* pstFrame,
                                void* pUserData);

#endif
