#include "middleware/allocation_failures.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

namespace middleware {

namespace {

std::mutex blocks_mutex;
/** Never destroyed: the library's static objects may free at exit. */
std::unordered_set<void*>& blocks = *new std::unordered_set<void*>;

} // namespace

bool AllocationWindow::is_to_fail()
{
    if (!counting)
        return false;
    const int number = ++asked;
    return failing != 0 && (number == failing || (failing_later && number > failing));
}

AllocationWindow::AllocationWindow(int fail_number, bool and_later)
{
    asked = 0;
    copied = 0;
    failing = fail_number;
    failing_later = and_later;
    counting = true;
}

size_t library_allocations_left()
{
    const std::lock_guard lock(blocks_mutex);
    return blocks.size();
}

void forget_library_allocations()
{
    const std::lock_guard lock(blocks_mutex);
    blocks.clear();
}

} // namespace middleware

// The names that --wrap gives the library's references; operator new's holds the type of size_t.
#if __SIZEOF_SIZE_T__ == 8
#define WRAPPED_NEW(kind, tail) __wrap__Zn##kind##m##tail
#else
#define WRAPPED_NEW(kind, tail) __wrap__Zn##kind##j##tail
#endif

using namespace middleware;

extern "C" {

/** Only the library's copies come here, and only those that are not compiled into a few moves. */
void* __wrap_memcpy(void* to, const void* from, size_t size)
{
    AllocationWindow::note_copy(size);
    return std::memcpy(to, from, size);
}

void* __wrap_malloc(size_t size)
{
    void* const block = AllocationWindow::is_to_fail() ? nullptr : std::malloc(size);
    const std::lock_guard lock(blocks_mutex);
    if (block)
        blocks.insert(block);
    return block;
}

void __wrap_free(void* block)
{
    const std::lock_guard lock(blocks_mutex);
    blocks.erase(block);
    std::free(block);
}

void* WRAPPED_NEW(w, RKSt9nothrow_t)(size_t size, const std::nothrow_t&)
{
    return AllocationWindow::is_to_fail() ? nullptr : ::operator new(size, std::nothrow);
}
}
