#include "memory/device_memory.h"
#include <common/descriptor.h>

#include <zu3/os.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace zu3host;

namespace {

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

/** Whether the kernel can read a byte there, without a fault of ours. */
bool is_readable(const uint8_t* byte)
{
    int ends[2];
    if (pipe(ends) != 0)
        return false;
    const common::Descriptor reader(ends[0]), writer(ends[1]);
    return write(writer.get(), byte, 1) == 1;
}

ZU_OS_IommuAlloc_t allocate(u32 size)
{
    ZU_OS_IommuAlloc_t record{};
    // no NUL: the tag must not be read past its end
    std::memset(record.acTag, 'x', sizeof record.acTag);
    record.u32Size = size;
    record.u32Flags = 3;
    EXPECT_EQ(ZU_OS_AllocateIommuMemory(&record), ZU_OK);
    return record;
}

u32 release(const ZU_OS_IommuAlloc_t& block)
{
    const ZU_OS_IommuFree_t record{block.u64PhyAddr, block.u32Size, 0};
    return ZU_OS_FreeIommuMemory(&record);
}

/** The descriptor of a block; -1 when it is refused. */
s32 get_descriptor(u64 phys)
{
    ZU_OS_IommuBufFd_t record{phys, -1, 0};
    return ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD, &record) == ZU_OK
               ? record.s32Fd
               : -1;
}

u32 put_descriptor(s32 fd)
{
    ZU_OS_IommuBufFd_t record{0, fd, 0};
    return ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD, &record);
}

// Catches 64-bit addresses, old data, a silent overrun, a lookup off by one, and a resizable file.
TEST(DeviceMemory, IsLowZeroedGuardedSealedAndFoundByEachByte)
{
    for (const uint32_t size : {1u, 4096u, 4097u, 8u << 20}) {
        const auto block = allocate_block("test", size),
                   neighbour = allocate_block("neighbour", size);
        ASSERT_TRUE(block && neighbour) << size;
        const auto start = reinterpret_cast<uintptr_t>(block->virt);
        EXPECT_EQ(block->phys % 4096, 0u);
        EXPECT_LE(start + size, uint64_t{1} << 32);
        EXPECT_TRUE(
            std::all_of(block->virt, block->virt + size, [](uint8_t each) { return each == 0; }));
        EXPECT_FALSE(is_readable(block->virt + (size + 4095) / 4096 * 4096));
        EXPECT_EQ(block_of_phys(block->phys + size - 1)->phys, block->phys);
        EXPECT_EQ(block_of_virt(start + size - 1)->phys, block->phys);
        EXPECT_FALSE(block_of_phys(block->phys + size));
        EXPECT_FALSE(block_of_virt(start + size));
        EXPECT_FALSE(block_of_virt(start - 1));
        EXPECT_NE(ftruncate(block->fd, 0), 0);
        EXPECT_NE(ftruncate(block->fd, off_t{1} << 30), 0);
        EXPECT_TRUE(free_block(block->phys));
        EXPECT_FALSE(is_readable(block->virt));
        EXPECT_FALSE(is_open(block->fd));
        EXPECT_FALSE(free_block(block->phys));
        EXPECT_TRUE(free_block(neighbour->phys));
        const auto again = allocate_block("again", size);
        EXPECT_GT(again->phys, neighbour->phys) << "a number was used twice";
        EXPECT_TRUE(free_block(again->phys));
    }
}

// Catches a conversion that forgets the offset or answers for a foreign address.
TEST(AddressConversion, GoesBothWaysInsideABlockOnly)
{
    const auto block = allocate(10000);
    u64 virt = 0, uncached = 0, phys = 0;
    ASSERT_EQ(ZU_OS_Pa2CachedVa(block.u64PhyAddr + 5000, &virt), ZU_OK);
    ASSERT_EQ(ZU_OS_Pa2NonCachedVa(block.u64PhyAddr + 5000, &uncached), ZU_OK);
    ASSERT_EQ(ZU_OS_Va2Pa(virt, &phys), ZU_OK);
    EXPECT_EQ(virt, uncached);
    EXPECT_EQ(phys, block.u64PhyAddr + 5000);
    EXPECT_EQ(ZU_OS_DcacheFlush(virt, 5000), ZU_OK);
    EXPECT_NE(ZU_OS_DcacheFlush(virt, 5001), ZU_OK);
    EXPECT_EQ(release(block), ZU_OK);
    EXPECT_NE(ZU_OS_Pa2CachedVa(block.u64PhyAddr + 5000, &virt), ZU_OK);
    EXPECT_NE(ZU_OS_Va2Pa(virt, &phys), ZU_OK);
}

// Catches a descriptor of another block, one that children inherit, one that dies with the block.
TEST(Iommu, HandsOutDescriptorsOfTheSameMemory)
{
    const auto block = allocate(3 * 4096);
    const s32 fd = get_descriptor(block.u64PhyAddr + 4096),
              second = get_descriptor(block.u64PhyAddr);
    EXPECT_NE(fd, second);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    u64 virt = 0;
    ASSERT_EQ(ZU_OS_Pa2CachedVa(block.u64PhyAddr + 4096, &virt), ZU_OK);
    std::memcpy(reinterpret_cast<void*>(static_cast<uintptr_t>(virt)), "seen", 4);
    ZU_OS_IommuBufInfo_t info{block.u64PhyAddr + 5000, 0, 0};
    EXPECT_EQ(ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO, &info), ZU_OK);
    EXPECT_EQ(info.u64StartPhyAddr, block.u64PhyAddr);

    EXPECT_EQ(release(block), ZU_OK);
    void* const mapped = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 4096);
    ASSERT_NE(mapped, MAP_FAILED);
    EXPECT_EQ(std::memcmp(mapped, "seen", 4), 0);
    munmap(mapped, 4096);
    EXPECT_EQ(put_descriptor(fd), ZU_OK);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(put_descriptor(second), ZU_OK);
    EXPECT_EQ(get_descriptor(block.u64PhyAddr), -1);
}

// Catches a give-back that closes a foreign descriptor, or treats descriptor 0 as none.
TEST(Iommu, TakesBackOnlyWhatItHandedOut)
{
    const auto block = allocate(4096);
    const common::Descriptor foreign(dup(STDERR_FILENO));
    EXPECT_NE(put_descriptor(foreign.get()), ZU_OK);
    EXPECT_TRUE(is_open(foreign.get()));
    EXPECT_NE(put_descriptor(-1), ZU_OK);

    s32 fd = get_descriptor(block.u64PhyAddr);
    // closed by its user, its number taken by another file
    ASSERT_EQ(dup2(foreign.get(), fd), fd);
    EXPECT_NE(put_descriptor(fd), ZU_OK);
    EXPECT_TRUE(is_open(fd));
    close(fd);

    const common::Descriptor standard_input(fcntl(STDIN_FILENO, F_DUPFD, 3));
    close(STDIN_FILENO);
    EXPECT_EQ(get_descriptor(block.u64PhyAddr), 0);
    EXPECT_EQ(put_descriptor(0), ZU_OK);
    EXPECT_NE(put_descriptor(0), ZU_OK);
    if (standard_input)
        dup2(standard_input.get(), STDIN_FILENO);
    EXPECT_EQ(release(block), ZU_OK);
}

// Catches a free that trusts a wrong record, or takes another module's block away.
TEST(Iommu, FreesOnlyWhatWasAllocatedThere)
{
    auto block = allocate(8192);
    const auto others = allocate_block("others", 8192);
    for (const ZU_OS_IommuFree_t& wrong : {ZU_OS_IommuFree_t{block.u64PhyAddr + 4096, 8192, 0},
                                           {block.u64PhyAddr, 4096, 0},
                                           {others->phys, 8192, 0},
                                           {0, 8192, 0}})
        EXPECT_NE(ZU_OS_FreeIommuMemory(&wrong), ZU_OK) << std::hex << wrong.u64PhyAddr;
    EXPECT_EQ(release(block), ZU_OK);
    EXPECT_NE(release(block), ZU_OK);
    EXPECT_TRUE(free_block(others->phys));
    EXPECT_FALSE(allocate_block("all", 0xFFFFFFFF));
    block.u32Size = 0;
    EXPECT_NE(ZU_OS_AllocateIommuMemory(&block), ZU_OK);
}

} // namespace
