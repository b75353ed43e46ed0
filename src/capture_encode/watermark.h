/** The watermark worker, which draws into the pictures of the inject buffer. */
#ifndef SCREENRECORD_CAPTURE_ENCODE_WATERMARK_H
#define SCREENRECORD_CAPTURE_ENCODE_WATERMARK_H

#include <srglworker/SrGlWorker.h>
#include <zu3/cap.h>

/** Makes the worker, if any, ready to render. False when it refuses. */
bool _SCREENRECORD_PrepareWatermark();
/**
 * Withdraws the worker from the captured-frame handler, waits until the handler has let go, and
 * releases it.
 */
void _SCREENRECORD_ReleaseWatermark();
/**
 * Draws the watermark into a captured picture of the inject buffer, in place; on the capture's
 * thread. Nothing happens without a worker, without a descriptor, or for a picture outside the
 * buffer.
 */
void _SCREENRECORD_RenderWatermark(const ZU_CAP_FrameInfo_t& stFrame);

#endif
