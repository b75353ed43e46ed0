#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace zu3host {

/**
 * Keeps the first pieces of a row until their time is known. A server that counts in cycles of its
 * graph (PipeWire) tells a time that is wrong by up to a cycle, the first one by more: a row placed
 * by it would be off until it was stretched into place. So the row waits for several reports and
 * begins in the middle of the range of the later half, without a tenth at each end: that does not
 * depend on when in a cycle they were asked for. A server whose reports agree lets it go after
 * four. Not thread-safe.
 */
class RowStart {
public:
    /** The next piece begins a new row. */
    void restart();
    /** @param first_us when the row's first frame was heard, by one report of the server */
    void report(int64_t first_us) { reports_.push_back(first_us); }
    /** @param samples `frames` frames, or null for a hole */
    void keep(const int16_t* samples, int64_t frames);
    /**
     * Whether the time is known: four reports within a millisecond, or 180 ms of sound and any
     * report.
     */
    bool settled() const;
    /** Whether the reports differ by more than a millisecond, so that one alone says little. */
    bool jitters() const;

    /** When the row's first frame was heard; with a report. */
    int64_t first_us() const;
    /** What was kept, interleaved. */
    std::span<const int16_t> samples() const { return samples_; }
    /** Frees them; the reports stay. */
    void forget_samples() { samples_ = {}; }

private:
    std::vector<int64_t> reports_;
    std::vector<int16_t> samples_;
};

} // namespace zu3host
