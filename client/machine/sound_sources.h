#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace client {

/** A source of the sound server. */
struct SoundSource {
    std::string name;
    std::string description;
    /** samples per second and channel */
    uint32_t sample_rate = 0;
    uint32_t channels = 0;
    /** whether recordings use it: it is the monitor of the default output */
    bool recorded = false;
};

/** The sources of the sound server; nullopt if none answers within 3 s or libpulse is missing. */
std::optional<std::vector<SoundSource>> list_sound_sources();

} // namespace client
