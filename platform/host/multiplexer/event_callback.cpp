#include "multiplexer/event_callback.h"

#include <algorithm>

namespace zu3host {

namespace {

/**
 * An encoder pushes from one thread: more at once are a mistake, and cost memory.
 */
constexpr size_t most_callers = 8;

} // namespace

uint64_t EventCallback::set(const ZU_TSMUX_CallbackParams_t& params)
{
    const std::lock_guard lock(mutex_);
    if (callback_.pfnCallback)
        return 0;
    // allocates now, so that reporting an event cannot fail
    callers_.reserve(most_callers);
    callback_ = params;
    callback_.u64CallbackId = next_id_++;
    return callback_.u64CallbackId;
}

bool EventCallback::remove(uint64_t id)
{
    std::unique_lock lock(mutex_);
    if (callback_.pfnCallback && callback_.u64CallbackId != id)
        return false;
    wait_for_callers(lock);
    return true;
}

void EventCallback::remove_any()
{
    std::unique_lock lock(mutex_);
    wait_for_callers(lock);
}

void EventCallback::wait_for_callers(std::unique_lock<std::mutex>& lock)
{
    callback_ = {};
    idle_.wait(lock, [this] {
        const auto self = std::this_thread::get_id();
        return std::all_of(callers_.begin(), callers_.end(),
                           [&](auto caller) { return caller == self; });
    });
}

void EventCallback::call(uint32_t handle, uint32_t event)
{
    std::unique_lock lock(mutex_);
    if (!callback_.pfnCallback || (callback_.u32EventMask & event) == 0)
        return;
    const ZU_TSMUX_CallbackParams_t callback = callback_;
    callers_.push_back(std::this_thread::get_id());
    lock.unlock();
    callback.pfnCallback(static_cast<s32>(handle), event, nullptr, callback.pUserData);
    lock.lock();
    callers_.erase(std::find(callers_.begin(), callers_.end(), std::this_thread::get_id()));
    idle_.notify_all();
}

} // namespace zu3host
