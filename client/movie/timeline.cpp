#include "movie/timeline.h"

#include <algorithm>
#include <cstdlib>

#include "movie/movie_module.h"

namespace client::movie {
namespace {

/** `us` microseconds in units of 1/`rate` s, rounded to the nearest. */
int64_t units(int64_t us, int64_t rate)
{
    return (us * rate + (us < 0 ? -500'000 : 500'000)) / 1'000'000;
}

/** From one time to another, which may be earlier. */
int64_t microseconds(uint64_t from, uint64_t to)
{
    return static_cast<int64_t>(to) - static_cast<int64_t>(from);
}

// Tolerance in pairs of samples between the end of one piece and the start of the next: times are
// whole microseconds.
constexpr int64_t seam = 48;

} // namespace

void FrameLine::put(const EncodedFrame& frame)
{
    // The next frame has the same time or an earlier one: the time of the key frame was that of a
    // later picture.
    if (held_us_ && frame.pts_us <= *held_us_ + period_us() / 2)
        held_us_ = frame.pts_us - period_us();
    flush();
    if (!frame.key)
        return place(frame.bytes, false, frame.pts_us);
    held_.assign(frame.bytes.begin(), frame.bytes.end());
    held_us_ = frame.pts_us;
}

void FrameLine::flush()
{
    if (held_us_)
        place(held_, true, *held_us_);
    held_us_.reset();
}

void FrameLine::place(std::span<const uint8_t> bytes, bool key, uint64_t time_us)
{
    if (!begun_) {
        origin_us_ = time_us;
        origin_ = next_;
        begun_ = true;
        times_.clear();
    }
    const int64_t index = origin_ + units(microseconds(origin_us_, time_us), fps_);
    next_ = std::max(index, next_) + 1;
    note_phase(time_us);
    take_({.bytes = bytes, .index = next_ - 1, .key = key});
}

void FrameLine::note_phase(uint64_t time_us)
{
    if (settled())
        return;
    const auto places = static_cast<uint64_t>(next_ - 1 - origin_);
    times_.push_back(time_us - places * 1'000'000 / fps_);
    if (!settled())
        return;
    const auto middle = times_.begin() + settling_frames / 2;
    std::nth_element(times_.begin(), middle, times_.end());
    origin_us_ = *middle;
}

int64_t FrameLine::sample_at(uint64_t time_us) const
{
    return sample_behind(origin_) + units(microseconds(origin_us_, time_us), int64_t{sound_rate});
}

int64_t FrameLine::sample_behind(int64_t index) const
{
    return index * sound_rate / fps_;
}

void SoundLine::put(uint64_t time_us, std::span<const int16_t> samples)
{
    pieces_.push_back({.time_us = time_us, .samples = {samples.begin(), samples.end()}});
}

void SoundLine::hand_on(int64_t end, const SampleAt& sample_at)
{
    while (!pieces_.empty() && next_ < end) {
        Piece& piece = pieces_.front();
        const int64_t late = sample_at(piece.time_us) + piece.used - next_;
        if (late > seam)
            fill(std::min(end, next_ + late));
        else if (late < -seam)
            piece.used = std::min(piece.pairs(), piece.used - late);
        if (next_ < end && std::abs(late) <= seam) {
            const int64_t count = std::min(piece.pairs() - piece.used, end - next_);
            take_(std::span(piece.samples)
                      .subspan(static_cast<size_t>(piece.used) * sound_channels,
                               static_cast<size_t>(count) * sound_channels));
            piece.used += count;
            next_ += count;
        }
        if (piece.used == piece.pairs())
            pieces_.pop_front();
    }
}

void SoundLine::fill(int64_t end)
{
    static constexpr int16_t silence[2048] = {};
    constexpr int64_t pairs = std::size(silence) / sound_channels;
    while (next_ < end) {
        const int64_t count = std::min(pairs, end - next_);
        take_(std::span(silence).first(static_cast<size_t>(count) * sound_channels));
        next_ += count;
    }
}

bool SoundLine::reaches(int64_t end, const SampleAt& sample_at) const
{
    return !pieces_.empty() &&
           sample_at(pieces_.back().time_us) + pieces_.back().pairs() + seam >= end;
}

} // namespace client::movie
