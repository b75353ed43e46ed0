/** The watermark worker, which draws into the pictures of the inject buffer. */
#ifndef SCREENRECORD_CAPTURE_ENCODE_WATERMARK_H
#define SCREENRECORD_CAPTURE_ENCODE_WATERMARK_H

#include <srglworker/SrGlWorker.h>
#include <zu3/cap.h>

/** Prepares the worker, if any. False if it fails. */
bool _SCREENRECORD_PrepareWatermark();
/**
 * Withdraws the worker from the captured-frame handler, waits for handlers that use it, and
 * releases it.
 */
void _SCREENRECORD_ReleaseWatermark();
/**
 * Draws the watermark into a captured picture in place, on the capture's thread. Does nothing
 * without a worker or a descriptor, or if the picture is outside the inject buffer.
 */
void _SCREENRECORD_RenderWatermark(const ZU_CAP_FrameInfo_t& stFrame);

#endif
