#include "multiplexer/sound_track.h"

#include "base/host_log.h"

#include <algorithm>

namespace zu3host {

namespace {

/**
 * Greatest difference of the two clocks that goes unheeded: less than an ear notices beside a
 * picture.
 */
constexpr int64_t greatest_drift_samples = pcm_rate / 50;
constexpr int64_t frame_ticks = int64_t{90000} * aac_frame_samples / pcm_rate;
constexpr int64_t delay_ticks = 90000 * AacEncoder::delay_samples / pcm_rate;
static_assert(delay_ticks * pcm_rate == 90000 * AacEncoder::delay_samples);

constexpr int64_t samples_of_us(int64_t microseconds)
{
    return microseconds * (pcm_rate / 1000) / 1000;
}

} // namespace

std::unique_ptr<SoundTrack> SoundTrack::open()
{
    auto encoder = AacEncoder::open();
    return encoder ? std::unique_ptr<SoundTrack>(new SoundTrack(std::move(encoder))) : nullptr;
}

void SoundTrack::listen(std::unique_ptr<PcmReader> reader)
{
    reader_ = std::move(reader);
    aligned_ = false;
}

void SoundTrack::begin(int64_t start_us, int64_t pts)
{
    start_us_ = start_us;
    start_pts_ = pts;
    begun_ = true;
}

int64_t SoundTrack::time_of_next_us() const
{
    const int64_t samples =
        frames_ * int64_t{aac_frame_samples} + static_cast<int64_t>(staged_samples_);
    return start_us_ + samples * 1000 / (pcm_rate / 1000);
}

void SoundTrack::gather(int64_t until_us)
{
    while (!queue_.full() && (gather_heard() || gather_silence(until_us))) {
        if (staged_samples_ == aac_frame_samples)
            finish_frame();
    }
}

bool SoundTrack::gather_heard()
{
    const size_t level = reader_ ? reader_->level() : 0;
    if (level < pcm_frame_bytes)
        return false;
    const int64_t ahead = samples_of_us(reader_->time_of_next_us() - time_of_next_us());
    const int64_t tolerated = aligned_ ? greatest_drift_samples : 0;
    if (ahead > tolerated) {
        stage_silence(ahead);
        return true;
    }
    if (ahead < -tolerated) {
        drop(-ahead);
        return true;
    }
    const size_t room = (aac_frame_samples - staged_samples_) * pcm_frame_bytes;
    const size_t read =
        reader_->read(staged_.data() + staged_samples_ * pcm_channels, std::min(room, level));
    staged_samples_ += read / pcm_frame_bytes;
    aligned_ = true;
    return read != 0;
}

void SoundTrack::drop(int64_t samples)
{
    std::array<int16_t, size_t{512} * pcm_channels> dropped;
    int64_t bytes = samples * int64_t{pcm_frame_bytes};
    while (bytes > 0) {
        const size_t read = reader_->read(dropped.data(), std::min<size_t>(sizeof dropped, bytes));
        if (read == 0)
            break;
        bytes -= static_cast<int64_t>(read);
    }
    aligned_ = true;
}

bool SoundTrack::gather_silence(int64_t until_us)
{
    const int64_t missing = samples_of_us(until_us - time_of_next_us());
    if (missing <= 0 || audio_capture_running())
        return false;
    stage_silence(missing);
    return true;
}

void SoundTrack::stage_silence(int64_t samples)
{
    const auto room = static_cast<int64_t>(aac_frame_samples - staged_samples_);
    const auto staged = static_cast<size_t>(std::min(samples, room));
    std::fill_n(staged_.begin() + static_cast<ptrdiff_t>(staged_samples_ * pcm_channels),
                staged * pcm_channels, int16_t{0});
    staged_samples_ += staged;
    aligned_ = false;
}

void SoundTrack::finish_frame()
{
    const size_t bytes = encoder_->encode(staged_, queue_.place());
    const int64_t pts = start_pts_ + frames_ * frame_ticks - delay_ticks;
    ++frames_;
    staged_samples_ = 0;
    if (bytes != 0)
        queue_.push(bytes, pts);
}

} // namespace zu3host
