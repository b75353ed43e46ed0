#pragma once

#include <optional>
#include <string>

#include "showing/record_progress.h"
#include "showing/status_file.h"

namespace client {

/** The progress as one JSON object, without a line end; unknown values are null. */
std::string progress_as_json(const Progress& progress, const char* state);

/**
 * The progress as a line for people, at most `columns` long: what has no room is left out, time,
 * size and rate last.
 */
std::string progress_as_line(const Progress& progress, size_t columns);

/**
 * Shows progress where it was asked for: one refreshed line on a terminal, or one JSON object a
 * second on standard error, and the same object in a file. Nothing else ever reaches standard error
 * from here.
 */
class StatusReport {
public:
    /** @param status_file empty = none. Throws Failure when it cannot be written. */
    StatusReport(bool json, std::string status_file);
    /** A report that was not finished ends with the state "failed". */
    ~StatusReport();

    /** When the next update is due; further ones before that are left out. */
    bool due() const { return Clock::now() >= next_; }
    void update(const Progress& progress, const char* state = "recording");
    /** The last one, which says whether there is a usable file; the refreshed line goes away. */
    void finish(const Progress& progress, bool usable);

private:
    /** Prints a failure of the status file, and gives the file up. */
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
