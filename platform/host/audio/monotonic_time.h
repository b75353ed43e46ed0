#pragma once

#include <cstdint>
#include <ctime>

namespace zu3host {

/** Microseconds of the monotonic clock. */
inline int64_t monotonic_us()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

} // namespace zu3host
