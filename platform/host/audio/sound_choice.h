#pragma once

#include "audio/pulse_module.h"
#include "audio/sound_source.h"

#include <memory>

namespace zu3host {

/**
 * The source that ZU3_AUDIO names: pulse, tone or silence; unset means pulse. With pulse, ZU3_SOUND
 * selects one of the server's sources. Does not wait for a server: the sound is silence until one
 * answers. `shared` must outlive the source.
 */
std::unique_ptr<SoundSource> open_sound_source(SharedTimeline& shared);

/**
 * Throws std::invalid_argument if ZU3_SOUND names a source that the sound server lacks. A server
 * that does not answer within 3 s accepts any name. Connects only if a name is given.
 */
void check_sound_choice();

/** The source's name in log lines. */
const char* called(const WantedSource& source);

} // namespace zu3host
