/**
 * Tells the capture, beside the contract, that a renderer has drawn over a captured picture.
 * Without this call the capture later converts only the changed parts of the screen into that
 * buffer.
 */
#ifndef ZU3_HOST_DRAWN_PICTURE_H
#define ZU3_HOST_DRAWN_PICTURE_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Call it in a capture's callback, on the callback's thread, after drawing into the callback's
 * picture. Does nothing on other threads.
 */
void zu3_host_picture_drawn_on(void);

#ifdef __cplusplus
}
#endif

#endif
