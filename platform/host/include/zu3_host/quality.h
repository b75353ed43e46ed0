/**
 * Quality, bit rate and key frames, beside the contract, of an encoder that opens without a bit
 * rate, such as that of a recording. Look the functions up by name (dlsym): another platform has
 * none.
 */
#ifndef ZU3_HOST_QUALITY_H
#define ZU3_HOST_QUALITY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Applies a constant quality to the next encoder that opens, if it opens without a bit rate: with
 * 0, or with more than 240,000,000 bit/s, which no level allows. Any other open uses the call up
 * without effect. The default of such an encoder is quality 22 and a ceiling of 4500. Any thread.
 *
 * @param quality 0 (best) to 51, x264's rate factor: 6 more halve the bits. 0 means 1, since below
 *     that x264 uses a profile that few players support. Other values change nothing.
 * @param ceiling greatest rate of the stream, 1000 bit/s, 1 to 240000; 0 = 4500, the limit of a
 *     recording's writer
 */
void zu3_host_quality(uint32_t quality, uint32_t ceiling);

/**
 * Applies a bit rate to the next encoder that opens, if it opens without one; any other open uses
 * the call up without effect. Replaces a call of zu3_host_quality(). Any thread.
 *
 * @param rate 1000 bit/s, 1 to 240000; other values change nothing
 */
void zu3_host_bit_rate(uint32_t rate);

/**
 * Lets the next encoder that opens put off the key frames of a still picture, to five times their
 * distance or to the first change, as in a stream that the host layer multiplexes; for a file,
 * which no viewer joins in the middle. The caller must request a key frame after it lost a frame.
 * Any thread.
 */
void zu3_host_rare_key_frames(void);

#ifdef __cplusplus
}
#endif

#endif
