#ifndef SCREENRECORD_CAPTURE_ENCODE_CAPTURED_FRAME_H
#define SCREENRECORD_CAPTURE_ENCODE_CAPTURED_FRAME_H

#include <zu3/cap.h>

/**
 * The capture's callback, once per picture, on the capture's own thread: decides whether the picture is
 * encoded and hands it to slot 0's encoder with the time at which it arrived. Lock-free.
 * @return 1; 0 when the capture did not take its buffer back (the picture is not encoded then)
 */
u32 _SCREENRECORD_Callback(s32 s32Handle, u32 u32Event, ZU_CAP_FrameInfo_t* pstFrame, void* pUserData);

#endif
