#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "files/output_file.h"
#include "machine/host.h"
#include "process/signals.h"

namespace client {

/**
 * Detects failures that end a recording early. The library does not report them: it ignores the
 * results of its writes, and if a display goes away or stops answering, only the pictures stop.
 */
class RecordingMonitor {
public:
    /** Construct it before the recording starts; `file` must outlive it. */
    explicit RecordingMonitor(const OutputFile& file);

    /**
     * Why the recording cannot continue, as a sentence; nullopt while it can. A lost sound server
     * does not end it: the platform logs the loss and records silence.
     */
    std::optional<std::string> problem();
    /**
     * The pictures that found no room and the bytes that did not reach the file because the disk
     * was too slow, as a sentence for a closed recording; nullopt if none.
     */
    std::optional<std::string> shortfall() const;
    /** Whether the sound server went away since construction. */
    bool lost_sound() const;

private:
    std::optional<std::string> write_problem(const zu3_host_statistics_t& now) const;
    std::optional<std::string> growth_problem();

    const OutputFile& file_;
    StatisticsDelta statistics_;
    uint64_t last_size_ = 0;
    TimePoint last_growth_;
};

} // namespace client
