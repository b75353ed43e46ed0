#pragma once

#include <cstdint>

namespace client {

/**
 * Counts frames that the library never delivered: the frames due between the first and the last
 * time stamp of a stretch, minus those that came. A stretch ends at each request that makes the
 * encoder leave out frames.
 */
class LostFrames {
public:
    explicit LostFrames(uint32_t fps) : fps_(fps) {}

    void frame_taken(uint64_t pts_us);
    /** Nothing more was taken until this time of the same clock: the frames due are lost. */
    void nothing_taken_until(uint64_t time_us);
    /** Frames left out from here to the next one are not lost. */
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
