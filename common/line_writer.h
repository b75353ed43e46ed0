#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <sys/types.h>

namespace common {

/**
 * Writes lines to a descriptor on its own thread, so a stopped reader or a stalled disk blocks that
 * thread alone. Lines wait in a buffer of fixed size; a line that does not fit is refused as a
 * whole. Any thread. Keep it in a NeverDestroyed: its thread may never return.
 */
class LineWriter {
public:
    using Time = std::chrono::steady_clock::time_point;

    explicit LineWriter(int fd) : fd_(fd) {}
    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;

    /**
     * Queues whole lines and waits a moment for them to be written, so that a crash loses nothing
     * and the order with other writers is kept. Does not wait while the descriptor is blocked. Up
     * to 4096 bytes are one write(2), which a pipe keeps together.
     * @return the size of the text; -EAGAIN without room for it; or the negative errno of its write
     */
    int put(std::string_view text);
    /**
     * Queues lines without waiting, but only if nothing else is queued.
     */
    void put_if_idle(std::string_view text);
    /** Waits until all is written, at most until `limit`; true if it is. */
    bool flush(Time limit);

private:
    static constexpr size_t greatest_write = 4096;
    static constexpr size_t capacity = size_t{64} * 1024;

    bool is_copy() const;
    bool ensure_thread();
    int write_directly(std::string_view text) const;
    bool append(std::string_view text);
    void run();
    size_t pop(std::array<char, greatest_write>& bytes);
    void copy_in(const void* data, size_t size);
    void copy_out(void* data, size_t size);

    const int fd_;
    // guards what follows
    std::mutex mutex_;
    std::condition_variable filled_;
    std::condition_variable written_;
    // of each write its size, then its text; a ring
    std::array<char, capacity> bytes_;
    size_t begin_ = 0;
    size_t used_ = 0;
    // writes
    uint64_t appended_ = 0;
    uint64_t done_ = 0;
    int last_error_ = 0;
    bool stuck_ = false;
    // that the thread runs in, 0 = none does
    std::atomic<pid_t> process_{0};
};

} // namespace common
