#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>

namespace zu3host {

/**
 * The pace at which a compositor's pictures change. Tells whether the last one can be replaced
 * before a moment. Assumes the shortest of the frame interval and the last intervals, since an
 * output's refresh rate may be stated wrongly.
 */
class ChangePace {
public:
    using Clock = std::chrono::steady_clock;

    /** @param frame the compositor's frame interval as it is stated */
    explicit ChangePace(Clock::duration frame) : frame_(frame) {}

    /**
     * A changed picture has arrived.
     * @param shown the compositor's time of the picture, on any clock
     */
    void note(Clock::time_point arrival, std::chrono::nanoseconds shown)
    {
        if (arrivals_ > 0)
            intervals_[arrivals_ % intervals_.size()] = shown - shown_;
        ++arrivals_;
        arrival_ = arrival;
        shown_ = shown;
    }
    Clock::duration interval() const
    {
        Clock::duration shortest = frame_;
        for (const Clock::duration interval : intervals_)
            if (interval > Clock::duration::zero())
                shortest = std::min(shortest, interval);
        return shortest;
    }
    /** Whether the next picture can only arrive after `due`. */
    bool is_last_before(Clock::time_point due) const { return arrival_ + interval() > due; }

private:
    const Clock::duration frame_;
    size_t arrivals_ = 0;
    Clock::time_point arrival_{};
    std::chrono::nanoseconds shown_{};
    // a ring; counted if greater than 0
    std::array<Clock::duration, 8> intervals_{};
};

} // namespace zu3host
