#include <cstdlib>
#include <sys/mman.h>

#include "middleware/contract_call.h"

namespace middleware {

namespace {

/** Memory-layout region 306: above 4 GiB, so that a cut address is seen. */
constexpr u64 output_region_base = 0x1'0000'0000;
constexpr u64 output_region_offset = 0x0200'0000;
constexpr u32 output_region_size = 0x200000;
// of the inject buffer in its block
constexpr u32 inject_offset = 8192;
constexpr u64 inject_block_physical = 0x1'9000'0000;

/** From a physical address to the virtual one, or back. */
u32 convert(bool back, u64 address, u64* result)
{
    for (const auto& [physical, memory] : state().physical) {
        u64 from = physical, to = reinterpret_cast<uintptr_t>(memory.data());
        if (back)
            std::swap(from, to);
        if (address >= from && address - from < memory.size()) {
            *result = to + (address - from);
            return ZU_OK;
        }
    }
    return ZU_FAILURE;
}

/** Start of the block that contains `physical`, 0 if none does. */
u64 block_of(u64 physical)
{
    const auto contains = [&](u64 start, u64 size) {
        return physical >= start && physical - start < size;
    };
    for (const auto& [start, size] : state().blocks)
        if (contains(start, size))
            return start;
    const InjectBuffer& inject = state().inject;
    return contains(inject.block_physical, inject.size + inject_offset) ? inject.block_physical : 0;
}

} // namespace

/**
 * Memory whose address fits in 32 bits, for records that store it so. Only x86 has MAP_32BIT, and
 * an emulator may ignore MAP_FIXED_NOREPLACE.
 */
std::span<u8> new_low_memory(size_t size)
{
    constexpr uintptr_t first = 0x20000000, end = 0x70000000, step = 0x100000;
    for (uintptr_t address = first; address < end; address += step) {
        void* const wanted = reinterpret_cast<void*>(address);
        void* const memory = mmap(wanted, size, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        if (memory == wanted)
            return state().low_memory.emplace_back(static_cast<u8*>(memory), size);
        if (memory != MAP_FAILED)
            munmap(memory, size);
    }
    ADD_FAILURE() << "no memory below 4 GiB";
    std::abort();
}

InjectBuffer Middleware::offer_inject_buffer(u32 size)
{
    const Lock lock(state().mutex);
    State& s = state();
    const std::span<u8> buffer =
        new_low_memory(size_t{size} + inject_offset).subspan(inject_offset);
    s.inject = {buffer.data(), size, inject_block_physical + inject_offset, inject_block_physical};
    s.physical[s.inject.physical] = buffer;
    return s.inject;
}

} // namespace middleware

using namespace middleware;

extern "C" {

u32 ZU_OS_Pa2NonCachedVa(u64 physical, u64* address)
{
    return call(__func__, hex(physical),
                [&](Context&) { return convert(false, physical, address); });
}

u32 ZU_OS_Pa2CachedVa(u64 physical, u64* address)
{
    return call(__func__, hex(physical),
                [&](Context&) { return convert(false, physical, address); });
}

u32 ZU_OS_Va2Pa(u64 address, u64* physical)
{
    return call(__func__, "", [&](Context& context) {
        const u32 result = convert(true, address, physical);
        context.note = result == ZU_OK ? "phys=" + hex(*physical) : "";
        return result;
    });
}

u32 ZU_OS_DcacheFlush(u64 address, u32 size)
{
    return call(__func__, text("size=", size), [&](Context&) {
        u64 physical = 0;
        if (convert(true, address, &physical) != ZU_OK ||
            convert(true, address + size - 1, &physical) != ZU_OK)
            problem("ZU_OS_DcacheFlush is called on a range that is not mapped");
        return ZU_OK;
    });
}

u32 ZU_OS_FlushMemory(void)
{
    return call(__func__);
}

u32 ZU_OS_AllocateIommuMemory(ZU_OS_IommuAlloc_t* request)
{
    const std::string tag(request->acTag, strnlen(request->acTag, sizeof(request->acTag)));
    const u32 size = request->u32Size;
    return call(__func__, text("tag=", tag, " size=", size, " flags=", request->u32Flags),
                [&](Context& context) {
                    State& s = state();
                    if (size == 0)
                        return ZU_INVALID_ARGUMENT;
                    request->u64PhyAddr = s.next_block;
                    s.next_block += (u64{size} + 4095) / 4096 * 4096 + 0x10000;
                    s.blocks[request->u64PhyAddr] = size;
                    context.note = "phys=" + hex(request->u64PhyAddr);
                    return ZU_OK;
                });
}

u32 ZU_OS_FreeIommuMemory(const ZU_OS_IommuFree_t* request)
{
    const std::string block = text("phys=", hex(request->u64PhyAddr), " size=", request->u32Size);
    return ending_call(__func__, block, [&](Context&) {
        const auto found = state().blocks.find(request->u64PhyAddr);
        if (found == state().blocks.end() || found->second != request->u32Size) {
            problem("IOMMU block " + block + " is freed but not there");
            return ZU_INVALID_ARGUMENT;
        }
        state().blocks.erase(found);
        return ZU_OK;
    });
}

u32 ZU_OS_IommuOperation(ZU_OS_IommuOperationType_e operation, void* record)
{
    // both kinds of record begin with it
    const u64 physical = *static_cast<const u64*>(record);
    auto* const buffer = static_cast<ZU_OS_IommuBufFd_t*>(record);
    std::set<s32>& descriptors = state().descriptors;
    switch (operation) {
    case E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD:
        return perform(false, __func__, "GET_BUFFD", "GET_BUFFD phys=" + hex(physical),
                       [&](Context& context) {
                           if (block_of(physical) == 0)
                               return ZU_INVALID_ARGUMENT;
                           buffer->s32Fd =
                               Middleware::instance().settings.first_fd + state().next_descriptor++;
                           descriptors.insert(buffer->s32Fd);
                           context.note = text("fd=", buffer->s32Fd);
                           return ZU_OK;
                       });
    case E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD:
        return perform(
            true, __func__, "PUT_BUFFD",
            text("PUT_BUFFD phys=", hex(physical), " fd=", buffer->s32Fd), [&](Context&) {
                if (descriptors.erase(buffer->s32Fd) == 1)
                    return ZU_OK;
                problem(text("descriptor ", buffer->s32Fd, " is given back but was not out"));
                return ZU_INVALID_ARGUMENT;
            });
    case E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO:
        return perform(false, __func__, "GET_BUFFINFO", "GET_BUFFINFO phys=" + hex(physical),
                       [&](Context& context) {
                           const u64 start = block_of(physical);
                           if (start == 0)
                               return ZU_INVALID_ARGUMENT;
                           static_cast<ZU_OS_IommuBufInfo_t*>(record)->u64StartPhyAddr = start;
                           context.note = "start=" + hex(start);
                           return ZU_OK;
                       });
    }
    return ZU_INVALID_ARGUMENT;
}

u32 ZU_SYS_Init(u32 flags)
{
    return call(__func__, text(flags));
}

u32 ZU_SYS_GetMmapLayout(u32 id, ZU_SYS_MmapLayout_t* layout)
{
    return call(__func__, text(id), [&](Context&) {
        if (id != ZU_SYS_MMAP_ID_TSMUX_OUTPUT)
            return ZU_FAILURE;
        State& s = state();
        layout->phyMiuBaseAddr = output_region_base;
        layout->phyMemAddr = output_region_offset;
        layout->u32RegionSize = output_region_size;
        if (s.output_region.empty())
            s.output_region = s.physical[output_region_base + output_region_offset] =
                new_low_memory(output_region_size);
        return ZU_OK;
    });
}
}
