/**
 * Wakes a client that fetches encoded frames, beside the contract. Look the function up by name
 * (dlsym): another platform has none, and its clients poll.
 */
#ifndef ZU3_HOST_FRAME_EVENT_H
#define ZU3_HOST_FRAME_EVENT_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Returns a descriptor that becomes readable when video_capenc_getES has a frame. It is an eventfd
 * (close-on-exec, non-blocking): read its 8 bytes, then fetch frames until there are none. The
 * first call creates the one descriptor of the process; do not close it. Any thread.
 *
 * @return the descriptor, or -1 on a failure
 */
int zu3_host_frame_event(void);

#ifdef __cplusplus
}
#endif

#endif
