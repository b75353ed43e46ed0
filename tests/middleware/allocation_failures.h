/** Counts the library's allocations, whose heap functions are bound to this file; fails one. */
#pragma once

#include <atomic>
#include <cstddef>

namespace middleware {

/** Counts the library's allocations on all threads while it lives. One at a time. */
class AllocationWindow {
public:
    /** `fail_number`: the n-th allocation fails, 0 = none; `and_later`: so do all that follow. */
    explicit AllocationWindow(int fail_number = 0, bool and_later = false);
    ~AllocationWindow() { counting = false; }
    AllocationWindow(const AllocationWindow&) = delete;
    AllocationWindow& operator=(const AllocationWindow&) = delete;

    /** Allocations asked for in the window so far. */
    int count() const { return asked; }
    /** Bytes that the library copied; not counted under AddressSanitizer, which copies itself. */
    size_t copied_bytes() const { return copied; }
    /** Whether the one that was to fail was asked for. */
    bool failed() const { return failing != 0 && asked >= failing; }

    static bool is_to_fail();
    static void note_copy(size_t bytes)
    {
        if (counting)
            copied += bytes;
    }

private:
    static inline std::atomic<bool> counting = false, failing_later = false;
    static inline std::atomic<int> asked = 0, failing = 0;
    static inline std::atomic<size_t> copied = 0;
};

/** Blocks from the library's malloc, calloc and realloc that it has not freed. */
size_t library_allocations_left();
/** Starts that count anew. */
void forget_library_allocations();

} // namespace middleware
