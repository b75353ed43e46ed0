#pragma once

#include "audio/pcm_reader.h"
#include "multiplexer/aac_encoder.h"
#include "multiplexer/sound_queue.h"

#include <array>
#include <cstdint>
#include <memory>

namespace zu3host {

/**
 * The sound of one recording: the output of the process's audio capture, from the first picture on,
 * as AAC frames without gaps. Silence replaces missing sound, so that sound and pictures stay in
 * sync. Not thread-safe.
 */
class SoundTrack {
public:
    /** @return null when there is no AAC encoder */
    static std::unique_ptr<SoundTrack> open();

    /**
     * Sets the source of sound, whether audio capture has started or not; null = none.
     */
    void listen(std::unique_ptr<PcmReader> reader);
    bool begun() const { return begun_; }
    /**
     * The track begins at this moment of the monotonic clock, which is presented at `pts` (90 kHz).
     */
    void begin(int64_t start_us, int64_t pts);
    /**
     * Encodes what was heard, as far as the queue has room.
     * @param until_us while no audio capture is started the track continues in silence up to here
     */
    void gather(int64_t until_us);
    SoundQueue& queue() { return queue_; }

private:
    explicit SoundTrack(std::unique_ptr<AacEncoder> encoder) : encoder_(std::move(encoder)) {}
    bool gather_heard();
    bool gather_silence(int64_t until_us);
    void stage_silence(int64_t samples);
    void drop(int64_t samples);
    void finish_frame();
    int64_t time_of_next_us() const;

    std::unique_ptr<AacEncoder> encoder_;
    std::unique_ptr<PcmReader> reader_;
    SoundQueue queue_;
    std::array<int16_t, aac_frame_samples* pcm_channels> staged_ = {};
    size_t staged_samples_ = 0;
    int64_t frames_ = 0;
    int64_t start_us_ = 0;
    int64_t start_pts_ = 0;
    bool begun_ = false;
    /** whether the last samples staged came from the reader */
    bool aligned_ = false;
};

} // namespace zu3host
