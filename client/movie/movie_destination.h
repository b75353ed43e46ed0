#pragma once

#include <optional>
#include <string>

#include "files/byte_sink.h"
#include "process/messages.h"

namespace client::movie {

/** The file or pipe of a movie, and the reason for an early end of the recording. */
class MovieDestination {
public:
    /** See ByteSink. */
    MovieDestination(const std::string& path, bool overwrite, int standard_output,
                     StopSignals& signals);

    ByteSink& sink() { return sink_; }
    const ByteSink& sink() const { return sink_; }
    /** Otherwise a pipe or a device. */
    bool is_ordinary_file() const { return sink_.file() && sink_.file()->regular(); }
    /** For sentences. */
    const char* kind() const { return is_ordinary_file() ? "disk" : "reader"; }
    /** Prints once that pictures are left out. */
    void warn_of_slowness();

    /** Notes that the disk failed or the reader is gone. */
    void look();
    /** Notes that another program removed, replaced or truncated the file. */
    void look_at_file();
    /** Notes a failure to write the movie. */
    void give_up(const Failure& failure);
    /** Notes a reason to end, if it is the first one. */
    void end_for(std::optional<std::string> reason);
    /** Waits until everything is written, at most until `limit`, and notes what is lost. */
    void finish(TimePoint limit);
    /** A full disk can end the file in the middle of a piece. @param end of the last whole one */
    void cut_torn_piece(uint64_t end);

    /** Whether the recording must end. */
    bool ended() const { return reader_gone_ || problem_; }
    /** Whether the movie can still be written. */
    bool accepts() const { return !broken_ && !disk_failed_ && !reader_gone_; }
    bool broken() const { return broken_; }
    bool disk_failed() const { return disk_failed_; }
    /** Whether another program took the file away. */
    bool lost() const { return lost_; }
    /** The reason for the early end; nullopt after a stop, the time limit, or without a reader. */
    const std::optional<std::string>& problem() const { return problem_; }

private:
    const std::string path_;
    ByteSink sink_;
    bool warned_ = false;
    bool broken_ = false;
    bool disk_failed_ = false;
    bool reader_gone_ = false;
    bool lost_ = false;
    std::optional<std::string> problem_;
};

} // namespace client::movie
