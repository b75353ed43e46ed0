#pragma once

#include <cstdint>

#include "signals.h"

namespace client {

/** When to look for the next frame: the interface has no way to wait for one. */
class PollSchedule {
public:
    explicit PollSchedule(uint32_t fps) : interval_(std::chrono::microseconds(1'000'000 / fps)) {}

    /** A frame captured at `pts_us` of the monotonic clock was there at `now`. */
    void frame_taken(uint64_t pts_us, TimePoint now);
    /** When to look again; never more than a frame interval away. */
    TimePoint next_look(TimePoint now) const;

private:
    using Delay = std::chrono::microseconds;
    Delay interval_;
    Delay least_delay_{0}; /**< from capture to hand-over, of the quickest frames of late */
    TimePoint expected_;
};

/**
 * Counts frames that were never handed over, by the distance of the time stamps from end to end of a stretch.
 * A stretch ends where frames are left out because we asked for it.
 */
class LostFrames {
public:
    explicit LostFrames(uint32_t fps) : fps_(fps) {}

    void frame_taken(uint64_t pts_us);
    /** Until this time of the same clock nothing more was taken: whatever was due is lost. */
    void nothing_taken_until(uint64_t time_us);
    /** What is left out from here to the next frame is not lost. */
    void break_stretch();
    uint64_t count() const { return finished_ + in_stretch(); }

private:
    uint64_t in_stretch() const;

    uint32_t fps_;
    uint64_t finished_ = 0;
    uint64_t first_pts_us_ = 0;
    uint64_t last_pts_us_ = 0;
    uint64_t frames_ = 0;
};

} // namespace client
