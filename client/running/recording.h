#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "command_line/options.h"
#include "files/output_file.h"
#include "machine/host.h"
#include "process/signals.h"

namespace client {

/** The greatest bit rate of the video in a recording of the library, bits per second. */
inline constexpr uint32_t greatest_recorded_rate = 4'500'000;

/** One recording of the library, from its opening to its close. Closes it if a step fails. */
class Recording {
public:
    /**
     * Longest wait for a writer that is behind. A stop must end the program within three seconds; a
     * time limit can wait longer.
     */
    static constexpr std::chrono::milliseconds patience_of_a_stop{2000},
        patience_at_the_end{15'000};

    /**
     * Opens and starts it; throws Failure. A stop request ends a wait for the display.
     * @param file the name for the library, instead of `options.output`
     * @param size of the pictures, instead of `options.size`
     */
    Recording(const RecordOptions& options, const std::string& file, Size size,
              StopSignals& signals);
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;
    ~Recording();

    /**
     * Waits for the first picture (1.5 s at most), stops capture, waits until the writer has caught
     * up with the multiplexer (`writer_limit` at most), and closes the file. A stalled disk gets
     * one second.
     * @return whether every call of the library succeeded
     */
    bool finish(std::chrono::milliseconds writer_limit);
    /** Whether finish() gave up a stalled disk. */
    bool disk_stalled() const { return disk_stalled_; }

private:
    void open_step_by_step(const RecordOptions& options, std::string file, Size size);
    void open_in_one_call(const RecordOptions& options, std::string file, Size size);
    void wait_for_first_picture() const;
    bool close();

    uint32_t slot_;
    bool one_call_;
    StatisticsDelta statistics_;
    bool open_ = false;
    bool disk_stalled_ = false;
};

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
    /** Whether the reader of a named pipe has left, which ends the recording in order. */
    bool reader_gone() const;
    /**
     * The pictures that found no room and the bytes that did not reach the file because its disk or
     * reader was too slow, as a sentence for a closed recording; nullopt if none.
     */
    std::optional<std::string> shortfall() const;
    /**
     * The number of pictures that greatest_recorded_rate made coarser than their quality, as a
     * sentence; nullopt if none.
     */
    std::optional<std::string> coarsened() const;
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
