#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace zu3host {

/**
 * A mutex with a time limit and an owner, which may be retired while threads hold it or wait for
 * it; whoever reaches it keeps it alive. The limit runs on the monotonic clock.
 */
class TimedMutex {
public:
    enum class Result { obtained, timed_out, retired };

    Result obtain(std::chrono::milliseconds limit);
    /** False when the calling thread does not hold it. */
    bool release();
    /** From now on nobody obtains it; those who wait are told at once. */
    void retire();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    /** number of the holding thread, 0 = none */
    uint64_t owner_ = 0;
    bool retired_ = false;
};

} // namespace zu3host
