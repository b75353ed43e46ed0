#pragma once

#include "audio/pulse_module.h"
#include "audio/sound_timeline.h"

#include <memory>

namespace zu3host {

/** The source of a capture's sound. Created when the capture starts, destroyed when it stops. */
class SoundSource {
public:
    virtual ~SoundSource() = default;

    /**
     * Completes the timeline as far as it has to be at `now_us`; any thread, with the timeline's
     * lock held.
     */
    virtual void advance(SoundTimeline& timeline, int64_t now_us) = 0;
};

/**
 * A source of the PulseAudio server, or PipeWire's equivalent. A thread connects, and connects
 * again after the server went away. Without a server, or without the source, the sound is silence.
 * Throws std::system_error when the system gives no thread, std::bad_alloc without memory.
 * @param reports_server whether to log that a server is missing or went away
 */
std::unique_ptr<SoundSource> open_pulse_source(SharedTimeline& shared, const PulseModule& module,
                                               const WantedSource& wanted,
                                               bool reports_server = true);

/** 440 Hz on both channels, without a seam. */
std::unique_ptr<SoundSource> open_tone();
std::unique_ptr<SoundSource> open_silence();

} // namespace zu3host
