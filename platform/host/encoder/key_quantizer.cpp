#include "encoder/key_quantizer.h"

#include <algorithm>

namespace zu3host {
namespace {

// x264's weight of the earlier pictures, and the quantizers between its key frames and the others
// with its usual ratio of 1.4: 6 log2(1.4).
constexpr double weight_of_earlier = 0.95;
constexpr double key_frames_finer_by = 2.91;

// Content that is repeated stays on the screen, so a little more is well spent, up to a bound at
// which the bits are no longer saved elsewhere (docs/measurements/repeated_pictures.md).
constexpr double with_repetitions = -0.2;
constexpr double most = -1;

} // namespace

void KeyQuantizer::Mean::add(double value)
{
    sum_ = sum_ * weight_of_earlier + value;
    weight_ = weight_ * weight_of_earlier + 1;
}

void KeyQuantizer::note_encoded(double quantizer, bool key, bool unchanged)
{
    last_ = quantizer + (key ? key_frames_finer_by : 0);
    encoded_.add(last_);
    shown_.add(last_);
    if (key)
        repeated_ = false;
    else if (unchanged)
        unchanged_ = last_;
}

void KeyQuantizer::note_repeated()
{
    shown_.add(unchanged_ > 0 ? std::min(last_, unchanged_) : last_);
    repeated_ = true;
}

float KeyQuantizer::offset() const
{
    if (!repeated_)
        return 0;
    const double finer = std::clamp(shown_.value() - encoded_.value(), most, 0.0);
    return static_cast<float>(finer + with_repetitions);
}

} // namespace zu3host
