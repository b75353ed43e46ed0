#include "frame_clock.h"

#include <algorithm>

namespace client {
namespace {

// A look costs some ten microseconds, and what comes between two of them waits for the second.
constexpr std::chrono::microseconds shortest_look_interval(300);
constexpr std::chrono::microseconds longest_look_interval(4000);

} // namespace

void PollSchedule::frame_taken(uint64_t pts_us, TimePoint now)
{
    // steady_clock is the monotonic clock that the time stamps come from.
    const TimePoint captured{std::chrono::microseconds(pts_us)};
    const auto delay = std::chrono::duration_cast<Delay>(now - captured);
    // Follows a shorter delay at once and a longer one slowly: a key frame takes longer than its neighbours.
    least_delay_ = std::clamp(std::min(delay, least_delay_ + Delay(200)), Delay(0), Delay(1'000'000));
    expected_ = captured + interval_ + least_delay_;
}

TimePoint PollSchedule::next_look(TimePoint now) const
{
    // The later a frame is, the less a part of its delay matters.
    const auto overdue = std::chrono::duration_cast<std::chrono::microseconds>(now - expected_);
    const TimePoint soon = now + std::clamp(overdue / 4, shortest_look_interval, longest_look_interval);
    return std::min(std::max(soon, expected_ - shortest_look_interval), now + interval_);
}

void LostFrames::frame_taken(uint64_t pts_us)
{
    if (frames_ == 0)
        first_pts_us_ = pts_us;
    last_pts_us_ = std::max(first_pts_us_, pts_us);
    ++frames_;
}

void LostFrames::nothing_taken_until(uint64_t time_us)
{
    last_pts_us_ = std::max(last_pts_us_, time_us);
}

void LostFrames::break_stretch()
{
    finished_ += in_stretch();
    frames_ = 0;
}

uint64_t LostFrames::in_stretch() const
{
    if (frames_ == 0)
        return 0;
    const uint64_t due = ((last_pts_us_ - first_pts_us_) * fps_ + 500'000) / 1'000'000 + 1;
    return due > frames_ ? due - frames_ : 0;
}

} // namespace client
