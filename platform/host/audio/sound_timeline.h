#pragma once

#include "audio/pcm_reader.h"

#include <array>
#include <mutex>
#include <optional>
#include <vector>

namespace zu3host {

/**
 * Keeps the greatest absolute sample of the last 100 ms heard in the statistics. Not thread-safe.
 */
class LevelMeter {
public:
    ~LevelMeter();

    /** @param samples `frames` frames, or null for silence */
    void hear(const int16_t* samples, int64_t frames);

private:
    static constexpr int64_t slice_frames = pcm_rate / 100;
    static constexpr size_t slices = 10;
    void finish_slice();

    std::array<uint32_t, slices> peaks_ = {};
    size_t slice_ = 0;
    int64_t frames_in_slice_ = 0;
};

/**
 * The sound of one capture from its start on, of which the last seconds are kept. Frame n was heard
 * exactly n / 48000 s after the start, by the monotonic clock: its writer keeps that true, and its
 * readers rely on it. Not thread-safe.
 */
class SoundTimeline {
public:
    static constexpr int64_t usual_capacity = int64_t{2} * pcm_rate;

    /** @param metered whether its level is the one in the statistics */
    explicit SoundTimeline(int64_t start_us, int64_t capacity = usual_capacity,
                           bool metered = true);

    /** The frame after the last one; counts from the capture's start. */
    int64_t end() const { return end_; }
    /** The first frame that is still kept. */
    int64_t oldest() const { return end_ > capacity_ ? end_ - capacity_ : 0; }
    int64_t capacity() const { return capacity_; }
    int64_t time_us(int64_t frame) const;
    /** The last frame heard at `us` or before; negative before the start. */
    int64_t frame_at(int64_t us) const;

    /** @param samples `frames` frames, or null for silence */
    void append(const int16_t* samples, int64_t frames);
    /** Silence up to the moment `us`, if the timeline has not got there yet. */
    void append_silence_until(int64_t us);
    /** Copies frames that are kept; `dst` need not be aligned. */
    void copy(int64_t frame, int64_t frames, void* dst) const;

private:
    void store(const int16_t* samples, int64_t frames);

    const int64_t start_us_;
    const int64_t capacity_;
    std::vector<int16_t> samples_;
    int64_t end_ = 0;
    std::optional<LevelMeter> meter_;
};

/** A timeline that one thread fills and others read. */
struct SharedTimeline {
    SharedTimeline(int64_t start_us, int64_t capacity, bool metered = true)
        : timeline(start_us, capacity, metered)
    {
    }

    std::mutex mutex;
    /** under the mutex */
    SoundTimeline timeline;
};

} // namespace zu3host
