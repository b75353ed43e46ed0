#include "audio/sound_source.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace zu3host {

namespace {

class Silence final : public SoundSource {
public:
    void advance(SoundTimeline& timeline, int64_t now_us) override
    {
        timeline.append_silence_until(now_us);
    }
};

/** 440 Hz repeats after 1200 frames (11 periods), so that a table holds it exactly. */
class Tone final : public SoundSource {
public:
    Tone()
    {
        constexpr double pi = 3.14159265358979323846;
        for (size_t n = 0; n < frames; ++n) {
            const double sample =
                amplitude * std::sin(2 * pi * periods * static_cast<double>(n) / frames);
            samples_[n * pcm_channels] = samples_[n * pcm_channels + 1] =
                static_cast<int16_t>(std::lround(sample));
        }
    }

    void advance(SoundTimeline& timeline, int64_t now_us) override
    {
        // computes only the frames that are kept
        const int64_t until = timeline.frame_at(now_us);
        timeline.append(nullptr, until - timeline.capacity() - timeline.end());
        while (timeline.end() < until) {
            const int64_t place = timeline.end() % frames;
            timeline.append(samples_.data() + place * pcm_channels,
                            std::min(frames - place, until - timeline.end()));
        }
    }

private:
    static constexpr int64_t frames = 1200;
    static constexpr int periods = 11;
    static_assert(int64_t{pcm_rate} * periods == 440 * frames);
    static constexpr double amplitude = 16000;

    std::array<int16_t, frames * pcm_channels> samples_;
};

} // namespace

std::unique_ptr<SoundSource> open_tone()
{
    return std::make_unique<Tone>();
}

std::unique_ptr<SoundSource> open_silence()
{
    return std::make_unique<Silence>();
}

} // namespace zu3host
