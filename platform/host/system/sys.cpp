#include "base/border.h"
#include "memory/device_memory.h"

#include <atomic>
#include <mutex>
#include <optional>
#include <zu3/sys.h>

namespace {

// At the highest rate that a recording is written with, this is some ten seconds of a stalled disk.
constexpr u32 tsmux_output_bytes = 8u << 20;

// A layout gives an address as a base and an offset.
constexpr u64 base_mask = ~u64{0xFFFFFFFF};

/**
 * The one output buffer of the process; tried again at the next query when there was no memory for
 * it.
 */
std::optional<zu3host::MemoryBlock> tsmux_output()
{
    static std::mutex mutex;
    static std::optional<zu3host::MemoryBlock> block;
    const std::lock_guard lock(mutex);
    if (!block)
        block = zu3host::allocate_block("tsmux_output", tsmux_output_bytes);
    return block;
}

} // namespace

HOST_EXPORT u32 ZU_SYS_Init(u32 u32Flags)
{
    static std::atomic<bool> initialised{false};
    if (u32Flags != 0)
        return ZU_INVALID_ARGUMENT;
    return initialised.exchange(true) ? ZU_ALREADY_INITIALISED : ZU_OK;
}

HOST_EXPORT u32 ZU_SYS_GetMmapLayout(u32 u32Id, ZU_SYS_MmapLayout_t* pstLayout)
{
    if (!pstLayout)
        return ZU_INVALID_ARGUMENT;
    *pstLayout = {};
    if (u32Id != ZU_SYS_MMAP_ID_TSMUX_OUTPUT) {
        HOST_LOGE("The memory layout has no region %u.", u32Id);
        return ZU_INVALID_ARGUMENT;
    }
    return zu3host::at_border(__func__, [=]() -> u32 {
        const auto block = tsmux_output();
        if (!block)
            return ZU_FAILURE;
        pstLayout->phyMiuBaseAddr = block->phys & base_mask;
        pstLayout->phyMemAddr = block->phys & ~base_mask;
        pstLayout->u32RegionSize = block->size;
        return ZU_OK;
    });
}
