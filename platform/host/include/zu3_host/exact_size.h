/**
 * Sets the exact size of a stream of encoded frames, beside the contract. The capture-encode
 * interface rounds sizes up to multiples of 16x32; with this call the stream crops the excess. Look
 * the function up by name (dlsym): another platform has none, and its streams have the rounded
 * size.
 */
#ifndef ZU3_HOST_EXACT_SIZE_H
#define ZU3_HOST_EXACT_SIZE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Applies to the next encoder that opens, if it opens with this size rounded up to 16x32; any other
 * open uses the call up without effect. The screen fills the exact size. Pixels to the right of it
 * or below are cropped, including those that a client draws into an inject buffer. Any thread.
 *
 * @param width,height even, 64x64 to 3840x2176 pixels; other sizes change nothing
 */
void zu3_host_exact_size(uint32_t width, uint32_t height);

#ifdef __cplusplus
}
#endif

#endif
