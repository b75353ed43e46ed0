#include "showing/record_progress.h"

#include <algorithm>

namespace client {

RecordProgress::RecordProgress() : start_(Clock::now())
{
    keep({.at = start_});
}

// Since the oldest sample: the file grows in batches, so one second alone is misleading.
double RecordProgress::per_second(const Sample& now, uint64_t Sample::*value) const
{
    const Sample& then = samples_[0];
    const double seconds = std::chrono::duration<double>(now.at - then.at).count();
    return seconds > 0 && now.*value > then.*value
               ? static_cast<double>(now.*value - then.*value) / seconds
               : 0;
}

void RecordProgress::keep(const Sample& now)
{
    if (sample_count_ > 0 && now.at - samples_[sample_count_ - 1].at < std::chrono::seconds(1))
        return;
    if (sample_count_ == kept)
        std::shift_left(samples_, samples_ + kept, 1);
    else
        ++sample_count_;
    samples_[sample_count_ - 1] = now;
}

Progress RecordProgress::measure(uint64_t file_bytes)
{
    Sample now{.at = Clock::now(), .file_bytes = file_bytes};
    Progress progress;
    progress.elapsed_seconds = std::chrono::duration<double>(now.at - start_).count();
    progress.file_bytes = file_bytes;
    progress.bits_per_second = per_second(now, &Sample::file_bytes) * 8;
    if (const auto counted = statistics_.read()) {
        now.frames = counted->pictures_encoded;
        progress.frames = now.frames;
        progress.fps = per_second(now, &Sample::frames);
        progress.dropped = pictures_left_out(*counted);
        progress.sound_level = counted->sound_level / 32768.0;
        progress.display_answers = !display_is_silent(*counted);
        progress.disk_waiting_seconds = static_cast<double>(counted->write_waiting_us) / 1e6;
    }
    keep(now);
    return progress;
}

} // namespace client
