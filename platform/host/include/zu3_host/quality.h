/**
 * Constant quality instead of a bit rate, beside the contract. A client looks the function up by
 * name (dlsym), since another platform has none: there a bit rate must do.
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

#ifdef __cplusplus
}
#endif

#endif
