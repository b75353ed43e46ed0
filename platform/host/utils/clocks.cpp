#include <ctime>

#pragma GCC visibility push(default)
#include <utils/Timers.h>

nsecs_t systemTime(int clock)
{
    timespec now{};
    clock_gettime(clock == SYSTEM_TIME_REALTIME ? CLOCK_REALTIME : CLOCK_MONOTONIC, &now);
    return nsecs_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}
#pragma GCC visibility pop
