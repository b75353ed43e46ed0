#include "audio/sound_choice.h"

#include "audio/mixed_source.h"
#include "base/host_log.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zu3host {

namespace {

using Kind = WantedSource::Kind;

std::string_view setting(const char* variable, std::string_view usual)
{
    const char* const given = secure_getenv(variable);
    return given && *given ? given : usual;
}

/** None, one, or two to be mixed. */
std::vector<WantedSource> wanted_sources()
{
    const std::string_view name = setting("ZU3_SOUND", "desktop");
    if (name == "none")
        return {};
    if (name == "desktop")
        return {{.kind = Kind::desktop, .name = {}}};
    if (name == "microphone")
        return {{.kind = Kind::microphone, .name = {}}};
    if (name == "both")
        return {{.kind = Kind::desktop, .name = {}}, {.kind = Kind::microphone, .name = {}}};
    return {{.kind = Kind::named, .name = std::string(name)}};
}

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
    const std::string_view name = setting("ZU3_AUDIO", "pulse");
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
        HOST_LOGE("ZU3_AUDIO=%s is unknown (use pulse, tone or silence); recording silence.",
                  std::string(name.substr(0, 40)).c_str());
    return open_silence();
}

void check_sound_choice()
{
    const std::vector<WantedSource> wanted = wanted_sources();
    if (setting("ZU3_AUDIO", "pulse") != "pulse" || wanted.size() != 1 ||
        wanted.front().kind != Kind::named)
        return;
    const std::string& name = wanted.front().name;
    const char* failure = nullptr;
    const PulseModule* const module = load_pulse_module(failure);
    std::vector<PulseSourceInfo> sources;
    if (!module || !module->list_sources(sources) ||
        std::any_of(sources.begin(), sources.end(),
                    [&](const PulseSourceInfo& each) { return each.name == name; }))
        return;
    std::string text = "ZU3_SOUND=" + name.substr(0, 100) +
                       " names an unknown source; known are desktop, microphone, both, none";
    for (const PulseSourceInfo& source : sources)
        text += ", " + source.name;
    throw std::invalid_argument(text);
}

const char* called(const WantedSource& source)
{
    if (source.kind == Kind::named)
        return source.name.c_str();
    return source.kind == Kind::microphone ? "a microphone" : "the desktop";
}

} // namespace zu3host
