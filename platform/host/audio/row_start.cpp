#include "audio/row_start.h"

#include "audio/pcm_reader.h"

#include <algorithm>

namespace zu3host {

namespace {

constexpr size_t enough_reports = 4;
constexpr int64_t agreement_us = 1000;
constexpr size_t enough_to_trim = 8;
/** Less than the wait before silence is filled in, so the row's place stays free. */
constexpr size_t longest_samples = size_t{pcm_rate} * 180 / 1000 * pcm_channels;
/** Limit of the kept sound while there is no report. */
constexpr size_t most_samples = size_t{pcm_rate} * 2 * pcm_channels;

} // namespace

void RowStart::restart()
{
    reports_.clear();
    samples_ = {};
}

void RowStart::keep(const int16_t* samples, int64_t frames)
{
    const auto count = static_cast<size_t>(frames) * pcm_channels;
    if (samples_.size() + count > most_samples)
        forget_samples();
    if (samples)
        samples_.insert(samples_.end(), samples, samples + count);
    else
        samples_.resize(samples_.size() + count);
}

bool RowStart::jitters() const
{
    if (reports_.empty())
        return false;
    const auto [least, most] = std::minmax_element(reports_.begin(), reports_.end());
    return *most - *least > agreement_us;
}

bool RowStart::settled() const
{
    return (reports_.size() >= enough_reports && !jitters()) ||
           (!reports_.empty() && samples_.size() >= longest_samples);
}

int64_t RowStart::first_us() const
{
    // The later half, since the graph may lose cycles while the stream starts.
    std::vector<int64_t> sorted(reports_.begin() + static_cast<std::ptrdiff_t>(reports_.size() / 2),
                                reports_.end());
    std::sort(sorted.begin(), sorted.end());
    const size_t outliers = sorted.size() >= enough_to_trim ? sorted.size() / 10 + 1 : 0;
    return (sorted[outliers] + sorted[sorted.size() - 1 - outliers]) / 2;
}

} // namespace zu3host
