#pragma once

#include "audio/sound_source.h"

namespace zu3host {

/**
 * What the desktop plays, by way of its PulseAudio server (PipeWire offers the same). A thread of
 * its own listens and connects, at first and again when the server went away; as long as there is
 * none, silence is heard. Only where the library is loaded. Throws std::system_error when the
 * system gives no thread.
 */
std::unique_ptr<SoundSource> open_pulse_source(SharedTimeline& shared);

} // namespace zu3host
