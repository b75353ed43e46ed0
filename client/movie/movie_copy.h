#pragma once

#include <functional>
#include <memory>
#include <string>

#include "files/output_file.h"
#include "files/output_format.h"
#include "process/signals.h"
#include "running/attended_process.h"

namespace client::movie {

/** A copy of a movie by a separate process, so a stalled disk does not block the program's exit. */
class MovieCopy {
public:
    /**
     * Copies a movie into a file of another container, which gets its name once it is complete.
     * Throws Failure if it cannot begin.
     * @param from an ordinary file, open to read; it stays the caller's
     * @param to checked with check_whole_file_path() before
     */
    static MovieCopy into_container(int from, const std::string& to, bool overwrite,
                                    Container container);
    /**
     * Rewrites a complete fragmented MP4 file with its index in front: writes beside it, syncs,
     * then renames. A failure leaves the file unchanged.
     * @param path the current path of `file`. Throws Failure if it cannot begin.
     */
    static MovieCopy with_index_in_front(const OutputFile& file, const std::string& path);

    bool through() const { return work_->through(); }
    /**
     * Waits for the end. A stop cancels the copy and gives the disk two more seconds.
     * @param stops number of earlier stop signals, which are ignored
     * @param show called every 100 ms with the finished part, 0 to 1
     */
    void attend(StopSignals& signals, unsigned stops, const std::function<void(double)>& show);
    /** Throws why the copy failed or is unfinished, as the end of a sentence. */
    void finish();

private:
    MovieCopy() = default;

    std::unique_ptr<AttendedProcess> work_;
};

} // namespace client::movie
