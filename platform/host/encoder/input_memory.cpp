#include "encoder/input_memory.h"

#include "common/picture_layout.h"
#include "log/host_log.h"

#include <algorithm>

namespace zu3host {
namespace {

constexpr size_t rounded_up(size_t bytes)
{
    return (bytes + picture_alignment - 1) & ~(size_t{picture_alignment} - 1);
}

} // namespace

bool LentBuffers::any_to_lend() const
{
    return lent_ || !std::ranges::all_of(buffers_, &Buffer::in_use);
}

uint8_t* LentBuffers::lend()
{
    if (lent_)
        return lent_;
    const auto found = std::ranges::find(buffers_, false, &Buffer::in_use);
    if (found == buffers_.end())
        return nullptr;
    if (!found->memory)
        found->memory.reset(static_cast<uint8_t*>(std::aligned_alloc(picture_alignment, rounded_up(bytes_))));
    if (!found->memory)
        return nullptr;
    found->in_use = true;
    return lent_ = found->memory.get();
}

void LentBuffers::complete()
{
    lent_ = nullptr;
}

void LentBuffers::release(const uint8_t* data)
{
    for (Buffer& buffer : buffers_)
        if (buffer.memory.get() == data)
            buffer.in_use = false;
}

InjectRegion::~InjectRegion()
{
    if (block_)
        free_block(block_->phys);
}

bool InjectRegion::allocate(size_t picture_bytes)
{
    if (!block_)
        block_ = allocate_block("venc_inject", static_cast<uint32_t>(rounded_up(picture_bytes) * pictures));
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
