#pragma once

#include "base/picture_layout.h"
#include "capture/image_placement.h"
#include "capture/part_list.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace zu3host {

/**
 * The pictures that a capture writes: slots of one block of device memory, either the capture's or
 * the encoder's entire inject buffer. Uses the first free slot, so a capture whose pictures return
 * at once touches the memory, and the cache, of one. A busy machine needs more for a moment; their
 * memory goes back to the system once it was not needed for `acquires_until_idle` pictures.
 * Thread-safe; the contents of a taken slot belong to the thread that took it.
 */
class PicturePool {
public:
    /** Of a slot; used only by the thread that took the slot. */
    struct Contents {
        /** the placement whose border is black */
        std::optional<Placement> bordered_for;
        /** of the contained image, 0 = none */
        uint64_t serial = 0;
        /** a renderer has drawn over the image */
        bool drawn_on = false;
        /** of the earlier picture that `changed` refers to */
        uint64_t since = 0;
        /** in pixels of the picture */
        PartList changed{};
    };

    /** Nine slots in its own memory; null without memory. Indices count up from `first_index`. */
    static std::shared_ptr<PicturePool> own(PictureLayout layout, uint32_t first_index);
    /**
     * The slots that fit in `size` bytes at `address`; null, with a log line, if none fits or the
     * address is unknown.
     */
    static std::shared_ptr<PicturePool> in_region(PictureLayout layout, uint64_t address,
                                                  uint32_t size, uint32_t first_index);
    ~PicturePool();
    PicturePool(const PicturePool&) = delete;
    PicturePool& operator=(const PicturePool&) = delete;

    PictureLayout layout() const { return layout_; }
    /** Whether the pictures lie in the encoder's inject buffer. */
    bool is_shared() const { return !owned_; }
    uint32_t count() const { return static_cast<uint32_t>(out_.size()); }

    static constexpr uint64_t acquires_until_idle = 256;

    /** The first slot that is neither out nor leased; nullopt if there is none. */
    std::optional<uint32_t> acquire();
    /** Puts a slot back; false for an index that is not out. */
    bool release(uint32_t index);
    bool any_out();

    /** The memory of a taken slot. */
    uint8_t* picture(uint32_t index) const { return base_ + slot_bytes_ * (index - first_index_); }
    uint64_t phys(uint32_t index) const { return phys_ + slot_bytes_ * (index - first_index_); }
    Contents& contents(uint32_t index) { return contents_[index - first_index_]; }

private:
    PicturePool(PictureLayout layout, uint8_t* base, uint64_t phys, size_t slot_bytes,
                uint32_t count, uint32_t first_index, bool owned);
    bool is_free(uint32_t slot) const;
    /** Of the last slot that has memory, if that is idle and not the first. */
    void give_back_memory();

    const PictureLayout layout_;
    uint8_t* const base_;
    const uint64_t phys_;
    const size_t slot_bytes_;
    const uint32_t first_index_;
    const bool owned_;
    // keeps the region while a picture is written, after the encoder has freed it
    const std::shared_ptr<const void> memory_;
    std::vector<Contents> contents_;

    std::mutex mutex_;
    std::vector<bool> out_;
    uint64_t acquires_ = 0;
    // the value of acquires_ when each slot was acquired last
    std::vector<uint64_t> acquired_;
    // slots that have memory
    uint32_t used_ = 0;
};

} // namespace zu3host
