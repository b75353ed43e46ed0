#include "base/border.h"

#include <ctime>
#include <utils/Timers.h>

HOST_EXPORT nsecs_t systemTime(int clock)
{
    timespec now{};
    clock_gettime(clock == SYSTEM_TIME_REALTIME ? CLOCK_REALTIME : CLOCK_MONOTONIC, &now);
    return nsecs_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}
