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
 * Writes lines to a descriptor from its own thread, so that a reader that has stopped, or a disk
 * that stands still, holds up that thread alone. Lines wait in a buffer of fixed size; a line that
 * does not fit is refused whole. From any thread. Keep it in a NeverDestroyed: its thread may be
 * held for ever.
 */
class LineWriter {
public:
    using Time = std::chrono::steady_clock::time_point;

    explicit LineWriter(int fd) : fd_(fd) {}
    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;

    /**
     * Hands over text that ends with a line, and gives it a moment to be written: as long as
     * everything moves, a crash loses nothing and what other threads write elsewhere comes in
     * order. While nothing does, there is no wait. Up to 4096 bytes are one write(2), which a pipe
     * keeps together.
     * @return the size of the text, or -EAGAIN without room for it, or the negative errno of its
     *     write
     */
    int put(std::string_view text);
    /**
     * The same without giving it a moment, unless something still waits to be written: then
     * nothing.
     */
    void put_if_idle(std::string_view text);
    /** Waits until all is written, at most until `limit`; whether it is. */
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
