#pragma once

#include "base/border.h"

#include <common/never_destroyed.h>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace zu3host {

/**
 * The objects of one module by their u32 handle. A found object stays alive while the caller has
 * its pointer, even if another thread closes it. Thread-safe.
 */
template <typename T> class HandleTable {
public:
    /**
     * Handles count up from `first`, which differs between modules to identify them in a log.
     */
    explicit HandleTable(uint32_t first) : next_(first) {}

    uint32_t add(std::shared_ptr<T> object)
    {
        const std::lock_guard lock(mutex_);
        const uint32_t handle = next_++;
        objects_.emplace(handle, std::move(object));
        return handle;
    }
    /** The object, or null for a handle that is not open. */
    std::shared_ptr<T> find(uint32_t handle) const
    {
        const std::lock_guard lock(mutex_);
        const auto found = objects_.find(handle);
        return found == objects_.end() ? nullptr : found->second;
    }
    /** Removes and returns the object; null for a handle that is not open. */
    std::shared_ptr<T> remove(uint32_t handle)
    {
        const std::lock_guard lock(mutex_);
        const auto found = objects_.find(handle);
        if (found == objects_.end())
            return nullptr;
        std::shared_ptr<T> object = std::move(found->second);
        objects_.erase(found);
        return object;
    }

private:
    mutable std::mutex mutex_;
    uint32_t next_;
    std::map<uint32_t, std::shared_ptr<T>> objects_;
};

/**
 * A module's table; its handles count up from FIRST. Never destroyed, since threads of the library
 * may call while the process exits.
 */
template <typename T, uint32_t FIRST> HandleTable<T>& handle_table()
{
    static common::NeverDestroyed<HandleTable<T>> table(FIRST);
    return *table;
}

/**
 * At the border: the result of `call` for the object of an open handle, ZU_INVALID_ARGUMENT for any
 * other handle.
 */
template <typename T, typename Call>
u32 with_object(const char* function, HandleTable<T>& (*table)(), u32 handle, Call&& call) noexcept
{
    return at_border(function, [&]() -> u32 {
        const auto object = table().find(handle);
        return object ? u32{call(*object)} : u32{ZU_INVALID_ARGUMENT};
    });
}

} // namespace zu3host
