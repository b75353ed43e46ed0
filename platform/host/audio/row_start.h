#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace zu3host {

/**
 * Keeps the first pieces of a row until their time is known. A server that counts in cycles of its
 * graph (PipeWire) reports times that are wrong by up to a cycle, the first one by more. A row
 * placed by the first report would be off until stretching corrects it. So the row waits for
 * several reports and begins in the middle of the range of their later half, without a tenth at
 * each end; that does not depend on the phase of the requests. If the reports agree, four are
 * enough. Not thread-safe.
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
     * Whether the time is known: four reports within a millisecond, or 180 ms of sound and at least
     * one report.
     */
    bool settled() const;
    /** Whether the reports differ by more than a millisecond. */
    bool jitters() const;

    /** The time when the row's first frame was heard. Needs a report. */
    int64_t first_us() const;
    /** The kept samples, interleaved. */
    std::span<const int16_t> samples() const { return samples_; }
    /** Frees the samples; keeps the reports. */
    void forget_samples() { samples_ = {}; }

private:
    std::vector<int64_t> reports_;
    std::vector<int16_t> samples_;
};

} // namespace zu3host
