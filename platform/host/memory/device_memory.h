#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace zu3host {

/**
 * The device's memory: blocks, each a sealed memfd, mapped below 4 GiB so that
 * an address fits the u32 fields of the contract. Physical numbers are unique in the process and
 * never reused. Thread-safe.
 */
struct MemoryBlock {
    /** physical address of the first byte, 4096-aligned */
    uint64_t phys;
    /** where the block is mapped; below 4 GiB */
    uint8_t* virt;
    /** bytes, as asked for */
    uint32_t size;
    /** the block's own descriptor, close-on-exec; stays the block's */
    int fd;
};

/** Allocates `size` zeroed bytes; nullopt if memory or room below 4 GiB runs out. */
std::optional<MemoryBlock> allocate_block(const char* name, uint32_t size);
/**
 * Forgets the block that starts at `phys`, and unmaps and closes it, once its memory has no holder
 * (memory_register.h); false when there is none.
 */
bool free_block(uint64_t phys);
/**
 * Gives the whole pages within `bytes` from `start`, in a block, back to the system. They read as
 * zero until they are written again.
 */
void discard_pages(uint8_t* start, size_t bytes);
/** The block that contains a physical address. */
std::optional<MemoryBlock> block_of_phys(uint64_t phys);
/** The block that contains a virtual address. */
std::optional<MemoryBlock> block_of_virt(uint64_t virt);
/**
 * A new descriptor, close-on-exec, of the block that contains a physical address; the caller closes
 * it. -1 and errno if there is no such block (ENXIO) or descriptors run out.
 */
int duplicate_descriptor(uint64_t phys);

} // namespace zu3host
