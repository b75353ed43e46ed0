#include "multiplexer/output_region.h"

#include "base/host_log.h"
#include "memory/device_memory.h"

#include <algorithm>
#include <common/never_destroyed.h>
#include <mutex>
#include <vector>

namespace zu3host {

namespace {

struct Range {
    uint64_t begin;
    uint64_t end;
};

std::mutex taken_mutex;

std::vector<Range>& taken()
{
    static common::NeverDestroyed<std::vector<Range>> ranges;
    return *ranges;
}

bool is_device_memory(uint64_t begin, uint64_t end)
{
    const auto block = block_of_virt(begin);
    if (!block)
        return false;
    const auto base = reinterpret_cast<uint64_t>(block->virt);
    return begin >= base && end <= base + block->size;
}

bool take(const Range& range)
{
    const std::lock_guard lock(taken_mutex);
    const auto overlaps = [&](const Range& other) {
        return range.begin < other.end && other.begin < range.end;
    };
    if (std::any_of(taken().begin(), taken().end(), overlaps))
        return false;
    taken().push_back(range);
    return true;
}

void give_back(uint64_t begin)
{
    const std::lock_guard lock(taken_mutex);
    std::erase_if(taken(), [&](const Range& range) { return range.begin == begin; });
}

} // namespace

std::unique_ptr<OutputRegion> OutputRegion::claim(uint32_t address, uint32_t size)
{
    const Range range{address, uint64_t{address} + size};
    if (size == 0 || !is_device_memory(range.begin, range.end)) {
        HOST_LOGE("The multiplexer's output buffer (%u bytes at 0x%x) is not device memory.", size,
                  address);
        return nullptr;
    }
    if (take(range)) {
        auto* const first = reinterpret_cast<uint8_t*>(uintptr_t{address});
        return std::unique_ptr<OutputRegion>(new OutputRegion({first, size}, 0));
    }
    const auto block = allocate_block("tsmux output", size);
    if (!block) {
        HOST_LOGE("There is no memory for the output buffer of another multiplexer (%u bytes).",
                  size);
        return nullptr;
    }
    return std::unique_ptr<OutputRegion>(new OutputRegion({block->virt, size}, block->phys));
}

OutputRegion::~OutputRegion()
{
    if (own_block_ != 0)
        free_block(own_block_);
    else
        give_back(reinterpret_cast<uint64_t>(memory_.data()));
}

} // namespace zu3host
