#include "audio/mixed_source.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

namespace zu3host {

namespace {

constexpr int32_t full_scale = 32767;
/** Sums up to this value are exact. */
constexpr int32_t knee = full_scale / 4 * 3;

int16_t clipped_softly(int32_t sum)
{
    const int32_t size = std::abs(sum);
    if (size <= knee)
        return static_cast<int16_t>(sum);
    constexpr double room = full_scale - knee;
    const double bent = knee + room * std::tanh(static_cast<double>(size - knee) / room);
    return static_cast<int16_t>(std::copysign(std::lround(bent), sum));
}

/** A source with the timeline that it fills. */
struct Part {
    Part(int64_t start_us, int64_t capacity, const auto& open)
        : shared(start_us, capacity, false), source(open(shared))
    {
    }

    int64_t advance(int64_t now_us)
    {
        const std::lock_guard lock(shared.mutex);
        source->advance(shared.timeline, now_us);
        return shared.timeline.end();
    }
    int64_t oldest()
    {
        const std::lock_guard lock(shared.mutex);
        return shared.timeline.oldest();
    }
    void copy(int64_t frame, std::span<int16_t> samples)
    {
        const std::lock_guard lock(shared.mutex);
        shared.timeline.copy(frame, static_cast<int64_t>(samples.size() / pcm_channels),
                             samples.data());
    }

    SharedTimeline shared;
    const std::unique_ptr<SoundSource> source;
};

class Mix final : public SoundSource {
public:
    Mix(const SoundTimeline& timeline, const auto& open_first, const auto& open_second)
        : first_(timeline.time_us(0), timeline.capacity(), open_first),
          second_(timeline.time_us(0), timeline.capacity(), open_second)
    {
    }

    void advance(SoundTimeline& timeline, int64_t now_us) override
    {
        const int64_t until = std::min(first_.advance(now_us), second_.advance(now_us));
        // A part has already dropped older sound, which this timeline would have dropped as well.
        const int64_t oldest =
            std::min(until, std::max({timeline.end(), first_.oldest(), second_.oldest()}));
        timeline.append(nullptr, oldest - timeline.end());
        while (timeline.end() < until)
            mix(timeline, std::min(block_frames, until - timeline.end()));
    }

private:
    static constexpr int64_t block_frames = 480;
    using Block = std::array<int16_t, block_frames * pcm_channels>;

    void mix(SoundTimeline& timeline, int64_t frames)
    {
        const auto samples = static_cast<size_t>(frames) * pcm_channels;
        Block mixed, other;
        first_.copy(timeline.end(), std::span(mixed).first(samples));
        second_.copy(timeline.end(), std::span(other).first(samples));
        mix_into(std::span(mixed).first(samples), std::span(other).first(samples));
        timeline.append(mixed.data(), frames);
    }

    Part first_;
    Part second_;
};

} // namespace

void mix_into(std::span<int16_t> samples, std::span<const int16_t> other)
{
    std::transform(samples.begin(), samples.end(), other.begin(), samples.begin(),
                   [](int16_t a, int16_t b) { return clipped_softly(int32_t{a} + b); });
}

std::unique_ptr<SoundSource> open_mix(const SoundTimeline& timeline, const OpenPart& open_first,
                                      const OpenPart& open_second)
{
    return std::make_unique<Mix>(timeline, open_first, open_second);
}

} // namespace zu3host
