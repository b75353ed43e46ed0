#include "os/timed_mutex.h"

#include "base/threads.h"

#include <atomic>

namespace zu3host {

namespace {

// The system gives the ids of finished threads to new ones, so that a new thread could pass for a
// dead holder.
uint64_t number_of_this_thread()
{
    static std::atomic<uint64_t> last{0};
    thread_local const uint64_t number = ++last;
    return number;
}

} // namespace

TimedMutex::Result TimedMutex::obtain(std::chrono::milliseconds limit)
{
    std::unique_lock lock(mutex_);
    const bool free_or_retired =
        wait_patiently(changed_, lock, limit, [this] { return retired_ || owner_ == 0; });
    if (!free_or_retired)
        return Result::timed_out;
    if (retired_)
        return Result::retired;
    owner_ = number_of_this_thread();
    return Result::obtained;
}

bool TimedMutex::release()
{
    {
        const std::lock_guard lock(mutex_);
        if (owner_ != number_of_this_thread())
            return false;
        owner_ = 0;
    }
    changed_.notify_one();
    return true;
}

void TimedMutex::retire()
{
    {
        const std::lock_guard lock(mutex_);
        retired_ = true;
    }
    changed_.notify_all();
}

} // namespace zu3host
