#pragma once

#include "audio/pcm_reader.h"

#include <array>

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

} // namespace zu3host
