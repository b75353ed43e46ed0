#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "files/output_file.h"
#include "machine/host.h"
#include "process/signals.h"
#include "running/display_watch.h"

namespace client {

/**
 * Looks for what ends a recording before its time. The library does not report it: it ignores what
 * its writes return, and a display that goes away, or does not answer, only stops its pictures.
 */
class RecordWatch {
public:
    /** Made before the recording starts; `file` outlives it. */
    explicit RecordWatch(const OutputFile& file);

    /**
     * Why the recording cannot go on, as a sentence; nothing while it can. A sound server that goes
     * away is no such reason: the platform says so in its log, and silence is recorded.
     */
    std::optional<std::string> problem();
    /**
     * What a recording that is closed is short of because its disk did not keep up, as a sentence:
     * pictures that there was no room for, and bytes that did not reach the file.
     */
    std::optional<std::string> shortfall() const;
    /** Whether the sound server went away since the recording was started. */
    bool lost_sound() const;

private:
    std::optional<std::string> write_problem(const zu3_host_statistics_t& now) const;
    std::optional<std::string> growth_problem();

    const OutputFile& file_;
    DisplayWatch display_;
    std::optional<zu3_host_statistics_t> before_;
    uint64_t last_size_ = 0;
    TimePoint last_growth_;
};

} // namespace client
