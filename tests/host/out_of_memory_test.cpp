// Calls that need memory, with every allocation failing in turn.
#include "helpers.h"

#include <zu3/cap.h>
#include <zu3/fs.h>
#include <zu3/os.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <unistd.h>

namespace {

/** How many more of this thread's allocations succeed. */
thread_local int allocations_left = INT_MAX;

} // namespace

// Not inlined: a compiler that sees both would miss the delete for a new in the free.
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    if (allocations_left != INT_MAX && allocations_left-- <= 0)
        return nullptr;
    return std::malloc(size);
}

[[gnu::noinline]] void* operator new(size_t size)
{
    if (void* const memory = operator new(size, std::nothrow))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}

namespace {

const std::string path = testing::TempDir() + "a file with a name that takes memory";

bool make_mutex()
{
    const ZU_OS_MutexAttr_t attributes{};
    s32 id = -1;
    return ZU_OS_CreateMutex(&attributes, &id) == ZU_OK && ZU_OS_DeleteMutex(id) == ZU_OK;
}

bool run_task()
{
    const ZU_OS_TaskAttr_t attributes{[](void*) {}, nullptr, 4, 1, {}, nullptr, 4096, "test"};
    s32 id = -1;
    return ZU_OS_CreateTask(&attributes, &id) == ZU_OK && ZU_OS_DeleteTask(id) == ZU_OK;
}

bool write_file()
{
    const u32 file = ZU_FS_Fopen(path.c_str(), "wb");
    return file != 0 && ZU_FS_Fclose(file) == ZU_OK;
}

bool open_capture()
{
    const ZU_CAP_OpenParams_t parameters{};
    u32 handle = 0;
    return ZU_CAP_Open(&parameters, &handle) == ZU_OK && ZU_CAP_Close(handle) == ZU_OK;
}

bool share_memory()
{
    ZU_OS_IommuAlloc_t block{};
    block.u32Size = 4096;
    if (ZU_OS_AllocateIommuMemory(&block) != ZU_OK)
        return false;
    ZU_OS_IommuBufFd_t shared{block.u64PhyAddr, -1, 0};
    const bool got = ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD, &shared) == ZU_OK;
    if (got) {
        EXPECT_EQ(ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD, &shared), ZU_OK);
    }
    const ZU_OS_IommuFree_t freed{block.u64PhyAddr, block.u32Size, 0};
    EXPECT_EQ(ZU_OS_FreeIommuMemory(&freed), ZU_OK);
    return got;
}

bool with_so_many(int allocations, bool (*call)())
{
    struct Again {
        ~Again() { allocations_left = INT_MAX; }
    } again;
    allocations_left = allocations;
    return call();
}

ptrdiff_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

// Catches an exception in a caller that cannot take one, and a descriptor or a block that stays behind.
TEST(OutOfMemory, IsAnswered)
{
    const struct {
        const char* what;
        bool (*call)();
    } cases[] = {{"mutex", make_mutex},
                 {"task", run_task},
                 {"file", write_file},
                 {"capture", open_capture},
                 {"memory", share_memory}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.what);
        const ptrdiff_t before = open_descriptors();
        bool done = false;
        int allocations = 0;
        for (; !done && allocations < 100; ++allocations) {
            EXPECT_NO_THROW(done = with_so_many(allocations, each.call));
        }
        EXPECT_TRUE(done && allocations > 1) << allocations;
        EXPECT_EQ(open_descriptors(), before);
    }
}

} // namespace
