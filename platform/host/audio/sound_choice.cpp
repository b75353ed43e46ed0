#include "audio/sound_choice.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zu3host {

namespace {

using Kind = WantedSource::Kind;

std::string_view setting(const char* variable, std::string_view usual)
{
    const char* const given = secure_getenv(variable);
    return given && *given ? given : usual;
}

} // namespace

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
