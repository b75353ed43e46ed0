#include "middleware/allocation_failures.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

namespace middleware {

namespace {

std::atomic<bool> counting = false;
std::atomic<int> asked = 0;
std::atomic<int> failing = 0;
std::atomic<bool> failing_later = false;
std::atomic<size_t> copied = 0;

struct Blocks {
    std::mutex mutex;
    std::unordered_set<void*> live;
};

Blocks& blocks()
{
    static Blocks* const the_blocks =
        new Blocks; // never destroyed: the library's static objects may free at exit
    return *the_blocks;
}

bool is_to_fail()
{
    if (!counting)
        return false;
    const int number = ++asked;
    return failing != 0 && (number == failing || (failing_later && number > failing));
}

void* remembered(void* block)
{
    if (block) {
        const std::lock_guard lock(blocks().mutex);
        blocks().live.insert(block);
    }
    return block;
}

void forget(void* block)
{
    const std::lock_guard lock(blocks().mutex);
    blocks().live.erase(block);
}

} // namespace

AllocationWindow::AllocationWindow(int fail_number, bool and_later)
{
    asked = 0;
    copied = 0;
    failing = fail_number;
    failing_later = and_later;
    counting = true;
}

AllocationWindow::~AllocationWindow()
{
    counting = false;
}

int AllocationWindow::count() const
{
    return asked;
}

size_t AllocationWindow::copied_bytes() const
{
    return copied;
}

bool AllocationWindow::failed() const
{
    return failing != 0 && asked >= failing;
}

size_t library_allocations_left()
{
    const std::lock_guard lock(blocks().mutex);
    return blocks().live.size();
}

void forget_library_allocations()
{
    const std::lock_guard lock(blocks().mutex);
    blocks().live.clear();
}

} // namespace middleware

// The names that the linker's --wrap gives the library's references; operator new's mangled name holds the
// type of size_t.
#if __SIZEOF_SIZE_T__ == 8
#define WRAPPED_NEW(kind, tail) __wrap__Zn##kind##m##tail
#else
#define WRAPPED_NEW(kind, tail) __wrap__Zn##kind##j##tail
#endif

extern "C" {

/** Only the library's copies come here, and only those that are not compiled into a few moves. */
void* __wrap_memcpy(void* to, const void* from, size_t size)
{
    if (middleware::counting)
        middleware::copied += size;
    return std::memcpy(to, from, size);
}

void* __wrap_malloc(size_t size)
{
    return middleware::is_to_fail() ? nullptr : middleware::remembered(std::malloc(size));
}

void __wrap_free(void* block)
{
    middleware::forget(block);
    std::free(block);
}

void* WRAPPED_NEW(w, RKSt9nothrow_t)(size_t size, const std::nothrow_t&)
{
    return middleware::is_to_fail() ? nullptr : ::operator new(size, std::nothrow);
}
}
