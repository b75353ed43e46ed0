#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "process/unique_fd.h"

namespace client {

/**
 * A thread that writes one piece after the other, and tells by a descriptor when it is through with
 * all.
 */
class SinkThread {
public:
    /** @param owned the same descriptor where it is the thread's to close. Throws Failure. */
    static std::shared_ptr<SinkThread> start(int fd, UniqueFd owned);

    /** Copies `data`, to be written behind what was written or from the file's begin on. */
    void begin(std::span<const uint8_t> data, bool at_begin);
    /** Readable once it is through with all. */
    int fd() const { return event_.get(); }
    /**
     * The errno of what was begun, 0 = all of it was taken; nothing while it is being written.
     * Once.
     */
    std::optional<int> take_result();
    /** Bytes that are begun and not through. */
    uint64_t backlog() const { return backlog_; }
    /** Bytes taken of those that were written behind one another. */
    uint64_t delivered() const { return delivered_; }
    /** The thread ends once it is through with all. */
    void end();

private:
    SinkThread(int fd, UniqueFd owned);
    void run();
    struct Piece {
        std::vector<uint8_t> data;
        bool at_begin;
    };
    int write_piece(const Piece& piece);
    ssize_t write_some(const Piece& piece, size_t at);

    const int fd_;
    const UniqueFd owned_;
    UniqueFd event_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<uint64_t> delivered_{0};
    std::atomic<uint64_t> backlog_{0};
    std::deque<Piece> pieces_;
    // the thread's own: the errno that nothing is written behind
    int failed_ = 0;
    bool ended_ = false;
    std::optional<int> result_;
};

} // namespace client
