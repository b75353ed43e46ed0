#pragma once

#include <memory>
#include <string>

#include "movie/movie_module.h"
#include "movie/replay_buffer.h"
#include "running/attended_work.h"

namespace client::movie {

/**
 * Writes a snapshot as an MP4 file on a separate thread of low priority. The file has no name, or a
 * hidden one, until it is complete; a failure removes it.
 */
class ReplaySave {
public:
    /**
     * Starts to write. Throws Failure if the system has no thread.
     * @param folder for the file, named by date and time; "" = the current folder
     */
    ReplaySave(Snapshot snapshot, const MovieFormat& format, const std::string& folder);

    const AttendedWork& work() const { return *work_; }
    /** The path of the finished file, once the work is done. Throws the reason if there is none. */
    std::string finish();

private:
    std::shared_ptr<std::string> path_ = std::make_shared<std::string>();
    std::unique_ptr<AttendedWork> work_;
};

} // namespace client::movie
