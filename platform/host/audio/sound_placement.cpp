#include "audio/sound_placement.h"

#include <algorithm>
#include <cmath>

namespace zu3host {

namespace {

/** Over so much sound the server's time is averaged. */
constexpr int64_t averaged_frames = int64_t{2} * pcm_rate;
/** Up to 5 ms the server's time is left alone, and what it delivers untouched ... */
constexpr double tolerated_error = pcm_rate / 200.0;
/** ... and what is corrected is corrected down to 1 ms. */
constexpr double corrected_error = pcm_rate / 1000.0;
/** Farther than that the row is broken rather than stretched: 50 ms. */
constexpr double greatest_error = pcm_rate / 20.0;
/** One frame in so many, a quarter of a percent, is the fastest correction. */
constexpr int64_t frames_per_correction = 400;

} // namespace

void SoundPlacement::place(SoundTimeline& timeline, const int16_t* samples, int64_t frames,
                           int64_t heard_us)
{
    if (frames <= 0)
        return;
    const int64_t error = timeline.frame_at(heard_us) - timeline.end();
    // A gap was filled with silence meanwhile: this piece belongs behind it.
    if (!continues(timeline)) {
        align(timeline, samples, frames, error);
        return;
    }
    smooth(error, frames);
    if (std::abs(mean_error_) > greatest_error &&
        std::abs(static_cast<double>(error)) > greatest_error) {
        align(timeline, samples, frames, error);
        return;
    }
    append_stretched(timeline, samples, frames, correction(frames));
    expected_ = timeline.end();
}

void SoundPlacement::align(SoundTimeline& timeline, const int16_t* samples, int64_t frames,
                           int64_t error)
{
    expected_.reset();
    if (error > 0)
        timeline.append(nullptr, error);
    const int64_t dropped = std::max<int64_t>(0, -error);
    if (dropped >= frames)
        return;
    timeline.append(samples ? samples + dropped * pcm_channels : nullptr, frames - dropped);
    expected_ = timeline.end();
    // exact for these frames
    mean_error_ = 0;
    frames_averaged_ = std::min(frames - dropped, averaged_frames);
    correcting_ = false;
    frames_since_correction_ = 0;
}

// A plain mean at first, so that a wrong start is found soon; later the last seconds count.
void SoundPlacement::smooth(int64_t error, int64_t frames)
{
    frames_averaged_ = std::min(frames_averaged_ + frames, averaged_frames);
    const double weight = static_cast<double>(std::min(frames, frames_averaged_)) /
                          static_cast<double>(frames_averaged_);
    mean_error_ += (static_cast<double>(error) - mean_error_) * weight;
}

int64_t SoundPlacement::correction(int64_t frames)
{
    frames_since_correction_ += frames;
    correcting_ = std::abs(mean_error_) > (correcting_ ? corrected_error : tolerated_error);
    if (!correcting_ || frames < 3 || frames_since_correction_ < frames_per_correction)
        return 0;
    frames_since_correction_ = 0;
    const int64_t by = mean_error_ > 0 ? 1 : -1;
    mean_error_ -= static_cast<double>(by);
    return by;
}

void SoundPlacement::append_stretched(SoundTimeline& timeline, const int16_t* samples,
                                      int64_t frames, int64_t by)
{
    const int64_t wanted = frames + by;
    if (!samples || by == 0) {
        timeline.append(samples, wanted);
        return;
    }
    stretched_.resize(static_cast<size_t>(wanted) * pcm_channels);
    const double step = static_cast<double>(frames - 1) / static_cast<double>(wanted - 1);
    for (int64_t i = 0; i < wanted; ++i) {
        const double from = static_cast<double>(i) * step;
        const int64_t before = std::min(static_cast<int64_t>(from), frames - 2);
        const double part = from - static_cast<double>(before);
        for (int64_t channel = 0; channel < pcm_channels; ++channel) {
            const int16_t* const near = samples + before * pcm_channels + channel;
            stretched_[i * pcm_channels + channel] =
                static_cast<int16_t>(std::lround(near[0] + part * (near[pcm_channels] - near[0])));
        }
    }
    timeline.append(stretched_.data(), wanted);
}

} // namespace zu3host
