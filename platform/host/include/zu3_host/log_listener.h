/**
 * Lets a client hear the log, beside the contract. A client looks the function up by name (dlsym),
 * since another platform has none.
 */
#ifndef ZU3_HOST_LOG_LISTENER_H
#define ZU3_HOST_LOG_LISTENER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Receives what is logged, on the thread that logs: it returns at once and logs nothing itself.
 *
 * @param tag names the part that logs
 * @param lines what would be printed: one line or several, each with its line end; not terminated
 *     by a 0
 * @param size bytes of it
 */
typedef void (*zu3_host_log_listener_t)(const char* tag, const char* lines, uint32_t size);

/**
 * Has warnings and errors handed to `listener` as well, whether ANDROID_LOG_TAGS shows them or not.
 * One for the whole process, from any thread; a call to an earlier one may still be under way when
 * this returns.
 *
 * @param listener NULL = none
 */
void zu3_host_listen_to_log(zu3_host_log_listener_t listener);

#ifdef __cplusplus
}
#endif

#endif
