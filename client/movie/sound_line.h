#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <vector>

namespace client::movie {

/**
 * Sound that waits until its place in the movie is known. Handed on without a seam: silence stands
 * where none was heard.
 */
class SoundLine {
public:
    using Take = std::function<void(std::span<const int16_t>)>;
    using SampleAt = std::function<int64_t(uint64_t time_us)>;

    explicit SoundLine(Take take) : take_(std::move(take)) {}

    /** @param time_us when the first of the samples was heard */
    void put(uint64_t time_us, std::span<const int16_t> samples);
    /** Hands on what waits, up to the sample `end`. @param sample_at tells the place of a time */
    void hand_on(int64_t end, const SampleAt& sample_at);
    /** Silence up to the sample `end`, behind what was handed on. */
    void fill(int64_t end);
    /** Forgets what waits. */
    void forget() { pieces_.clear(); }
    /** Whether what waits reaches the sample `end`. */
    bool reaches(int64_t end, const SampleAt& sample_at) const;

private:
    struct Piece {
        uint64_t time_us;
        std::vector<int16_t> samples;
        /** pairs that were handed on or left out */
        int64_t used = 0;
        int64_t pairs() const { return static_cast<int64_t>(samples.size() / 2); }
    };

    const Take take_;
    std::deque<Piece> pieces_;
    /** the sample to hand on next */
    int64_t next_ = 0;
};

} // namespace client::movie
