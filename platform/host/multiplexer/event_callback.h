#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>
#include <zu3/tsmux.h>

namespace zu3host {

/**
 * The one callback that a multiplexer can have. It is called with no lock held; once it is removed
 * it is not running and will not be called again, except if it removes itself. Thread-safe.
 */
class EventCallback {
public:
    /** @return an id, 0 when there is a callback already */
    uint64_t set(const ZU_TSMUX_CallbackParams_t& params);
    /** @return false when there is a callback, and it has another id */
    bool remove(uint64_t id);
    void remove_any();
    void call(uint32_t handle, uint32_t event);

private:
    void wait_for_callers(std::unique_lock<std::mutex>& lock);

    std::mutex mutex_;
    std::condition_variable idle_;
    ZU_TSMUX_CallbackParams_t callback_ = {};
    uint64_t next_id_ = 1;
    std::vector<std::thread::id> callers_;
};

} // namespace zu3host
