#include "machine/sound_sources.h"

#include <dlfcn.h>

#include <zu3_host/sound_sources.h>

namespace client {
namespace {

void add_source(const zu3_host_sound_source_t* source, void* list)
{
    static_cast<std::vector<SoundSource>*>(list)->push_back({.name = source->name,
                                                             .description = source->description,
                                                             .sample_rate = source->sample_rate,
                                                             .channels = source->channels,
                                                             .recorded = source->recorded != 0});
}

} // namespace

std::optional<std::vector<SoundSource>> list_sound_sources()
{
    using List = int (*)(zu3_host_sound_source_receiver_t, void*);
    static const auto list = reinterpret_cast<List>(dlsym(RTLD_DEFAULT, "zu3_host_sound_sources"));
    std::vector<SoundSource> sources;
    if (!list || list(add_source, &sources) < 0)
        return std::nullopt;
    return sources;
}

} // namespace client
