/**
 * When pictures were due, beside the contract, for clients that place frames on the grid of the
 * frame rate. They look the function up by name (dlsym), since another platform has none.
 */
#ifndef ZU3_HOST_DUE_TIME_H
#define ZU3_HOST_DUE_TIME_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * When a captured picture was due, exactly on the grid of the frame rate. Time stamps of frames tell
 * when the picture was captured: on a busy machine some periods later, on Wayland up to a frame of
 * the screen earlier. From any thread.
 *
 * @param pts time stamp of a frame, microseconds of the monotonic clock
 * @return microseconds of the same clock; 0 unless the picture is one of the last 64 that the
 *     process's encoders accepted
 */
uint64_t zu3_host_due_time(uint64_t pts);

#ifdef __cplusplus
}
#endif

#endif
