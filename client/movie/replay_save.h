#pragma once

#include <memory>
#include <optional>
#include <string>

#include "movie/movie_module.h"
#include "movie/replay_buffer.h"
#include "movie/snapshot_handover.h"
#include "running/attended_process.h"

namespace client::movie {

/**
 * Writes snapshots as MP4 files, one at a time, in a separate process of low priority. A file has
 * no name, or a hidden one, until it is complete; a failure, or the end of this process, removes it.
 */
class ReplaySave {
public:
    struct File {
        std::string path;
        uint64_t bytes;
    };

    /**
     * Starts the process, which waits: construct it before the library runs. Throws Failure if the
     * system has no process or memory, or the movie module is not installed.
     * @param folder for the files, named by date and time; "" = the current folder
     */
    ReplaySave(const ReplayBuffer& buffer, const MovieFormat& format, const std::string& folder);

    /** Starts to write. Not while busy(). Throws Failure if the process was killed. */
    void begin(Snapshot snapshot);
    /** Until finish(). */
    bool busy() const { return snapshot_.has_value(); }
    /** Readable once the file is written; -1 while not busy(). */
    int fd() const { return busy() ? process_->fd() : -1; }
    bool through() const { return busy() && process_->through(); }
    /** The finished part, 0 to 1. */
    double part() const { return process_->part(); }
    /** Gives back the memory that the process has read. */
    void give_back();
    /** The process removes what it has written, once it can. */
    void cancel() { process_->cancel(); }
    /** Call it once through(): the complete file. Throws the reason if there is none. */
    File finish();

private:
    SnapshotHandover handover_;
    std::unique_ptr<AttendedProcess> process_;
    /** keeps its memory until it is read */
    std::optional<Snapshot> snapshot_;
};

} // namespace client::movie
