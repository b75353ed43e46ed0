#include "capture/picture_pool.h"

#include "base/host_log.h"
#include "memory/device_memory.h"
#include "memory/memory_register.h"
#include "picture/picture_in_flight.h"

#include <algorithm>

namespace zu3host {

namespace {

// An encoder may read as many as it lends buffers, out of the capture's memory, while one is
// written.
constexpr uint32_t own_slots = 9;

constexpr size_t aligned(size_t bytes)
{
    return common::round_up(bytes, size_t{picture_alignment});
}

/**
 * Includes a chroma plane sized on 64 lines, as a caller that copies pictures may count them.
 */
size_t own_slot_bytes(PictureLayout layout)
{
    const size_t chroma_lines = common::round_up(size_t{layout.lines}, size_t{64}) / 2;
    return aligned(layout.luma_bytes() + chroma_lines * layout.stride);
}

} // namespace

PicturePool::PicturePool(PictureLayout layout, uint8_t* base, uint64_t phys, size_t slot_bytes,
                         uint32_t count, uint32_t first_index, bool owned)
    : layout_(layout), base_(base), phys_(phys), slot_bytes_(slot_bytes), first_index_(first_index),
      owned_(owned), memory_(hold_memory(base)), contents_(count), out_(count), acquired_(count)
{
}

std::shared_ptr<PicturePool> PicturePool::own(PictureLayout layout, uint32_t first_index)
{
    const size_t slot_bytes = own_slot_bytes(layout);
    const auto block = allocate_block("capture", static_cast<uint32_t>(slot_bytes * own_slots));
    if (!block) {
        HOST_LOGE("There is no memory for the capture's %u pictures of %zu bytes.", own_slots,
                  slot_bytes);
        return nullptr;
    }
    return std::shared_ptr<PicturePool>(new PicturePool(layout, block->virt, block->phys,
                                                        slot_bytes, own_slots, first_index, true));
}

std::shared_ptr<PicturePool> PicturePool::in_region(PictureLayout layout, uint64_t address,
                                                    uint32_t size, uint32_t first_index)
{
    constexpr uint64_t most_slots = 64;
    const auto memory = hold_memory(reinterpret_cast<const void*>(static_cast<uintptr_t>(address)));
    const auto block = block_of_virt(address);
    if (!memory || !block) {
        HOST_LOGE("The capture cannot write to address 0x%llx: it is not in the device's memory.",
                  static_cast<unsigned long long>(address));
        return nullptr;
    }
    // The address may be rounded up while the size is not, so the block's end limits it as well.
    const uint64_t offset = address - reinterpret_cast<uintptr_t>(block->virt);
    const uint64_t usable = std::min<uint64_t>(size, block->size - offset);
    const size_t slot_bytes = aligned(layout.picture_bytes());
    // The last slot needs no more than the picture itself.
    const uint64_t slots = (usable + slot_bytes - layout.picture_bytes()) / slot_bytes;
    if (!slots) {
        HOST_LOGE("The capture's output buffer has %llu bytes, and a picture needs %zu.",
                  static_cast<unsigned long long>(usable), layout.picture_bytes());
        return nullptr;
    }
    const auto count = static_cast<uint32_t>(std::min(slots, most_slots));
    return std::shared_ptr<PicturePool>(new PicturePool(
        layout, block->virt + offset, block->phys + offset, slot_bytes, count, first_index, false));
}

PicturePool::~PicturePool()
{
    for (uint32_t slot = 0; slot < count(); ++slot)
        release(first_index_ + slot);
    if (owned_)
        free_block(phys_);
}

std::optional<uint32_t> PicturePool::acquire()
{
    const std::lock_guard lock(mutex_);
    for (uint32_t slot = 0; slot < out_.size(); ++slot) {
        if (!is_free(slot))
            continue;
        const uint32_t index = first_index_ + slot;
        if (is_shared())
            lease_picture(picture(index));
        out_[slot] = true;
        acquired_[slot] = ++acquires_;
        used_ = std::max(used_, slot + 1);
        give_back_memory();
        return index;
    }
    return std::nullopt;
}

bool PicturePool::is_free(uint32_t slot) const
{
    return !out_[slot] && !picture_is_leased(picture(first_index_ + slot));
}

void PicturePool::give_back_memory()
{
    const uint32_t last = used_ - 1;
    if (last == 0 || !is_free(last) || acquires_ - acquired_[last] < acquires_until_idle)
        return;
    contents_[last] = {};
    discard_pages(picture(first_index_ + last), layout_.picture_bytes());
    --used_;
}

bool PicturePool::release(uint32_t index)
{
    const std::lock_guard lock(mutex_);
    const uint32_t slot = index - first_index_;
    if (slot >= out_.size() || !out_[slot])
        return false;
    out_[slot] = false;
    if (is_shared())
        return_picture(picture(index));
    return true;
}

bool PicturePool::any_out()
{
    const std::lock_guard lock(mutex_);
    return std::find(out_.begin(), out_.end(), true) != out_.end();
}

} // namespace zu3host
