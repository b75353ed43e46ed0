/** The watermark worker, and the memory of the inject buffer that it draws into. */
#ifndef SCREENRECORD_CAPTURE_ENCODE_WATERMARK_H
#define SCREENRECORD_CAPTURE_ENCODE_WATERMARK_H

#include <srglworker/SrGlWorker.h>
#include <zu3/cap.h>

#include "base/cross_thread.h"

/** IOMMU descriptor of the entire inject buffer; written by control calls, read by the captured-frame
 * handler. */
struct SCREENRECORD_InjectBufFd_s {
    CrossThread<u64> u64PhyAddr;
    CrossThread<s32> s32Fd = -1; /**< -1 = none */
};
extern SCREENRECORD_InjectBufFd_s _stInjectBufFd;

/** IOMMU description of the entire inject buffer. */
struct SCREENRECORD_InjectBufInfo_s {
    u64 u64PhyAddr = 0;
    CrossThread<u64> u64StartPhyAddr; /**< start of the IOMMU block that contains it */
};
extern SCREENRECORD_InjectBufInfo_s _stInjectBufInfo;

/** Makes the worker, if any, ready to render. False when it refuses. */
bool _SCREENRECORD_PrepareWatermark();
/** Takes the worker away from the captured-frame handler, waits until the handler has let go, and releases
 * it. */
void _SCREENRECORD_ReleaseWatermark();
/**
 * Draws the watermark into a captured picture of the inject buffer, in place; on the capture's thread.
 * Nothing happens without a worker, without a descriptor, or for a picture outside the buffer.
 */
void _SCREENRECORD_RenderWatermark(const ZU_CAP_FrameInfo_t& stFrame);

#endif
