#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace common {

/**
 * A static object that is made at its first use and never destroyed: threads that still run while
 * the process exits may use it. It lies in static memory, so making it allocates nothing itself.
 *
 *     static NeverDestroyed<Table> table(first_handle);
 */
template <typename T> class NeverDestroyed {
public:
    template <typename... Arguments> explicit NeverDestroyed(Arguments&&... arguments)
    {
        ::new (static_cast<void*>(memory_)) T(std::forward<Arguments>(arguments)...);
    }
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    T* operator->() { return &**this; }
    T& operator*() { return *std::launder(reinterpret_cast<T*>(memory_)); }

private:
    alignas(T) std::byte memory_[sizeof(T)];
};

} // namespace common
