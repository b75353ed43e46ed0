#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace zu3host {

/**
 * Encoded sound that waits for its place in the stream: a fixed number of AAC frames with their
 * presentation times (90 kHz, the stream's). Allocates once. Not thread-safe.
 */
class SoundQueue {
public:
    /** 2.7 seconds */
    static constexpr size_t frames = 128;
    /**
     * A frame has up to 6144 bits for each of two channels (ISO/IEC 14496-3) and an ADTS header of
     * 7 bytes before them.
     */
    static constexpr size_t greatest_frame = 2 * 6144 / 8 + 7;

    SoundQueue() : data_(frames * greatest_frame) {}

    bool empty() const { return used_ == 0; }
    bool full() const { return used_ == frames; }
    size_t size() const { return used_; }
    void clear() { used_ = 0; }

    /** The place for the next frame's bytes; the queue must not be full. */
    std::span<uint8_t> place()
    {
        return {data_.data() + index(used_) * greatest_frame, greatest_frame};
    }
    void push(size_t bytes, int64_t pts)
    {
        entries_[index(used_)] = {pts, bytes};
        ++used_;
    }

    /** The oldest frame and its time; the queue must not be empty. */
    std::span<const uint8_t> front() const
    {
        return {data_.data() + first_ * greatest_frame, entries_[first_].bytes};
    }
    int64_t front_pts() const { return entries_[first_].pts; }
    int64_t back_pts() const { return entries_[index(used_ - 1)].pts; }
    void pop()
    {
        first_ = index(1);
        --used_;
    }

private:
    struct Entry {
        int64_t pts;
        size_t bytes;
    };
    size_t index(size_t nth) const { return (first_ + nth) % frames; }

    std::vector<uint8_t> data_;
    Entry entries_[frames] = {};
    size_t first_ = 0;
    size_t used_ = 0;
};

} // namespace zu3host
