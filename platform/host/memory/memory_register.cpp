#include "memory/memory_register.h"

#include <common/never_destroyed.h>
#include <cstdint>
#include <iterator>
#include <map>
#include <mutex>

namespace zu3host {

namespace {

struct Entry {
    size_t bytes;
    std::weak_ptr<const void> memory;
};

struct Register {
    // a leaf: no memory is let go under it
    std::mutex mutex;
    std::map<uintptr_t, Entry> by_start;
};

Register& known()
{
    static common::NeverDestroyed<Register> only;
    return *only;
}

uintptr_t number_of(const void* address)
{
    return reinterpret_cast<uintptr_t>(address);
}

} // namespace

void register_memory(const void* start, size_t bytes, std::weak_ptr<const void> memory)
{
    Register& all = known();
    const std::lock_guard lock(all.mutex);
    all.by_start.insert_or_assign(number_of(start), Entry{bytes, std::move(memory)});
}

void forget_memory(const void* start)
{
    Register& all = known();
    const std::lock_guard lock(all.mutex);
    all.by_start.erase(number_of(start));
}

std::shared_ptr<const void> hold_memory(const void* address)
{
    Register& all = known();
    const std::lock_guard lock(all.mutex);
    const auto above = all.by_start.upper_bound(number_of(address));
    if (above == all.by_start.begin())
        return nullptr;
    const auto& [start, entry] = *std::prev(above);
    return number_of(address) - start < entry.bytes ? entry.memory.lock() : nullptr;
}

} // namespace zu3host
