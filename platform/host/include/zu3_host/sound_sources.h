/**
 * Lists the sources of the sound server, beside the contract. Look the function up by name (dlsym):
 * another platform has none.
 */
#ifndef ZU3_HOST_SOUND_SOURCES_H
#define ZU3_HOST_SOUND_SOURCES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A source of the sound server; its strings are valid until the receiver returns. */
typedef struct {
    const char* name;
    const char* description;
    /** samples per second and channel */
    uint32_t sample_rate;
    uint32_t channels;
    /** 1 = the desktop's sound, which is recorded by default: the monitor of the default output */
    uint32_t recorded;
    /** 1 = what ZU3_SOUND=microphone records: the default source that is no monitor */
    uint32_t microphone;
} zu3_host_sound_source_t;

/** Receives one source; `user` is what was given to zu3_host_sound_sources(). */
typedef void (*zu3_host_sound_source_receiver_t)(const zu3_host_sound_source_t* source, void* user);

/**
 * Calls `receiver` for each source, on this thread. Waits up to 3 s for the server. Any thread.
 *
 * @return the number of sources; -1 when no server answers, libpulse is missing or memory is short
 */
int zu3_host_sound_sources(zu3_host_sound_source_receiver_t receiver, void* user);

#ifdef __cplusplus
}
#endif

#endif
