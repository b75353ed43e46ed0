#include "audio/level_meter.h"

#include "statistics/counters.h"

#include <algorithm>
#include <cstdlib>

namespace zu3host {

LevelMeter::~LevelMeter()
{
    counters().sound_level.store(0, std::memory_order_relaxed);
}

void LevelMeter::hear(const int16_t* samples, int64_t frames)
{
    // What is older than all slices together has no influence any more.
    const int64_t skipped =
        std::max<int64_t>(0, frames - slice_frames * static_cast<int64_t>(slices + 1));
    if (samples)
        samples += skipped * pcm_channels;
    for (int64_t left = frames - skipped; left > 0;) {
        const int64_t run = std::min(left, slice_frames - frames_in_slice_);
        for (int64_t i = 0; samples && i < run * int64_t{pcm_channels}; ++i)
            peaks_[slice_] = std::max<uint32_t>(peaks_[slice_], std::abs(int32_t{*samples++}));
        frames_in_slice_ += run;
        left -= run;
        if (frames_in_slice_ == slice_frames)
            finish_slice();
    }
}

void LevelMeter::finish_slice()
{
    counters().sound_level.store(*std::max_element(peaks_.begin(), peaks_.end()),
                                 std::memory_order_relaxed);
    slice_ = (slice_ + 1) % slices;
    peaks_[slice_] = 0;
    frames_in_slice_ = 0;
}

} // namespace zu3host
