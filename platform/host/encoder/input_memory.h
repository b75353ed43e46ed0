#pragma once

#include "memory/device_memory.h"
#include "zu3/types.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>

namespace zu3host {

/**
 * The buffers that an encoder lends out for pictures to be copied into. At most one is lent at a time. Each
 * gets its memory when it is first needed. Not thread-safe.
 */
class LentBuffers {
public:
    static constexpr size_t count = 4;

    explicit LentBuffers(size_t bytes) : bytes_(bytes) {}

    /** Whether one is lent already or free. */
    bool any_to_lend() const;
    /** The buffer that is lent already, else a free one; null when none is free or memory is short. */
    uint8_t* lend();
    bool is_lent(const uint8_t* data) const { return data && data == lent_; }
    /** The lent buffer is filled: it is in use until release(). */
    void complete();
    void release(const uint8_t* data);

private:
    struct Free {
        void operator()(uint8_t* memory) const { std::free(memory); }
    };
    struct Buffer {
        std::unique_ptr<uint8_t, Free> memory;
        bool in_use = false;
    };

    size_t bytes_;
    std::array<Buffer, count> buffers_;
    uint8_t* lent_ = nullptr;
};

/** An encoder's entire inject buffer: one block of device memory with room for several pictures. */
class InjectRegion {
public:
    /** One picture in each place of the encoder's queue and the one that is being written. */
    static constexpr uint32_t pictures = 5;

    InjectRegion() = default;
    ~InjectRegion();
    InjectRegion(const InjectRegion&) = delete;
    InjectRegion& operator=(const InjectRegion&) = delete;

    /** Allocates the block for pictures of this size, once; false when there is no memory, which is logged.
     */
    bool allocate(size_t picture_bytes);
    /** Whether `bytes` from `data` on lie inside. */
    bool contains(const uint8_t* data, size_t bytes) const;
    uint32_t address() const;
    uint32_t size() const { return block_ ? block_->size : 0; }

private:
    std::optional<MemoryBlock> block_;
};

} // namespace zu3host
