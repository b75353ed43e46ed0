#pragma once

#include "audio/pcm_reader.h"
#include "audio/sound_source.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace zu3host {

/** One run of audio capture, from the first start to the last stop. Thread-safe. */
class CaptureSession {
public:
    using Clock = int64_t (*)();
    using OpenSource = std::function<std::unique_ptr<SoundSource>(SharedTimeline&)>;

    /** Starts to listen; `clock` returns microseconds of the monotonic clock. */
    CaptureSession(const OpenSource& open, Clock clock,
                   int64_t capacity = SoundTimeline::usual_capacity);

    /** Stops listening, permanently. Sound heard so far can still be read. */
    void finish();

    /** The frame at which a new reader begins. */
    int64_t end();
    /** The result of a read. */
    struct Taken {
        /** frames copied */
        int64_t frames;
        /** frames before them that are not kept any more */
        int64_t lost;
    };
    /**
     * Frames from `position` on that can be read or are lost already; 0 and `finished` after the
     * end of all.
     */
    Taken waiting(int64_t position, bool& finished);
    Taken read(int64_t position, int64_t frames, void* dst);
    int64_t time_us(int64_t frame);

private:
    void advance();
    Taken from(int64_t position) const;

    const Clock clock_;
    SharedTimeline shared_;
    // under the timeline's lock
    bool finished_ = false;
    // the pointer under the timeline's lock
    std::unique_ptr<SoundSource> source_;
};

/** Reads session after session: what is left of a finished one, then the next from its start on. */
class SessionReader final : public PcmReader {
public:
    using Current = std::shared_ptr<CaptureSession> (*)();

    /** @param current returns the running session, null if there is none */
    explicit SessionReader(Current current);

    size_t level() override;
    size_t read(void* dst, size_t size) override;
    int64_t time_of_next_us() override;

private:
    int64_t waiting();
    void lose(int64_t frames);

    const Current current_;
    std::shared_ptr<CaptureSession> session_;
    int64_t position_ = 0;
};

/**
 * A started audio capture: while at least one lives, the process listens. Throws std::bad_alloc or
 * std::system_error when it cannot.
 */
class CaptureUse {
public:
    CaptureUse();
    CaptureUse(const CaptureUse&) = delete;
    CaptureUse& operator=(const CaptureUse&) = delete;
    ~CaptureUse();
};

} // namespace zu3host
