/**
 * Counters of the Linux host layer, beside the contract. Look the functions up by name (dlsym):
 * another platform has none.
 */
#ifndef ZU3_HOST_STATISTICS_H
#define ZU3_HOST_STATISTICS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Totals of the process, over all recordings. Later versions add fields at the end only. */
typedef struct {
    /** pictures that the capture rate asked for; = captured + the three dropped */
    uint64_t pictures_due;
    /** pictures handed to the capture callback */
    uint64_t pictures_captured;
    /** dropped: the capture was more than a period late */
    uint64_t pictures_dropped_late;
    /** dropped: every capture buffer was in use */
    uint64_t pictures_dropped_no_buffer;
    /** dropped: the display could not be read */
    uint64_t pictures_dropped_no_display;
    /** encoded frames handed to the encoder's callback */
    uint64_t pictures_encoded;
    /** pictures that the encoder did not encode (queue full, stopped, too short) */
    uint64_t pictures_refused;
    /** bytes of those encoded frames */
    uint64_t bytes_encoded;
    /** access units that a multiplexer accepted, all streams */
    uint64_t access_units_multiplexed;
    /** pushes that a multiplexer refused as busy */
    uint64_t multiplexer_busy;
    /** bytes that multiplexers produced */
    uint64_t bytes_multiplexed;
    /** of those, bytes that were copied out */
    uint64_t bytes_copied_out;
    /** bytes written to files */
    uint64_t bytes_written;
    /** file writes that failed or were cut short */
    uint64_t write_failures;
    /** errno of the last failed write, 0 = none */
    int32_t last_write_errno;
    /** greatest absolute sample of the last 100 ms heard, 0 to 32768 */
    uint32_t sound_level;
    /** bytes of PCM that readers lost by reading too late */
    uint64_t audio_bytes_lost;
    /** 1 = a captured display went away */
    uint32_t display_lost;
    /** 1 = a captured sound server went away, or hung for 3 s */
    uint32_t sound_lost;
    /** AAC frames multiplexed */
    uint64_t audio_frames_encoded;
    /**
     * how long the capture has waited for a picture that the display has not sent, 0 = not now
     */
    uint32_t display_silent_ms;
    /**
     * of those dropped and refused, the ones lost because a multiplexer's output was not copied out
     * in time; plus encoded ones that it refused for that reason
     */
    uint64_t pictures_left_out_for_room;
    /** how long a write to a regular file has waited for its disk, 0 = none waits */
    uint64_t write_waiting_us;
    /** encoded pictures whose quality was lowered by their encoder's ceiling */
    uint64_t pictures_coarsened;
} zu3_host_statistics_t;

/**
 * Fills at most `size` bytes of the record; from any thread.
 * @return the size of the host layer's own record
 */
uint32_t zu3_host_statistics(zu3_host_statistics_t* statistics, uint32_t size);

/**
 * Names this platform and its media libraries, e.g. for a version line. Static string.
 */
const char* zu3_host_platform(void);

#ifdef __cplusplus
}
#endif

#endif
