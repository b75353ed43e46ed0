#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "files/output_file.h"
#include "files/output_format.h"
#include "running/attended_work.h"

namespace client::movie {

/**
 * Copies a movie into another container on a separate thread, so a stalled disk does not block the
 * program.
 */
class MovieCopy {
public:
    /**
     * @param from,to ordinary files, open to read and to write; they stay the caller's. Throws
     *     Failure if it cannot begin.
     */
    MovieCopy(int from, int to, Container container);

    /** Readable once it is through. */
    int fd() const { return work_->fd(); }
    bool through() const { return work_->through(); }
    /** The part that is done, 0 to 1. */
    double part() const { return shared_->part; }
    /** Makes it end soon, with a failure. */
    void cancel() { shared_->cancelled = true; }
    /** After it is through: throws the reason of a failure, as the end of a sentence. */
    void finish() { work_->finish(); }

private:
    struct Shared {
        std::atomic<double> part{0};
        std::atomic<bool> cancelled{false};
    };
    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
    std::unique_ptr<AttendedWork> work_;
};

/**
 * Rewrites a complete fragmented MP4 file with its index in front: writes beside it, syncs, then
 * renames. Runs on a separate thread, so a stalled disk does not block the program.
 */
class IndexInFront {
public:
    /** @param path the current path of `file`. Throws Failure if it cannot begin. */
    IndexInFront(const OutputFile& file, const std::string& path);

    /** Readable once it is through. */
    int fd() const { return work_->fd(); }
    bool through() const { return work_->through(); }
    /** The part that is done, 0 to 1. */
    double part() const { return shared_->part; }
    /** Makes it end soon and leave the file unchanged. */
    void cancel() { shared_->cancelled = true; }
    /** After it is through: throws the reason of a failure, as the end of a sentence. */
    void finish() { work_->finish(); }

private:
    struct Shared {
        std::atomic<double> part{0};
        std::atomic<bool> cancelled{false};
    };
    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
    std::unique_ptr<AttendedWork> work_;
};

} // namespace client::movie
