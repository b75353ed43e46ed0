/** State of the capture-encode pipeline that capture and control share. */
#ifndef SCREENRECORD_CAPTURE_ENCODE_CAPTURE_ENCODE_H
#define SCREENRECORD_CAPTURE_ENCODE_CAPTURE_ENCODE_H

#include <zu3/types.h>

#include "base/cross_thread.h"

/** 1 = captured pictures are dropped. */
extern CrossThread<u8> _bPaused;
/** 1 = the capture writes its pictures straight into the encoder's entire inject buffer. */
extern CrossThread<u8> _bUseEntireInjectBuf;

/** The encoder's entire inject buffer, as the encoder described it. */
struct SCREENRECORD_EntireInjectBuf_s {
    CrossThread<u32> u32VirtAddr; /**< 0 = none */
    CrossThread<u32> u32Size;     /**< bytes */
};
extern SCREENRECORD_EntireInjectBuf_s _stEntireInjectBuf;

#endif
