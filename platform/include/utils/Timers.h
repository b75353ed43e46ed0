/** Android's clocks. */
#ifndef ANDROID_UTILS_TIMERS_H
#define ANDROID_UTILS_TIMERS_H

#include <stdint.h>

typedef int64_t nsecs_t;

enum { SYSTEM_TIME_REALTIME = 0, SYSTEM_TIME_MONOTONIC = 1 };

#ifdef __cplusplus
extern "C" {
#endif

/** The time of `clock` in nanoseconds. */
nsecs_t systemTime(int clock);

#ifdef __cplusplus
}
#endif

#endif
