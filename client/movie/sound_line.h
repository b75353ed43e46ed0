#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <vector>

namespace client::movie {

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
