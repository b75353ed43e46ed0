#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "files/output_file.h"
#include "running/attended_work.h"

namespace client::movie {

/**
 * Rewrites a complete MP4 file of fragments as one with its index in front: beside the file, synced,
 * then renamed. On a separate thread, which no disk keeps the program with.
 */
class IndexInFront {
public:
    /** @param path of `file` by now. Throws Failure when it cannot begin. */
    IndexInFront(const OutputFile& file, const std::string& path);

    /** Readable once it is through. */
    int fd() const { return work_->fd(); }
    bool through() const { return work_->through(); }
    /** The part that is done, 0 to 1. */
    double part() const { return shared_->part; }
    /** Has it end soon, with the file as it was. */
    void cancel() { shared_->cancelled = true; }
    /** Throws, when it is through, what kept it from success, as the end of a sentence. */
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
