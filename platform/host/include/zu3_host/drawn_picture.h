/**
 * Lets a renderer tell the capture that it has drawn over a captured picture, beside the contract.
 * The capture keeps what it has written into a buffer, and converts only what has changed since.
 */
#ifndef ZU3_HOST_DRAWN_PICTURE_H
#define ZU3_HOST_DRAWN_PICTURE_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Call it in a capture's callback, on the callback's thread, after drawing into the picture of that
 * callback. Does nothing on other threads.
 */
void zu3_host_picture_drawn_on(void);

#ifdef __cplusplus
}
#endif

#endif
