#pragma once

#include "memory/device_memory.h"
#include "picture/picture_in_flight.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <zu3/types.h>

namespace zu3host {

/**
 * The buffers that an encoder lends out for pictures to be copied into. At most one is lent at a
 * time. Within a capture's callback that is the captured picture itself, so that nothing is copied
 * and the picture needs no second place; otherwise memory of the encoder's own, made when it is
 * first needed. Not thread-safe.
 */
class LentBuffers {
public:
    /**
     * A busy machine may leave an encoder without a core for a quarter of a second, eight pictures
     * at 30 per second. Only buffers that are needed use memory.
     */
    static constexpr size_t count = 8;

    explicit LentBuffers(PictureLayout layout) : layout_(layout) {}
    ~LentBuffers();
    LentBuffers(const LentBuffers&) = delete;
    LentBuffers& operator=(const LentBuffers&) = delete;

    /** Whether one is lent already or free. */
    bool any_to_lend() const;
    /**
     * The already lent buffer, otherwise a free one; null if none is free or memory runs out.
     * Leases the memory of a captured picture, if one is given, until release().
     */
    uint8_t* lend(const PictureInFlight* captured);
    bool is_lent(const uint8_t* data) const { return lent_ && data && data == lent_->data; }
    /** Copied from the PictureInFlight of a captured picture; empty for other pictures. */
    struct Contents {
        uint64_t serial = 0;
        ChangedParts changed{};
        /** keeps the changed parts of an injected picture */
        std::shared_ptr<const void> memory{};
    };
    /** Call it once the lent buffer is filled; it stays in use until release(). */
    Contents complete();
    void release(const uint8_t* data);

private:
    struct Buffer {
        // null = free
        uint8_t* data = nullptr;
        // the memory of a captured picture
        std::shared_ptr<const void> borrowed;
        Contents contents;
        // may outlive the encoder while it is being filled
        std::shared_ptr<uint8_t> own;
    };
    uint8_t* own_memory(Buffer& buffer);
    void empty(Buffer& buffer);

    PictureLayout layout_;
    std::array<Buffer, count> buffers_;
    Buffer* lent_ = nullptr;
};

/** An encoder's entire inject buffer: one block of device memory with room for several pictures. */
class InjectRegion {
public:
    /**
     * Fewer than the encoder's queue has places, since the block is allocated whole. While all are
     * leased a capture drops its pictures.
     */
    static constexpr uint32_t pictures = 5;

    InjectRegion() = default;
    ~InjectRegion();
    InjectRegion(const InjectRegion&) = delete;
    InjectRegion& operator=(const InjectRegion&) = delete;

    /**
     * Allocates the block for pictures of this size, once; false when there is no memory, which is
     * logged.
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
