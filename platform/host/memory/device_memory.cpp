#include "memory/device_memory.h"

#include "base/host_log.h"
#include "memory/memory_register.h"

#include <cerrno>
#include <common/descriptor.h>
#include <common/never_destroyed.h>
#include <common/rounding.h>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <mutex>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#ifndef MAP_FIXED_NOREPLACE
#define MAP_FIXED_NOREPLACE 0x100000
#endif

namespace zu3host {

/** A shared mapping of a file, wholly below 4 GiB; unmapped with its owner. Move-only. */
class LowMapping {
public:
    LowMapping() = default;
    LowMapping(LowMapping&& other) noexcept
        : start_(std::exchange(other.start_, nullptr)), reserved_(std::exchange(other.reserved_, 0))
    {
    }
    LowMapping& operator=(LowMapping&& other) noexcept
    {
        std::swap(start_, other.start_);
        std::swap(reserved_, other.reserved_);
        return *this;
    }
    ~LowMapping();

    /**
     * Maps the first `size` bytes of `fd`, a multiple of the page size, for reading and writing.
     * The page behind them cannot be touched. An empty mapping, and errno, when the room below 4
     * GiB is taken or the kernel refuses.
     */
    static LowMapping of(int fd, size_t size);

    explicit operator bool() const { return start_ != nullptr; }
    uint8_t* start() const { return start_; }

private:
    LowMapping(uint8_t* start, size_t reserved) : start_(start), reserved_(reserved) {}

    uint8_t* start_ = nullptr;
    /** bytes, with the page behind */
    size_t reserved_ = 0;
};

namespace {

// MAP_32BIT would give a range of one gigabyte on x86-64 and exists only there, so places are
// tried in turn. The kernel refuses those that are taken: by earlier blocks, a program that is
// linked low, or a sanitizer's shadow.
constexpr uint64_t first_place = 0x10000000;
constexpr uint64_t end_of_places = 0x100000000;
constexpr uint64_t place_step = 0x100000;

uint8_t* reserve_at(uint64_t place, size_t bytes)
{
    void* const wanted = reinterpret_cast<void*>(static_cast<uintptr_t>(place));
    void* const got =
        mmap(wanted, bytes, PROT_NONE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (got == wanted)
        return static_cast<uint8_t*>(got);
    // A kernel that does not know the flag treats the address as a hint.
    if (got != MAP_FAILED)
        munmap(got, bytes);
    return nullptr;
}

uint8_t* reserve_below_4gib(size_t bytes)
{
    for (uint64_t place = first_place; place + bytes <= end_of_places; place += place_step) {
        if (uint8_t* const start = reserve_at(place, bytes))
            return start;
    }
    errno = ENOMEM;
    return nullptr;
}

constexpr uint64_t page_bytes = 4096;
constexpr uint64_t first_phys = 0x100000000;

constexpr uint64_t whole_pages(uint64_t bytes)
{
    return common::round_up(bytes, page_bytes);
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

Blocks& blocks()
{
    static common::NeverDestroyed<Blocks> all;
    return *all;
}

uint64_t address_of(const uint8_t* virt)
{
    return reinterpret_cast<uintptr_t>(virt);
}

/**
 * A zeroed file in memory whose size cannot change, not even through a duplicated descriptor.
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

LowMapping LowMapping::of(int fd, size_t size)
{
    const size_t reserved = size + static_cast<size_t>(sysconf(_SC_PAGESIZE));
    LowMapping mapping(reserve_below_4gib(reserved), reserved);
    if (!mapping)
        return {};
    if (mmap(mapping.start_, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0) ==
        MAP_FAILED)
        return {};
    return mapping;
}

LowMapping::~LowMapping()
{
    if (start_)
        munmap(start_, reserved_);
}

std::optional<MemoryBlock> allocate_block(const char* name, uint32_t size)
{
    if (size == 0) {
        HOST_LOGE("A block of device memory (%s) cannot have 0 bytes.", name);
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
    // An unused page lies between two blocks, so that an overrun is never another
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

void discard_pages(uint8_t* start, size_t bytes)
{
    const uint64_t begin = whole_pages(address_of(start));
    const uint64_t end = (address_of(start) + bytes) / page_bytes * page_bytes;
    // A refusal keeps the memory, which is harmless.
    if (begin < end)
        madvise(start + (begin - address_of(start)), end - begin, MADV_REMOVE);
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
