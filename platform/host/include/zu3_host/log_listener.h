/**
 * Passes the log to a client, beside the contract. Look the function up by name (dlsym): another
 * platform has none.
 */
#ifndef ZU3_HOST_LOG_LISTENER_H
#define ZU3_HOST_LOG_LISTENER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Receives log lines, on the thread that logs. It must return at once and must not log.
 *
 * @param tag names the component that logs
 * @param lines one or more lines, each with its line end; not NUL-terminated
 * @param size bytes of `lines`
 */
typedef void (*zu3_host_log_listener_t)(const char* tag, const char* lines, uint32_t size);

/**
 * Also passes warnings and errors to `listener`, even those that ANDROID_LOG_TAGS hides. A process
 * has one listener. A call to the previous one may still be under way when this returns. Any
 * thread.
 *
 * @param listener NULL = none
 */
void zu3_host_listen_to_log(zu3_host_log_listener_t listener);

#ifdef __cplusplus
}
#endif

#endif
