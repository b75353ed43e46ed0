#include <cstdlib>
#include <sys/mman.h>

#include "middleware/state.h"

namespace middleware {

namespace {

/** Memory-layout region 306: above 4 GiB, so that a cut address is seen. */
constexpr u64 output_region_base = 0x1'0000'0000;
constexpr u64 output_region_offset = 0x0200'0000;
constexpr u32 output_region_size = 0x200000;
constexpr u32 inject_offset = 8192; // of the inject buffer in its block
constexpr u64 inject_block_physical = 0x1'9000'0000;
constexpr u64 first_block_physical = 0x2'8000'0000;

const char* operation_name(u32 operation)
{
    const char* const names[] = {"GET_BUFFD", "PUT_BUFFD", "GET_BUFFINFO"};
    return operation < 3 ? names[operation] : "unknown";
}

u32 to_virtual(u64 physical, u64* address)
{
    for (const auto& [start, mapping] : state().physical) {
        if (physical >= start && physical - start < mapping.size) {
            *address = reinterpret_cast<uintptr_t>(mapping.pointer) + (physical - start);
            return ZU_OK;
        }
    }
    return ZU_FAILURE;
}

u32 to_physical(u64 address, u64* physical)
{
    for (const auto& [start, mapping] : state().physical) {
        const u64 first = reinterpret_cast<uintptr_t>(mapping.pointer);
        if (address >= first && address - first < mapping.size) {
            *physical = start + (address - first);
            return ZU_OK;
        }
    }
    return ZU_FAILURE;
}

/** Start of the block that contains `physical`, 0 if none does. */
u64 block_of(u64 physical)
{
    const State& s = state();
    for (const auto& [start, block] : s.blocks) {
        if (physical >= start && physical - start < block.size)
            return start;
    }
    const InjectBuffer& inject = s.inject;
    const bool injected =
        inject.address && physical >= inject.block_physical && physical - inject.physical < inject.size;
    return injected ? inject.block_physical : 0;
}

u32 get_descriptor(Context& context, ZU_OS_IommuBufFd_t& record)
{
    if (block_of(record.u64PhyAddr) == 0)
        return ZU_INVALID_ARGUMENT;
    record.s32Fd = Middleware::instance().settings.first_fd + state().next_descriptor++;
    state().descriptors.insert(record.s32Fd);
    context.note = text("fd=", record.s32Fd);
    return ZU_OK;
}

u32 put_descriptor(const ZU_OS_IommuBufFd_t& record)
{
    if (state().descriptors.erase(record.s32Fd) == 1)
        return ZU_OK;
    problem(text("descriptor ", record.s32Fd, " is given back but was not out"));
    return ZU_INVALID_ARGUMENT;
}

u32 describe_block(Context& context, ZU_OS_IommuBufInfo_t& record)
{
    const u64 start = block_of(record.u64PhyAddr);
    if (start == 0)
        return ZU_INVALID_ARGUMENT;
    record.u64StartPhyAddr = start;
    context.note = "start=" + hex(start);
    return ZU_OK;
}

u32 allocate(Context& context, ZU_OS_IommuAlloc_t& request)
{
    State& s = state();
    if (request.u32Size == 0)
        return ZU_INVALID_ARGUMENT;
    const size_t rounded = (size_t{request.u32Size} + 4095) / 4096 * 4096;
    void* const memory = std::aligned_alloc(4096, rounded);
    if (!memory)
        return ZU_FAILURE;
    std::memset(memory, 0, rounded);
    if (s.next_block == 0)
        s.next_block = first_block_physical;
    request.u64PhyAddr = s.next_block;
    s.next_block += rounded + 0x10000;
    s.blocks[request.u64PhyAddr] = {request.u32Size, std::unique_ptr<void, FreeMemory>(memory)};
    s.physical[request.u64PhyAddr] = {static_cast<u8*>(memory), request.u32Size};
    context.note = "phys=" + hex(request.u64PhyAddr);
    return ZU_OK;
}

u32 free_block(const ZU_OS_IommuFree_t& request)
{
    State& s = state();
    const auto found = s.blocks.find(request.u64PhyAddr);
    if (found == s.blocks.end() || found->second.size != request.u32Size) {
        problem(text("IOMMU block ", hex(request.u64PhyAddr), " of ", request.u32Size,
                     " bytes is freed but not there"));
        return ZU_INVALID_ARGUMENT;
    }
    s.blocks.erase(found);
    s.physical.erase(request.u64PhyAddr);
    return ZU_OK;
}

} // namespace

void FreeMemory::operator()(void* memory) const
{
    std::free(memory);
}

/** Records hold some addresses in 32 bits, so their memory must lie that low also where pointers are longer.
 */
u8* new_low_memory(size_t size)
{
#ifdef MAP_32BIT
    const int low = MAP_32BIT;
#else
    const int low = 0;
#endif
    void* const hint = low ? nullptr : reinterpret_cast<void*>(0x20000000);
    void* const memory = mmap(hint, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | low, -1, 0);
    if (memory == MAP_FAILED || reinterpret_cast<uintptr_t>(memory) + size > UINT32_MAX) {
        ADD_FAILURE() << "no memory below 4 GiB";
        std::abort();
    }
    state().low_memory.push_back({memory, size});
    return static_cast<u8*>(memory);
}

void Middleware::map_physical(u64 physical, void* pointer, u32 size)
{
    const Lock lock(state().mutex);
    state().physical[physical] = {static_cast<u8*>(pointer), size};
}

InjectBuffer Middleware::offer_inject_buffer(u32 size)
{
    const Lock lock(state().mutex);
    State& s = state();
    u8* const block = new_low_memory(size_t{size} + inject_offset);
    s.inject = {block + inject_offset, size, inject_block_physical + inject_offset, inject_block_physical};
    s.physical[s.inject.physical] = {s.inject.address, size};
    return s.inject;
}

} // namespace middleware

using namespace middleware;

extern "C" {

u32 ZU_OS_Pa2NonCachedVa(u64 physical, u64* address)
{
    return call("ZU_OS_Pa2NonCachedVa", hex(physical),
                [&](Context&) { return to_virtual(physical, address); });
}

u32 ZU_OS_Pa2CachedVa(u64 physical, u64* address)
{
    return call("ZU_OS_Pa2CachedVa", hex(physical), [&](Context&) { return to_virtual(physical, address); });
}

u32 ZU_OS_Va2Pa(u64 address, u64* physical)
{
    return call("ZU_OS_Va2Pa", "", [&](Context& context) {
        const u32 result = to_physical(address, physical);
        context.note = result == ZU_OK ? "phys=" + hex(*physical) : "";
        return result;
    });
}

u32 ZU_OS_DcacheFlush(u64 address, u32 size)
{
    return call("ZU_OS_DcacheFlush", text("size=", size), [&](Context&) {
        u64 physical = 0;
        if (to_physical(address, &physical) != ZU_OK || to_physical(address + size - 1, &physical) != ZU_OK)
            problem("ZU_OS_DcacheFlush is called on a range that is not mapped");
        return ZU_OK;
    });
}

u32 ZU_OS_FlushMemory(void)
{
    return call("ZU_OS_FlushMemory", "", [](Context&) { return ZU_OK; });
}

u32 ZU_OS_AllocateIommuMemory(ZU_OS_IommuAlloc_t* request)
{
    const std::string tag(request->acTag, strnlen(request->acTag, sizeof(request->acTag)));
    return call("ZU_OS_AllocateIommuMemory",
                text("tag=", tag, " size=", request->u32Size, " flags=", request->u32Flags),
                [&](Context& context) {
                    keep("ZU_OS_AllocateIommuMemory", *request);
                    return allocate(context, *request);
                });
}

u32 ZU_OS_FreeIommuMemory(const ZU_OS_IommuFree_t* request)
{
    return ending_call("ZU_OS_FreeIommuMemory",
                       text("phys=", hex(request->u64PhyAddr), " size=", request->u32Size),
                       [&](Context&) { return free_block(*request); });
}

u32 ZU_OS_IommuOperation(ZU_OS_IommuOperationType_e operation, void* record)
{
    // Both kinds of record begin with the physical address.
    const u64 physical = *static_cast<const u64*>(record);
    const std::string name = operation_name(operation);
    std::string arguments = text(name, " phys=", hex(physical));
    const bool put = operation == E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD;
    if (put)
        arguments += text(" fd=", static_cast<const ZU_OS_IommuBufFd_t*>(record)->s32Fd);
    return static_cast<u32>(
        perform(put, "ZU_OS_IommuOperation", name, std::move(arguments), [&](Context& context) -> u32 {
            switch (operation) {
            case E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD:
                return get_descriptor(context, *static_cast<ZU_OS_IommuBufFd_t*>(record));
            case E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD:
                return put_descriptor(*static_cast<const ZU_OS_IommuBufFd_t*>(record));
            case E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO:
                return describe_block(context, *static_cast<ZU_OS_IommuBufInfo_t*>(record));
            }
            return ZU_INVALID_ARGUMENT;
        }));
}

u32 ZU_SYS_Init(u32 flags)
{
    return call("ZU_SYS_Init", text(flags), [](Context&) { return ZU_OK; });
}

u32 ZU_SYS_GetMmapLayout(u32 id, ZU_SYS_MmapLayout_t* layout)
{
    return call("ZU_SYS_GetMmapLayout", text(id), [&](Context&) {
        if (id != ZU_SYS_MMAP_ID_TSMUX_OUTPUT)
            return ZU_FAILURE;
        State& s = state();
        layout->phyMiuBaseAddr = output_region_base;
        layout->phyMemAddr = output_region_offset;
        layout->u32RegionSize = output_region_size;
        if (!s.output_region) {
            s.output_region = new_low_memory(output_region_size);
            s.physical[output_region_base + output_region_offset] = {s.output_region, output_region_size};
        }
        return ZU_OK;
    });
}
}
