#include "base/border.h"
#include "memory/device_memory.h"

#include <atomic>
#include <zu3/os.h>

using zu3host::at_border;
using zu3host::block_of_phys;
using zu3host::block_of_virt;

// The host's caches are coherent, and capture and encoder are threads of this process: one mapping
// serves as the cached and the uncached one, and what the device flushes needs no more than order
// here.
HOST_EXPORT u32 ZU_OS_Pa2CachedVa(u64 u64PhyAddr, u64* pu64VirtAddr)
{
    if (!pu64VirtAddr)
        return ZU_INVALID_ARGUMENT;
    return at_border(__func__, [=]() -> u32 {
        const auto block = block_of_phys(u64PhyAddr);
        if (!block)
            return ZU_INVALID_ARGUMENT;
        *pu64VirtAddr = reinterpret_cast<uintptr_t>(block->virt) + (u64PhyAddr - block->phys);
        return ZU_OK;
    });
}

HOST_EXPORT u32 ZU_OS_Pa2NonCachedVa(u64 u64PhyAddr, u64* pu64VirtAddr)
{
    return ZU_OS_Pa2CachedVa(u64PhyAddr, pu64VirtAddr);
}

HOST_EXPORT u32 ZU_OS_Va2Pa(u64 u64VirtAddr, u64* pu64PhyAddr)
{
    if (!pu64PhyAddr)
        return ZU_INVALID_ARGUMENT;
    return at_border(__func__, [=]() -> u32 {
        const auto block = block_of_virt(u64VirtAddr);
        if (!block)
            return ZU_INVALID_ARGUMENT;
        *pu64PhyAddr = block->phys + (u64VirtAddr - reinterpret_cast<uintptr_t>(block->virt));
        return ZU_OK;
    });
}

HOST_EXPORT u32 ZU_OS_DcacheFlush(u64 u64VirtAddr, u32 u32Size)
{
    return at_border(__func__, [=]() -> u32 {
        const auto block = block_of_virt(u64VirtAddr);
        if (!block ||
            u64VirtAddr - reinterpret_cast<uintptr_t>(block->virt) + u32Size > block->size)
            return ZU_INVALID_ARGUMENT;
        return ZU_OS_FlushMemory();
    });
}

HOST_EXPORT u32 ZU_OS_FlushMemory(void)
{
    static std::atomic<u32> barrier{0};
    barrier.fetch_add(1, std::memory_order_seq_cst);
    return ZU_OK;
}
