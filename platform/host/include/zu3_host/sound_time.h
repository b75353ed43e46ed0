/**
 * The time of sound, beside the contract, for clients that join PCM with encoded frames. Look the
 * function up by name (dlsym): another platform has none.
 */
#ifndef ZU3_HOST_SOUND_TIME_H
#define ZU3_HOST_SOUND_TIME_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * When the first sample was heard that the process's last read of an audio capture delivered, so
 * call it behind each audio_cap_getPCM. Sample n of that read was heard n / 48000 s later. Reads
 * follow one another without a gap, except for sound that was lost because it was read too late.
 * From any thread.
 *
 * @return microseconds of the monotonic clock, the clock of the frames' time stamps; 0 before the
 *     first read that delivered something
 */
uint64_t zu3_host_sound_time(void);

#ifdef __cplusplus
}
#endif

#endif
