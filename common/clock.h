#pragma once

#include <chrono>
#include <cstdint>

namespace common {

/** A moment of the monotonic clock in microseconds; also of std::chrono::steady_clock. */
inline int64_t microseconds_of(std::chrono::steady_clock::time_point moment)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(moment.time_since_epoch()).count();
}

/** Microseconds of the monotonic clock. */
inline int64_t monotonic_us()
{
    return microseconds_of(std::chrono::steady_clock::now());
}

} // namespace common
