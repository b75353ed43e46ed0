#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "movie/block_memory.h"

namespace client::movie {

/**
 * A part of a queue that stays in memory while it is read. It can be read on another thread, and
 * outlive the queue.
 */
class SharedBytes {
public:
    /** @param blocks those from `begin` to `end` */
    SharedBytes(std::shared_ptr<BlockMemory> memory, std::vector<uint32_t> blocks, uint64_t begin,
                uint64_t end);
    SharedBytes(SharedBytes&& other) noexcept;
    SharedBytes& operator=(SharedBytes&&) = delete;
    ~SharedBytes();

    uint64_t begin() const { return begin_; }
    uint64_t end() const { return end_; }
    /** The numbers of the blocks from begin() to end(). */
    const std::vector<uint32_t>& blocks() const { return blocks_; }
    /** Copies bytes; `at` counts from the first byte that was ever put into the queue. */
    void read(uint64_t at, std::span<uint8_t> bytes) const;
    /** Gives back the memory before `at`; bytes there cannot be read any more. */
    void drop_before(uint64_t at);

private:
    std::shared_ptr<BlockMemory> memory_;
    std::vector<uint32_t> blocks_;
    /** of `blocks_`, those given back */
    size_t dropped_ = 0;
    uint64_t begin_ = 0;
    uint64_t end_ = 0;
};

/**
 * A queue of bytes in memory of a fixed size. It allocates nothing after its construction. Memory
 * of dropped bytes that are not read is used again; more than 1/32 of all goes back to the system.
 * Positions count from the first byte that was ever put. Not thread-safe.
 */
class ByteQueue {
public:
    /** Throws Failure if the system refuses the memory. */
    explicit ByteQueue(uint32_t blocks);

    uint64_t begin() const { return begin_; }
    uint64_t end() const { return end_; }
    const std::shared_ptr<BlockMemory>& memory() const { return memory_; }
    /** Bytes that can be put now. */
    uint64_t room();
    /** Appends bytes, at most room(). */
    void put(std::span<const uint8_t> bytes);
    /** Copies bytes of the queue. */
    void read(uint64_t at, std::span<uint8_t> bytes) const;
    void drop_before(uint64_t at);
    /** From the begin of the queue to its end. */
    SharedBytes share() const;
    /** Memory in use, also for bytes that were dropped and are still read, and spare memory. */
    uint64_t memory_in_use() const;

private:
    /** The place of a position's block in `queued_`. */
    size_t slot(uint64_t at) const { return at / BlockMemory::block_bytes % queued_.size(); }
    void collect();
    void reuse(uint32_t block);
    uint32_t take_block();

    const std::shared_ptr<BlockMemory> memory_;
    /** not in memory */
    std::vector<uint32_t> free_;
    /** free, and still in memory for the next bytes: the system needs long for new memory */
    std::vector<uint32_t> spare_;
    /** dropped, but perhaps still read */
    std::vector<uint32_t> dropped_;
    /** the block of each position, in turn */
    std::vector<uint32_t> queued_;
    uint64_t begin_ = 0;
    uint64_t end_ = 0;
};

} // namespace client::movie
