#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace client {

/**
 * Looks at something every 50 ms on a separate thread, while this thread may block in a call. Count
 * looks instead of time: after SIGSTOP and SIGCONT none has passed. If the system has no thread
 * left, it never looks.
 */
class RepeatedLook {
public:
    static constexpr std::chrono::milliseconds interval{50};

    /** @param look false = no further look; must not throw */
    explicit RepeatedLook(std::function<bool()> look);

private:
    const std::function<bool()> look_;
    std::mutex mutex_;
    std::condition_variable_any wake_;
    // last member: it uses the others
    std::jthread thread_;
};

} // namespace client
