#include "base/border.h"

#include <cerrno>
#include <ctime>
#include <zu3/os.h>

namespace {

timespec monotonic_now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

/** Milliseconds modulo 2^32. */
u32 system_time_ms()
{
    const timespec now = monotonic_now();
    return static_cast<u32>(static_cast<u64>(now.tv_sec) * 1000u +
                            static_cast<u64>(now.tv_nsec) / 1000000u);
}

timespec after(timespec moment, u32 milliseconds)
{
    moment.tv_sec += milliseconds / 1000u;
    moment.tv_nsec += static_cast<long>(milliseconds % 1000u) * 1000000;
    if (moment.tv_nsec >= 1000000000) {
        moment.tv_nsec -= 1000000000;
        ++moment.tv_sec;
    }
    return moment;
}

} // namespace

HOST_EXPORT u32 ZU_OS_DelayTask(u32 u32Ms)
{
    // An absolute time, so that a signal handler in between does not prolong the delay.
    const timespec end = after(monotonic_now(), u32Ms);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
    return ZU_OK;
}

HOST_EXPORT u32 ZU_OS_GetSystemTime(u32* pu32StartMs)
{
    if (!pu32StartMs)
        return ZU_INVALID_ARGUMENT;
    *pu32StartMs = system_time_ms();
    return ZU_OK;
}

HOST_EXPORT u32 ZU_OS_TimerDiffTimeFromNow(u32 u32StartMs, u32* pu32ElapsedMs)
{
    if (!pu32ElapsedMs)
        return ZU_INVALID_ARGUMENT;
    // Both wrap after 49 days, and so does their difference.
    *pu32ElapsedMs = static_cast<u32>(int64_t{system_time_ms()} - u32StartMs);
    return ZU_OK;
}
