#pragma once

#include "audio/sound_source.h"

namespace zu3host {

/**
 * The source that ZU3_AUDIO names: pulse, tone or silence; unset means pulse. With pulse, ZU3_SOUND
 * selects one of the server's sources. Does not wait for a server: the sound is silence until one
 * answers. `shared` must outlive the source.
 */
std::unique_ptr<SoundSource> open_sound_source(SharedTimeline& shared);

} // namespace zu3host
