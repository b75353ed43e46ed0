/**
 * What the Linux host layer counts, beside the contract. A client that wants to show it looks the
 * function up by name (dlsym), since another platform has none.
 */
#ifndef ZU3_HOST_STATISTICS_H
#define ZU3_HOST_STATISTICS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Counted over the life of the process, all recordings together. Only ever grows at its end. */
typedef struct {
    /** pictures that the capture rate asked for; = captured + the three dropped */
    uint64_t pictures_due;
    /** pictures handed to the capture callback */
    uint64_t pictures_captured;
    /** dropped: the capture came too late for their moment */
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
    /** pushes that were answered busy */
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
    /** PCM lost by readers that came late */
    uint64_t audio_bytes_lost;
    /** 1 = a display that was being captured went away */
    uint32_t display_lost;
    /** 1 = a sound server that was being heard went away */
    uint32_t sound_lost;
    /** AAC frames multiplexed */
    uint64_t audio_frames_encoded;
    /**
     * how long a captured display has not answered while a picture was waited for; 0 = it answers
     */
    uint32_t display_silent_ms;
    /**
     * of the dropped and refused, those while a multiplexer had no room, since its output was not
     * copied out; and encoded ones it never took
     */
    uint64_t pictures_left_out_for_room;
    /** how long a write to an ordinary file has waited for its disk, 0 = none waits now */
    uint64_t write_waiting_us;
} zu3_host_statistics_t;

/**
 * Fills at most `size` bytes of the record; from any thread.
 * @return the size of the host layer's own record
 */
uint32_t zu3_host_statistics(zu3_host_statistics_t* statistics, uint32_t size);

/**
 * One sentence that names this platform and what it captures with, e.g. for a version line; static.
 */
const char* zu3_host_platform(void);

#ifdef __cplusplus
}
#endif

#endif
