#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "movie/byte_queue.h"
#include "running/encoded_stream.h"

namespace client::movie {

/** A frame, or samples in succession. */
struct KeptPiece {
    enum class Kind : uint32_t { frame, key_frame, sound };
    Kind kind = Kind::frame;
    /** the frame's time stamp, or when the first sample was heard */
    uint64_t time_us = 0;
    std::span<const uint8_t> bytes;

    /** of sound: pairs for both channels */
    std::span<const int16_t> samples() const;
};

/** The data of a save, in the order of their arrival. The first frame is a key frame. */
class Snapshot {
public:
    /** Without a frame. */
    bool empty() const { return first_frame_ == bytes_.end(); }
    /**
     * The next piece; its bytes are valid until the next call, which gives back their memory. False
     * at the end.
     */
    bool next(KeptPiece& piece);
    /** The part that was read, 0 to 1. */
    double part_read() const;
    /** Gives back the memory of a part that another process has read. */
    void give_back(double part);

private:
    friend class ReplayBuffer;
    friend class SnapshotHandover;
    Snapshot(SharedBytes bytes, uint64_t first_frame);

    SharedBytes bytes_;
    uint64_t at_;
    /** position of the first key frame; earlier frames belong to a forgotten group */
    uint64_t first_frame_;
    std::vector<uint8_t> content_;
};

/**
 * The last seconds of encoded frames and of sound, from a key frame on, in memory of a fixed size.
 * Not thread-safe; snapshots can be read on other threads.
 */
class ReplayBuffer {
public:
    /**
     * Throws Failure if the system refuses the memory.
     * @param memory_bytes its memory: half for what it keeps, half for what a save still reads; at
     *     least 1 MiB
     */
    ReplayBuffer(std::chrono::microseconds last, uint64_t memory_bytes);

    /** Without room, the oldest groups are forgotten; frames up to a key frame are left out. */
    void put_frame(const EncodedFrame& frame);
    /** @param time_us when the first of the samples was heard */
    void put_sound(uint64_t time_us, std::span<const int16_t> samples);
    /** Costs no copy of the content, and memory only for what arrives while it is read. */
    Snapshot snapshot() const;

    /** From the first frame to the last. */
    std::chrono::microseconds length() const;
    /** Bytes of memory in use, in whole blocks; also those that a save still reads. */
    uint64_t bytes_in_memory() const { return queue_.memory_in_use(); }

    /** Also of the snapshots. */
    const std::shared_ptr<BlockMemory>& memory() const { return queue_.memory(); }

private:
    /** A key frame and those that depend on it. */
    struct Group {
        uint64_t begin;
        uint64_t time_us;
    };
    /** Forgets groups until `bytes` have room; false if they have none even then. */
    bool make_room(uint64_t bytes);
    /** Forgets the oldest group, or sound without frames; false if there is nothing. */
    bool forget_oldest();
    /** Drops what lies before the first group and its sound. */
    void forget_unneeded();
    void put(KeptPiece::Kind kind, uint64_t time_us, std::span<const uint8_t> content);
    /** Position of the first key frame; the end without one. */
    uint64_t first_frame() const;

    const uint64_t last_us_;
    ByteQueue queue_;
    const uint64_t most_bytes_;
    std::deque<Group> groups_;
    uint64_t newest_us_ = 0;
    uint64_t newest_sound_us_ = 0;
};

} // namespace client::movie
