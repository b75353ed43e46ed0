#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace client::movie {

/**
 * Memory in blocks of one size, mapped once. Only blocks that were written and not given back use
 * memory of the system. Each block counts its readers, which can be on other threads. A copy of
 * this process shares the blocks, and counts for itself.
 */
class BlockMemory {
public:
    static constexpr size_t block_bytes = 64 << 10;

    /** Throws Failure if the system refuses the memory. */
    explicit BlockMemory(uint32_t blocks);
    BlockMemory(const BlockMemory&) = delete;
    BlockMemory& operator=(const BlockMemory&) = delete;
    ~BlockMemory();

    uint32_t blocks() const { return blocks_; }
    std::span<uint8_t, block_bytes> block(uint32_t number) const
    {
        return std::span<uint8_t, block_bytes>(begin_ + number * block_bytes, block_bytes);
    }
    /** Returns the memory of a block, whose content is lost, to the system. */
    void give_back(uint32_t number) const;
    /**
     * No block counts as memory of this process any more until it is used again. Its content stays.
     */
    void let_go() const;

    void begin_to_read(uint32_t number)
    {
        readers_[number].fetch_add(1, std::memory_order_relaxed);
    }
    void end_to_read(uint32_t number) { readers_[number].fetch_sub(1, std::memory_order_release); }
    bool is_read(uint32_t number) const
    {
        return readers_[number].load(std::memory_order_acquire) > 0;
    }

private:
    const uint32_t blocks_;
    uint8_t* begin_ = nullptr;
    const std::unique_ptr<std::atomic<uint32_t>[]> readers_;
};

} // namespace client::movie
