#include "encoder/input_memory.h"

#include "base/host_log.h"
#include "memory/memory_register.h"
#include "picture/picture_in_flight.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace zu3host {
namespace {

/** Memory that a reader may fill longer than its owner waits; null without. */
std::shared_ptr<uint8_t> allocate_registered(size_t bytes)
{
    auto* const start = static_cast<uint8_t*>(std::aligned_alloc(picture_alignment, bytes));
    if (!start)
        return nullptr;
    std::shared_ptr<uint8_t> memory(start, [](uint8_t* gone) {
        forget_memory(gone);
        std::free(gone);
    });
    register_memory(start, bytes, memory);
    return memory;
}

} // namespace

LentBuffers::~LentBuffers()
{
    for (Buffer& buffer : buffers_)
        empty(buffer);
}

bool LentBuffers::any_to_lend() const
{
    return lent_ || std::ranges::count(buffers_, nullptr, &Buffer::data) > 0;
}

uint8_t* LentBuffers::lend(const PictureInFlight* captured)
{
    const bool usable = captured && captured->data && captured->layout == layout_;
    if (!lent_) {
        const auto found = std::ranges::find(buffers_, nullptr, &Buffer::data);
        lent_ = found == buffers_.end() ? nullptr : &*found;
    } else if (lent_->borrowed || usable) {
        // the picture of an earlier callback must not be written into
        empty(*lent_);
    }
    if (!lent_)
        return nullptr;
    if (usable) {
        lease_picture(captured->data);
        lent_->borrowed = captured->memory;
        lent_->contents = {captured->serial, captured->changed, {}};
    }
    lent_->data = usable ? captured->data : own_memory(*lent_);
    uint8_t* const data = lent_->data;
    if (!data)
        lent_ = nullptr;
    return data;
}

LentBuffers::Contents LentBuffers::complete()
{
    return std::exchange(lent_, nullptr)->contents;
}

uint8_t* LentBuffers::own_memory(Buffer& buffer)
{
    if (buffer.own)
        return buffer.own.get();
    const size_t bytes = common::round_up(layout_.picture_bytes(), size_t{picture_alignment});
    buffer.own = allocate_registered(bytes);
    // A file may end within a picture. Old contents of this memory must not show behind its
    // end.
    if (buffer.own)
        std::memset(buffer.own.get(), 0, bytes);
    return buffer.own.get();
}

void LentBuffers::empty(Buffer& buffer)
{
    if (buffer.borrowed)
        return_picture(buffer.data);
    buffer.borrowed.reset();
    buffer.data = nullptr;
    buffer.contents = {};
}

void LentBuffers::release(const uint8_t* data)
{
    const auto found = std::ranges::find(buffers_, data, &Buffer::data);
    if (found != buffers_.end())
        empty(*found);
}

InjectRegion::~InjectRegion()
{
    if (block_)
        free_block(block_->phys);
}

bool InjectRegion::allocate(size_t picture_bytes)
{
    if (!block_)
        block_ = allocate_block(
            "venc_inject",
            static_cast<uint32_t>(common::round_up(picture_bytes, size_t{picture_alignment}) *
                                  pictures));
    if (!block_)
        HOST_LOGE("No memory for the encoder's inject buffer of %u pictures of %zu bytes", pictures,
                  picture_bytes);
    return block_.has_value();
}

bool InjectRegion::contains(const uint8_t* data, size_t bytes) const
{
    if (!block_ || bytes > block_->size)
        return false;
    const auto start = reinterpret_cast<uintptr_t>(block_->virt);
    const auto first = reinterpret_cast<uintptr_t>(data);
    return first >= start && first - start <= block_->size - bytes;
}

uint32_t InjectRegion::address() const
{
    return block_ ? static_cast<uint32_t>(reinterpret_cast<uintptr_t>(block_->virt)) : 0;
}

} // namespace zu3host
