#include "movie/sound_line.h"

#include <algorithm>
#include <cstdlib>

#include "movie/movie_module.h"

namespace client::movie {
namespace {

// Tolerance in pairs of samples between the end of one piece and the start of the next: times are
// whole microseconds.
constexpr int64_t seam = 48;

} // namespace

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
