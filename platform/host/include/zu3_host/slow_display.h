/**
 * Lets a client end while a display does not answer, beside the contract. Look the function up by
 * name (dlsym): another platform has none.
 */
#ifndef ZU3_HOST_SLOW_DISPLAY_H
#define ZU3_HOST_SLOW_DISPLAY_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Ends the waits for displays that are under way, within 50 ms: an opening fails, and a capture
 * gets no picture. Later waits are not affected. Any thread.
 */
void zu3_host_give_up_display(void);

#ifdef __cplusplus
}
#endif

#endif
