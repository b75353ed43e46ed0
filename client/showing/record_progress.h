#pragma once

#include <cstdint>
#include <optional>

#include "machine/host.h"
#include "process/signals.h"

namespace client {

/** Progress of a recording. Values that the platform does not count are missing. */
struct Progress {
    double elapsed_seconds = 0;
    /** encoded */
    std::optional<uint64_t> frames;
    /** pictures left out by capture or encoder */
    std::optional<uint64_t> dropped;
    /** frames per second, of the last second or so */
    std::optional<double> fps;
    uint64_t file_bytes = 0;
    /** growth of the file in the last seconds */
    double bits_per_second = 0;
    /** 0 to 1, loudest recent sample */
    std::optional<double> sound_level;
    std::optional<bool> display_answers;
    /** time that a write has waited for the disk, 0 = none waits */
    std::optional<double> disk_waiting_seconds;
    /** part of the file that was rewritten with its index in front, 0 to 1 */
    std::optional<double> finished_part;
};

/** Measures a recording from its start; earlier counts do not belong to it. */
class RecordProgress {
public:
    RecordProgress();

    /** @param file_bytes size of the output file now */
    Progress measure(uint64_t file_bytes);

private:
    struct Sample {
        TimePoint at;
        uint64_t frames = 0;
        uint64_t file_bytes = 0;
    };
    double per_second(const Sample& now, uint64_t Sample::*value) const;
    void keep(const Sample& now);

    /** samples, a second apart, for the rates */
    static constexpr unsigned kept = 4;
    StatisticsDelta statistics_;
    Sample samples_[kept];
    unsigned sample_count_ = 0;
    TimePoint start_;
};

} // namespace client
