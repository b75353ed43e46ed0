#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "machine/host.h"
#include "process/signals.h"
#include "showing/status_file.h"

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
    /** time that a write has waited for the disk or the reader, 0 = none waits */
    std::optional<double> disk_waiting_seconds;
    /** the output is a pipe, so the wait is for its reader */
    bool has_reader = false;
    /** kept in memory by a replay: seconds, bytes, and the limit of bytes */
    std::optional<double> kept_seconds;
    uint64_t kept_bytes = 0;
    uint64_t most_kept_bytes = 0;
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

/** The progress as one JSON object, without a line end; unknown values are null. */
std::string progress_as_json(const Progress& progress, const char* state);

/**
 * The progress as a line for a terminal of `columns`: parts without room are left out, time, size
 * and rate last.
 */
std::string progress_as_line(const Progress& progress, size_t columns);

/**
 * Shows progress in the requested form: one refreshed line on a terminal, or one JSON object per
 * second on standard error, and the same object in a file. It writes no other text to standard
 * error.
 */
class StatusReport {
public:
    /** @param status_file empty = none. Throws Failure if it cannot be written. */
    StatusReport(bool json, std::string status_file);
    /** Reports the state "failed" unless finish() was called. */
    ~StatusReport();

    /** Whether progress is a refreshed line on a terminal. */
    bool on_terminal() const { return terminal_; }
    /** Whether an update is due, once per second. */
    bool due() const { return Clock::now() >= next_; }
    void update(const Progress& progress, const char* state = "recording");
    /** The last update: states whether there is a usable file, and removes the refreshed line. */
    void finish(const Progress& progress, bool usable);

private:
    void show_line(const Progress& progress, bool paused);
    /** Prints a failure of the status file and stops writing it. */
    void heed(const std::optional<std::string>& failure);

    bool json_;
    bool terminal_;
    bool colour_;
    std::optional<StatusFile> status_file_;
    TimePoint next_;
    Progress last_;
    bool finished_ = false;
};

} // namespace client
