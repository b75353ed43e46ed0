#include "audio/sound_source.h"

#include "audio/mixed_source.h"
#include "audio/sound_choice.h"
#include "base/host_log.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <string_view>

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

namespace {

std::unique_ptr<SoundSource> open_server(SharedTimeline& shared, const PulseModule& module,
                                         const std::vector<WantedSource>& wanted)
{
    if (wanted.size() == 1)
        return open_pulse_source(shared, module, wanted[0]);
    const std::lock_guard lock(shared.mutex);
    return open_mix(
        shared.timeline,
        [&](SharedTimeline& part) { return open_pulse_source(part, module, wanted[0]); },
        [&](SharedTimeline& part) { return open_pulse_source(part, module, wanted[1], false); });
}

} // namespace

std::unique_ptr<SoundSource> open_sound_source(SharedTimeline& shared)
{
    const char* const setting = secure_getenv("ZU3_AUDIO");
    const std::string_view name = setting && *setting ? setting : "pulse";
    const bool by_pulse = name == "pulse";
    const std::vector<WantedSource> wanted = wanted_sources();
    if (by_pulse && wanted.empty())
        return open_silence();
    const char* failure = nullptr;
    const PulseModule* const module = by_pulse ? load_pulse_module(failure) : nullptr;
    if (module)
        return open_server(shared, *module, wanted);
    if (name == "tone")
        return open_tone();
    if (by_pulse)
        HOST_LOGW(
            "No sound can be recorded (%s); there is silence instead. ZU3_AUDIO=silence asks for it.",
            failure);
    else if (name != "silence")
        HOST_LOGE(
            "ZU3_AUDIO=%.40s is no source of sound, there are pulse, tone and silence; silence is heard.",
            setting);
    return open_silence();
}

} // namespace zu3host
