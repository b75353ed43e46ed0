#include "audio/source_choice.h"

#include "audio/mixed_source.h"
#include "audio/sound_choice.h"
#include "base/host_log.h"

#include <cstdlib>
#include <string_view>
#include <vector>

namespace zu3host {

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
            "Cannot record sound (%s); recording silence. ZU3_AUDIO=silence does so without this warning.",
            failure);
    else if (name != "silence")
        HOST_LOGE("ZU3_AUDIO=%.40s is unknown (use pulse, tone or silence); recording silence.",
                  setting);
    return open_silence();
}

} // namespace zu3host
