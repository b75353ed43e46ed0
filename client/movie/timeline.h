#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "running/encoded_stream.h"

namespace client::movie {

/** A frame and its index on the grid of the frame rate. */
struct PlacedFrame {
    std::span<const uint8_t> bytes;
    /** from 0; a frame that was never encoded leaves a gap */
    int64_t index = 0;
    bool key = false;
};

/**
 * Places frames on the grid of the frame rate by their time stamps. Recordings before and after a
 * pause are stretches that follow one another without a gap. The time stamp of a key frame may be
 * that of a later picture, so a key frame waits for the time of the next frame.
 */
class FrameLine {
public:
    using Take = std::function<void(const PlacedFrame&)>;

    FrameLine(uint32_t fps, Take take) : fps_(fps), take_(std::move(take)) {}

    void put(const EncodedFrame& frame);
    /** Releases the waiting key frame, if there is one. */
    void flush();
    /**
     * Begins a stretch: the next frame follows the last one, whatever their time stamps. Call flush
     * before.
     */
    void begin_stretch() { begun_ = false; }
    /**
     * Whether the stretch has enough frames to know the phase of their times against the grid:
     * before that, sample_at() may be half a period off, if the first frame was late.
     */
    bool settled() const { return times_.size() >= settling_frames; }

    /** The index after the last released frame. */
    int64_t next() const { return next_; }
    /**
     * The sample heard at a time of the current stretch, which must have a frame; counted from the
     * sample heard with frame 0.
     */
    int64_t sample_at(uint64_t time_us) const;
    /** The first sample after `index` frames. */
    int64_t sample_behind(int64_t index) const;

private:
    void place(std::span<const uint8_t> bytes, bool key, uint64_t time_us);
    uint64_t period_us() const { return 1'000'000 / fps_; }
    void note_phase(uint64_t time_us);

    static constexpr size_t settling_frames = 5;

    const uint32_t fps_;
    const Take take_;
    std::vector<uint8_t> held_;
    /** time stamp of the waiting key frame */
    std::optional<uint64_t> held_us_;
    bool begun_ = false;
    /** time of the stretch's first place on the grid: of its first frame, later the median */
    uint64_t origin_us_ = 0;
    /** times of the first place by each of the stretch's first frames */
    std::vector<uint64_t> times_;
    int64_t origin_ = 0;
    int64_t next_ = 0;
};

/**
 * Keeps sound until its place in the movie is known, and releases it without a gap: silence fills
 * the times without sound.
 */
class SoundLine {
public:
    using Take = std::function<void(std::span<const int16_t>)>;
    using SampleAt = std::function<int64_t(uint64_t time_us)>;

    explicit SoundLine(Take take) : take_(std::move(take)) {}

    /** @param time_us when the first of the samples was heard */
    void put(uint64_t time_us, std::span<const int16_t> samples);
    /**
     * Releases waiting sound up to the sample `end`.
     * @param sample_at returns the sample of a time
     */
    void hand_on(int64_t end, const SampleAt& sample_at);
    /** Releases silence up to the sample `end`, after the released sound. */
    void fill(int64_t end);
    /** Forgets the waiting sound. */
    void forget() { pieces_.clear(); }
    /** Whether the waiting sound reaches the sample `end`. */
    bool reaches(int64_t end, const SampleAt& sample_at) const;

private:
    struct Piece {
        uint64_t time_us;
        std::vector<int16_t> samples;
        /** pairs that were released or left out */
        int64_t used = 0;
        int64_t pairs() const { return static_cast<int64_t>(samples.size() / 2); }
    };

    const Take take_;
    std::deque<Piece> pieces_;
    /** the next sample to release */
    int64_t next_ = 0;
};

} // namespace client::movie
