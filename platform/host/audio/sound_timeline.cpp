#include "audio/sound_timeline.h"

#include "statistics/counters.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zu3host {

LevelMeter::~LevelMeter()
{
    counters().sound_level.store(0, std::memory_order_relaxed);
}

void LevelMeter::hear(const int16_t* samples, int64_t frames)
{
    // Frames older than all slices together have no influence.
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

namespace {

// 48000 frames take 1,000,000 us: 6 frames take 125 us.
constexpr int64_t frames_per_unit = 6;
constexpr int64_t us_per_unit = 125;
static_assert(frames_per_unit * 1'000'000 == us_per_unit * pcm_rate);

constexpr int64_t floor_divide(int64_t value, int64_t by)
{
    return value >= 0 ? value / by : -((-value + by - 1) / by);
}

} // namespace

SoundTimeline::SoundTimeline(int64_t start_us, int64_t capacity, bool metered)
    : start_us_(start_us), capacity_(capacity),
      samples_(static_cast<size_t>(capacity) * pcm_channels)
{
    if (metered)
        meter_.emplace();
}

// Rounded up, so that frame_at() of a frame's own time is that frame again.
int64_t SoundTimeline::time_us(int64_t frame) const
{
    return start_us_ - floor_divide(-frame * us_per_unit, frames_per_unit);
}

int64_t SoundTimeline::frame_at(int64_t us) const
{
    return floor_divide((us - start_us_) * frames_per_unit, us_per_unit);
}

void SoundTimeline::append(const int16_t* samples, int64_t frames)
{
    if (frames <= 0)
        return;
    if (meter_)
        meter_->hear(samples, frames);
    const int64_t skipped = std::max<int64_t>(0, frames - capacity_);
    end_ += skipped;
    store(samples ? samples + skipped * pcm_channels : nullptr, frames - skipped);
}

void SoundTimeline::store(const int16_t* samples, int64_t frames)
{
    while (frames > 0) {
        const int64_t place = end_ % capacity_;
        const int64_t run = std::min(frames, capacity_ - place);
        int16_t* const dst = samples_.data() + place * pcm_channels;
        if (samples) {
            std::memcpy(dst, samples, static_cast<size_t>(run) * pcm_frame_bytes);
            samples += run * pcm_channels;
        } else {
            std::memset(dst, 0, static_cast<size_t>(run) * pcm_frame_bytes);
        }
        end_ += run;
        frames -= run;
    }
}

void SoundTimeline::append_silence_until(int64_t us)
{
    append(nullptr, frame_at(us) - end_);
}

void SoundTimeline::copy(int64_t frame, int64_t frames, void* dst) const
{
    auto* to = static_cast<uint8_t*>(dst);
    while (frames > 0) {
        const int64_t place = frame % capacity_;
        const int64_t run = std::min(frames, capacity_ - place);
        const size_t bytes = static_cast<size_t>(run) * pcm_frame_bytes;
        std::memcpy(to, samples_.data() + place * pcm_channels, bytes);
        to += bytes;
        frame += run;
        frames -= run;
    }
}

} // namespace zu3host
