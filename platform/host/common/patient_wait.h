#pragma once

#include <algorithm>
#include <chrono>
#include <mutex>

namespace zu3host {

/**
 * Waits on a std::condition_variable until `condition` holds, at most for `limit` of the time that
 * this process runs. Returns whether it holds. A limit by the clock would pass while the process is
 * stopped or not scheduled, and the thread that was to make it hold could do nothing meanwhile:
 * here that counts as one slice.
 */
template <typename Variable, typename Duration, typename Condition>
bool wait_patiently(Variable& changed, std::unique_lock<std::mutex>& lock, Duration limit,
                    Condition condition)
{
    constexpr std::chrono::nanoseconds slice = std::chrono::milliseconds(20);
    for (std::chrono::nanoseconds left = limit; left.count() > 0; left -= slice)
        if (changed.wait_for(lock, std::min(left, slice), condition))
            return true;
    return condition();
}

} // namespace zu3host
