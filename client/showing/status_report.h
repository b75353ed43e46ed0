#pragma once

#include <optional>
#include <string>

#include "showing/record_progress.h"
#include "showing/status_file.h"

namespace client {

/** The progress as one JSON object, without a line end; unknown values are null. */
std::string progress_as_json(const Progress& progress, const char* state);

/**
 * The progress as a line for a terminal of `columns`: parts without room are left out, time, size
 * and rate last.
 */
std::string progress_as_line(const Progress& progress, size_t columns);

/**
 * Shows progress in the requested form: one refreshed line on a terminal, or one JSON object per
 * second on standard error, and the same object in a file. It writes nothing else to standard
 * error.
 */
class StatusReport {
public:
    /** @param status_file empty = none. Throws Failure if it cannot be written. */
    StatusReport(bool json, std::string status_file);
    /** Reports the state "failed" unless finish() was called. */
    ~StatusReport();

    /** Whether an update is due, once per second. */
    bool due() const { return Clock::now() >= next_; }
    void update(const Progress& progress, const char* state = "recording");
    /** The last update: states whether there is a usable file, and removes the refreshed line. */
    void finish(const Progress& progress, bool usable);

private:
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
