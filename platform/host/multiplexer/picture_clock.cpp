#include "multiplexer/picture_clock.h"

#include <algorithm>
#include <limits>

namespace zu3host {

namespace {

constexpr uint64_t no_time = std::numeric_limits<uint64_t>::max();
constexpr int64_t ticks_per_second = 90000;
/** Ten minutes: the greatest step that is believed without a continuity control. */
constexpr int64_t default_limit = 600 * ticks_per_second;

/**
 * To the nearest tick, so that times on the grid of a frame rate keep to it: 33333 us are 3000
 * ticks.
 */
constexpr int64_t ticks_of(int64_t microseconds)
{
    return (microseconds * 9 + (microseconds < 0 ? -50 : 50)) / 100;
}

} // namespace

PictureClock::PictureClock() : max_forward_(default_limit), max_backward_(default_limit) {}

void PictureClock::set_limits(int64_t max_forward, int64_t max_backward)
{
    max_forward_ = std::clamp<int64_t>(max_forward, 0, default_limit);
    max_backward_ = std::clamp<int64_t>(max_backward, 0, default_limit);
}

void PictureClock::follow_host(Stamp& next, int64_t host_us) const
{
    if (!host_known_) {
        next.ticks = continued();
        next.host_origin = host_us - next.ticks * 100 / 9;
        next.host_known = true;
        return;
    }
    next.ticks = ticks_of(host_us - host_origin_);
}

void PictureClock::follow_stated(Stamp& next, int64_t stated_us) const
{
    // A time beyond any credible one would overflow below; it is a wrapped negative or nonsense.
    constexpr int64_t greatest_us = int64_t{1} << 56;
    const int64_t stated = ticks_of(std::clamp(stated_us, -greatest_us, greatest_us));
    next.ticks = stated + stated_offset_;
    const int64_t step = next.ticks - last_.value_or(next.ticks);
    const bool credible = last_ && step <= max_forward_ && step >= -max_backward_;
    if (!credible) {
        next.ticks = continued();
        next.stated_offset = next.ticks - stated;
    }
}

PictureClock::Stamp PictureClock::stamp(std::optional<uint64_t> host_us, uint64_t stated_us) const
{
    Stamp next{continued(), host_origin_, stated_offset_, host_known_};
    if (host_us)
        follow_host(next, static_cast<int64_t>(*host_us));
    else if (stated_us != no_time)
        follow_stated(next, static_cast<int64_t>(stated_us));
    if (last_)
        next.ticks = std::max(next.ticks, *last_ + 1);
    return next;
}

void PictureClock::commit(const Stamp& stamp)
{
    if (last_ && stamp.ticks - *last_ > 1 && stamp.ticks - *last_ <= ticks_per_second)
        interval_ = stamp.ticks - *last_;
    last_ = stamp.ticks;
    host_origin_ = stamp.host_origin;
    host_known_ = stamp.host_known;
    stated_offset_ = stamp.stated_offset;
}

} // namespace zu3host
