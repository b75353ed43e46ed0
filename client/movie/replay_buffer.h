#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <vector>

#include "running/encoded_stream.h"

namespace client::movie {

/** Counts the bytes of all pieces that are in memory. */
using ByteCount = std::shared_ptr<std::atomic<uint64_t>>;

/** A piece that the buffer and a save share; counted while it lives. */
template <typename Value> class Kept {
public:
    Kept(uint64_t time, bool is_key, std::span<const Value> values, ByteCount count)
        : time_us(time), key(is_key), content(values.begin(), values.end()),
          count_(std::move(count))
    {
        *count_ += values.size_bytes();
    }
    Kept(const Kept&) = delete;
    Kept& operator=(const Kept&) = delete;
    ~Kept() { *count_ -= content.size() * sizeof(Value); }

    /** the frame's time stamp, or when the first sample was heard */
    const uint64_t time_us;
    const bool key;
    const std::vector<Value> content;

private:
    const ByteCount count_;
};
using KeptFrame = std::shared_ptr<const Kept<uint8_t>>;
using KeptSound = std::shared_ptr<const Kept<int16_t>>;

/** The data of a save; the first frame is a key frame. */
struct Snapshot {
    std::vector<KeptFrame> frames;
    std::vector<KeptSound> sound;
};

/**
 * The last seconds of encoded frames and of sound, from a key frame on. Not thread-safe; snapshots
 * can be read on other threads.
 */
class ReplayBuffer {
public:
    /** @param most_bytes limit of the buffer; its last second may exceed it */
    ReplayBuffer(std::chrono::microseconds last, uint64_t most_bytes);

    void put_frame(const EncodedFrame& frame);
    /** @param time_us when the first of the samples was heard */
    void put_sound(uint64_t time_us, std::span<const int16_t> samples);
    Snapshot snapshot() const;

    /** From the first frame to the last. */
    std::chrono::microseconds length() const;
    /** Bytes in memory now, including those that a save still reads. */
    uint64_t bytes_alive() const { return *alive_; }

private:
    /** A key frame and those that depend on it. */
    struct Group {
        std::vector<KeptFrame> frames;
        uint64_t bytes = 0;
    };
    void forget_old();
    void forget_group();

    const uint64_t last_us_;
    const uint64_t most_bytes_;
    const ByteCount alive_ = std::make_shared<std::atomic<uint64_t>>(0);
    std::deque<Group> groups_;
    std::deque<KeptSound> sound_;
    /** in `groups_` and `sound_` */
    uint64_t bytes_ = 0;
    uint64_t newest_us_ = 0;
};

} // namespace client::movie
