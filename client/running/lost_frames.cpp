#include "running/lost_frames.h"

#include <algorithm>

namespace client {

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
