#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace common {

/**
 * A static object that is constructed at its first use and never destroyed, so that threads may use
 * it while the process exits. It lies in static memory: the wrapper allocates nothing.
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
