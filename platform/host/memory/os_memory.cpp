#include "base/border.h"
#include "memory/device_memory.h"

#include <atomic>
#include <cerrno>
#include <common/descriptor.h>
#include <common/never_destroyed.h>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <sys/stat.h>
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

namespace {

using zu3host::MemoryBlock;

/** Identifies a file independently of its descriptor. */
struct FileIdentity {
    dev_t device;
    ino_t inode;
    bool operator==(const FileIdentity&) const = default;
};

std::optional<FileIdentity> identity_of(int fd)
{
    struct stat status;
    if (fstat(fd, &status) != 0)
        return std::nullopt;
    return FileIdentity{status.st_dev, status.st_ino};
}

struct Iommu {
    std::mutex mutex;
    /** physical starts of what was allocated here, and not by another module */
    std::set<u64> blocks;
    std::map<int, FileIdentity> handed_out;
};

Iommu& iommu()
{
    static common::NeverDestroyed<Iommu> only;
    return *only;
}

u32 allocate(ZU_OS_IommuAlloc_t& record)
{
    const std::string tag(record.acTag, strnlen(record.acTag, sizeof record.acTag));
    Iommu& all = iommu();
    const auto block = zu3host::allocate_block(tag.c_str(), record.u32Size);
    if (!block)
        return ZU_FAILURE;
    const std::lock_guard lock(all.mutex);
    try {
        all.blocks.insert(block->phys);
    } catch (...) {
        zu3host::free_block(block->phys);
        throw;
    }
    record.u64PhyAddr = block->phys;
    return ZU_OK;
}

u32 get_descriptor(ZU_OS_IommuBufFd_t& record)
{
    common::Descriptor copy(zu3host::duplicate_descriptor(record.u64PhyAddr));
    const auto identity = copy ? identity_of(copy.get()) : std::nullopt;
    if (!identity) {
        HOST_LOGE("No descriptor for the device memory at 0x%llx: %s.",
                  static_cast<unsigned long long>(record.u64PhyAddr),
                  errno == ENXIO ? "no block contains this address" : strerror(errno));
        return ZU_FAILURE;
    }
    Iommu& all = iommu();
    const std::lock_guard lock(all.mutex);
    all.handed_out.insert_or_assign(copy.get(), *identity);
    record.s32Fd = copy.release();
    return ZU_OK;
}

// Only the descriptor identifies the returned block: some callers no longer know the address, and
// the block may be freed.
u32 put_descriptor(const ZU_OS_IommuBufFd_t& record)
{
    Iommu& all = iommu();
    const std::lock_guard lock(all.mutex);
    const auto found = all.handed_out.find(record.s32Fd);
    if (found == all.handed_out.end()) {
        HOST_LOGE("Descriptor %d was given back as a block's, but was not handed out.",
                  record.s32Fd);
        return ZU_INVALID_ARGUMENT;
    }
    const bool unchanged = identity_of(record.s32Fd) == found->second;
    all.handed_out.erase(found);
    if (!unchanged) {
        HOST_LOGE("Descriptor %d of a block was closed by its user before it was given back.",
                  record.s32Fd);
        return ZU_FAILURE;
    }
    const common::Descriptor closed_here(record.s32Fd);
    return ZU_OK;
}

u32 describe_block(ZU_OS_IommuBufInfo_t& record)
{
    const auto block = zu3host::block_of_phys(record.u64PhyAddr);
    if (!block)
        return ZU_INVALID_ARGUMENT;
    record.u64StartPhyAddr = block->phys;
    return ZU_OK;
}

u32 free_memory(const ZU_OS_IommuFree_t& record)
{
    Iommu& all = iommu();
    const std::lock_guard lock(all.mutex);
    const auto block = zu3host::block_of_phys(record.u64PhyAddr);
    if (!all.blocks.contains(record.u64PhyAddr) || !block || block->size != record.u32Size) {
        HOST_LOGE("No IOMMU block of %u bytes starts at 0x%llx; nothing was freed.", record.u32Size,
                  static_cast<unsigned long long>(record.u64PhyAddr));
        return ZU_INVALID_ARGUMENT;
    }
    all.blocks.erase(record.u64PhyAddr);
    zu3host::free_block(record.u64PhyAddr);
    return ZU_OK;
}

u32 operate(ZU_OS_IommuOperationType_e operation, void* record)
{
    switch (operation) {
    case E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD:
        return get_descriptor(*static_cast<ZU_OS_IommuBufFd_t*>(record));
    case E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD:
        return put_descriptor(*static_cast<const ZU_OS_IommuBufFd_t*>(record));
    case E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO:
        return describe_block(*static_cast<ZU_OS_IommuBufInfo_t*>(record));
    }
    return ZU_INVALID_ARGUMENT;
}

} // namespace

HOST_EXPORT u32 ZU_OS_AllocateIommuMemory(ZU_OS_IommuAlloc_t* pstAlloc)
{
    if (!pstAlloc || pstAlloc->u32Size == 0)
        return ZU_INVALID_ARGUMENT;
    return at_border(__func__, [=] { return allocate(*pstAlloc); });
}

HOST_EXPORT u32 ZU_OS_FreeIommuMemory(const ZU_OS_IommuFree_t* pstFree)
{
    if (!pstFree)
        return ZU_INVALID_ARGUMENT;
    return at_border(__func__, [=] { return free_memory(*pstFree); });
}

HOST_EXPORT u32 ZU_OS_IommuOperation(ZU_OS_IommuOperationType_e eOperation, void* pRecord)
{
    if (!pRecord)
        return ZU_INVALID_ARGUMENT;
    return at_border(__func__, [=] { return operate(eOperation, pRecord); });
}
