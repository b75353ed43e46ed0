/**
 * The exact size of a stream of encoded frames, beside the contract. The capture-encode interface
 * rounds sizes up to multiples of 16x32, and its pictures have that many lines; with this the
 * stream says which of them are to be seen. A client looks the function up by name (dlsym), since
 * another platform has none: there the stream has the rounded size.
 */
#ifndef ZU3_HOST_EXACT_SIZE_H
#define ZU3_HOST_EXACT_SIZE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Has the next encoder that is opened make a stream of this size, if it is opened with it rounded
 * up to 16x32; whatever it is opened with, the call is used up. The screen is placed into the exact
 * size, and what else is drawn to the right of it or below, into an inject buffer for example, is
 * cropped. Without the call all of the rounded size is seen. From any thread.
 *
 * @param width,height even, 64x64 to 3840x2176 pixels; other sizes change nothing
 */
void zu3_host_exact_size(uint32_t width, uint32_t height);

#ifdef __cplusplus
}
#endif

#endif
