/**
 * Quality and bit rate of an encoder that opens without a bit rate, as that of a recording does,
 * beside the contract. Look the functions up by name (dlsym): another platform has none.
 */
#ifndef ZU3_HOST_QUALITY_H
#define ZU3_HOST_QUALITY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Has the next encoder that is opened spend what this quality needs, if it is opened without a bit
 * rate: with 0, or with more than 240,000,000 bit/s, which no level allows. Whatever it is opened
 * with, the call is used up. Without the call, such an encoder has quality 22 and a ceiling of 4500.
 * From any thread.
 *
 * @param quality 0 (best) to 51, x264's rate factor: 6 more halve the bits. 0 is taken for 1, since
 *     below that x264 encodes in a profile that few players know. Other values change nothing.
 * @param ceiling most that the stream may have, 1000 bit/s, 1 to 240000; 0 = 4500, what the writer
 *     of a recording keeps up with
 */
void zu3_host_quality(uint32_t quality, uint32_t ceiling);

/**
 * Applies a bit rate to the next encoder that opens, if it opens without one; any other open uses
 * the call up without effect. Replaces a call of zu3_host_quality(). Any thread.
 *
 * @param rate 1000 bit/s, 1 to 240000; other values change nothing
 */
void zu3_host_bit_rate(uint32_t rate);

#ifdef __cplusplus
}
#endif

#endif
