#include "memory/device_memory.h"

#include "base/host_log.h"
#include "memory/low_mapping.h"
#include "memory/memory_register.h"
#include <common/descriptor.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <mutex>
#include <sys/mman.h>

namespace zu3host {

namespace {

constexpr uint64_t page_bytes = 4096;
constexpr uint64_t first_phys = 0x100000000;

constexpr uint64_t whole_pages(uint64_t bytes)
{
    return (bytes + page_bytes - 1) / page_bytes * page_bytes;
}

struct OwnedBlock {
    OwnedBlock() = default;
    OwnedBlock(const OwnedBlock&) = delete;
    OwnedBlock& operator=(const OwnedBlock&) = delete;
    ~OwnedBlock()
    {
        if (mapping)
            forget_memory(mapping.start());
    }

    common::Descriptor fd;
    LowMapping mapping;
    uint64_t phys = 0;
    uint32_t size = 0;

    MemoryBlock view() const { return {phys, mapping.start(), size, fd.get()}; }
};

struct Blocks {
    std::mutex mutex;
    uint64_t next_phys = first_phys;
    std::map<uint64_t, std::shared_ptr<OwnedBlock>> by_phys;
    std::map<uint64_t, uint64_t> phys_by_virt;
};

// Never destroyed: threads may still reach their buffers while the process exits.
Blocks& blocks()
{
    static Blocks& all = *new Blocks;
    return all;
}

uint64_t address_of(const uint8_t* virt)
{
    return reinterpret_cast<uintptr_t>(virt);
}

/**
 * A zeroed file in memory whose size nobody can change, also not one who was given its descriptor.
 */
common::Descriptor make_sealed_file(const char* name, uint64_t bytes)
{
    common::Descriptor file(memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file || ftruncate(file.get(), static_cast<off_t>(bytes)) != 0 ||
        fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
        return {};
    return file;
}

/** The entry of `starts` with the greatest key that is not above `address`. */
template <typename Map>
typename Map::const_iterator at_or_below(const Map& starts, uint64_t address)
{
    const auto above = starts.upper_bound(address);
    return above == starts.begin() ? starts.end() : std::prev(above);
}

const OwnedBlock* find_phys(const Blocks& all, uint64_t phys)
{
    const auto found = at_or_below(all.by_phys, phys);
    if (found == all.by_phys.end() || phys - found->first >= found->second->size)
        return nullptr;
    return found->second.get();
}

} // namespace

std::optional<MemoryBlock> allocate_block(const char* name, uint32_t size)
{
    if (size == 0) {
        HOST_LOGE("A block of device memory (%s) of 0 bytes was asked for.", name);
        return std::nullopt;
    }
    const auto block = std::make_shared<OwnedBlock>();
    block->size = size;
    block->fd = make_sealed_file(name, whole_pages(size));
    if (block->fd)
        block->mapping = LowMapping::of(block->fd.get(), whole_pages(size));
    if (!block->mapping) {
        HOST_LOGE("No device memory for %u bytes (%s): %s.", size, name, strerror(errno));
        return std::nullopt;
    }
    register_memory(block->mapping.start(), size, block);
    Blocks& all = blocks();
    const std::lock_guard lock(all.mutex);
    block->phys = all.next_phys;
    // A page that belongs to nobody lies between two blocks, so that an overrun is never another
    // block's address.
    all.next_phys += whole_pages(size) + page_bytes;
    const MemoryBlock view = block->view();
    const auto by_virt = all.phys_by_virt.emplace(address_of(view.virt), view.phys).first;
    try {
        all.by_phys.emplace(view.phys, block);
    } catch (...) {
        all.phys_by_virt.erase(by_virt);
        throw;
    }
    return view;
}

bool free_block(uint64_t phys)
{
    Blocks& all = blocks();
    const std::lock_guard lock(all.mutex);
    const auto found = all.by_phys.find(phys);
    if (found == all.by_phys.end())
        return false;
    all.phys_by_virt.erase(address_of(found->second->mapping.start()));
    all.by_phys.erase(found);
    return true;
}

std::optional<MemoryBlock> block_of_phys(uint64_t phys)
{
    Blocks& all = blocks();
    const std::lock_guard lock(all.mutex);
    const OwnedBlock* const block = find_phys(all, phys);
    return block ? std::optional(block->view()) : std::nullopt;
}

std::optional<MemoryBlock> block_of_virt(uint64_t virt)
{
    Blocks& all = blocks();
    const std::lock_guard lock(all.mutex);
    const auto found = at_or_below(all.phys_by_virt, virt);
    if (found == all.phys_by_virt.end())
        return std::nullopt;
    const OwnedBlock& block = *all.by_phys.at(found->second);
    return virt - found->first < block.size ? std::optional(block.view()) : std::nullopt;
}

int duplicate_descriptor(uint64_t phys)
{
    Blocks& all = blocks();
    const std::lock_guard lock(all.mutex);
    if (const OwnedBlock* const block = find_phys(all, phys))
        return fcntl(block->fd.get(), F_DUPFD_CLOEXEC, 0);
    errno = ENXIO;
    return -1;
}

} // namespace zu3host
