#pragma once

namespace zu3host {

/**
 * Computes how much finer a key frame is to be than x264 makes it. x264 derives the quantizer of a
 * key frame from the mean of those before it, which get finer while a picture stands still.
 * Repetitions are missing from that mean. Not thread-safe.
 */
class KeyQuantizer {
public:
    /** A picture that x264 encoded, with the mean quantizer of its macroblocks. */
    void note_encoded(double quantizer, bool key, bool unchanged);
    void note_repeated();
    /** The offset of the next key frame's quantizer: 0 or negative. */
    float offset() const;

private:
    /** x264's mean, in which each picture counts 0.95 times as much as the next one. */
    class Mean {
    public:
        void add(double value);
        double value() const { return sum_ / weight_; }

    private:
        double sum_ = 0;
        double weight_ = 0;
    };

    // without and with repetitions
    Mean encoded_, shown_;
    double last_ = 0;
    // the finest that x264 would have used for a repetition; 0 before the first unchanged picture
    double unchanged_ = 0;
    bool repeated_ = false;
};

} // namespace zu3host
