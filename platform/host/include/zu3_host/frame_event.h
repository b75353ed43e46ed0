/**
 * Wakes a client that takes encoded frames, beside the contract. A client looks the function up by
 * name (dlsym), since another platform has none: there it looks for frames by the clock.
 */
#ifndef ZU3_HOST_FRAME_EVENT_H
#define ZU3_HOST_FRAME_EVENT_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * A descriptor that becomes readable when an encoder's callback has taken a frame, so that
 * video_capenc_getES has it. It is an eventfd (close-on-exec, non-blocking): read its 8 bytes, then
 * take frames until there is none. One for the whole process, made by the first call, from any
 * thread; it belongs to the platform, so do not close it.
 *
 * @return the descriptor, or -1 where none could be had
 */
int zu3_host_frame_event(void);

#ifdef __cplusplus
}
#endif

#endif
