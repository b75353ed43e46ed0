#include "base/handle_table.h"
#include "base/threads.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <zu3/os.h>

namespace zu3host {

/**
 * A mutex with a time limit and an owner, which may be retired while a thread owns it or waits for
 * it. The limit counts the time that this process runs.
 */
class TimedMutex {
public:
    enum class Result { obtained, timed_out, retired };

    Result obtain(std::chrono::milliseconds limit);
    /** False if the calling thread does not own it. */
    bool release();
    /** From now on no thread obtains it; those that wait return at once. */
    void retire();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    /** number of the holding thread, 0 = none */
    uint64_t owner_ = 0;
    bool retired_ = false;
};

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

namespace {

using zu3host::at_border;
using zu3host::handle_table;
using zu3host::TimedMutex;

// Ids only count up, so that an old one is never another mutex. Counting never reaches -1.
constexpr auto mutexes = handle_table<TimedMutex, 0>;

u32 obtain(TimedMutex& mutex, u32 timeout_ms)
{
    switch (mutex.obtain(std::chrono::milliseconds(timeout_ms))) {
    case TimedMutex::Result::obtained:
        return ZU_OK;
    case TimedMutex::Result::timed_out:
        return ZU_FAILURE;
    case TimedMutex::Result::retired:
        return ZU_INVALID_ARGUMENT;
    }
    return ZU_FAILURE;
}

} // namespace

HOST_EXPORT u32 ZU_OS_CreateMutex(const ZU_OS_MutexAttr_t* pstAttr, s32* ps32MutexId)
{
    if (!pstAttr || !ps32MutexId)
        return ZU_INVALID_ARGUMENT;
    return at_border(__func__, [=] {
        zu3host::store_output(ps32MutexId,
                              static_cast<s32>(mutexes().add(std::make_shared<TimedMutex>())));
        return u32{ZU_OK};
    });
}

HOST_EXPORT u32 ZU_OS_ObtainMutex(s32 s32MutexId, u32 u32TimeoutMs)
{
    return zu3host::with_object(__func__, mutexes, static_cast<u32>(s32MutexId),
                                [=](TimedMutex& mutex) { return obtain(mutex, u32TimeoutMs); });
}

HOST_EXPORT u32 ZU_OS_ReleaseMutex(s32 s32MutexId)
{
    return at_border(__func__, [=]() -> u32 {
        const auto mutex = mutexes().find(static_cast<u32>(s32MutexId));
        if (!mutex) {
            HOST_LOGW("Mutex %d was released, but does not exist.", s32MutexId);
            return ZU_INVALID_ARGUMENT;
        }
        if (!mutex->release()) {
            HOST_LOGE("Mutex %d was released by a thread that does not own it.", s32MutexId);
            return ZU_FAILURE;
        }
        return ZU_OK;
    });
}

HOST_EXPORT u32 ZU_OS_DeleteMutex(s32 s32MutexId)
{
    return at_border(__func__, [=]() -> u32 {
        const auto mutex = mutexes().remove(static_cast<u32>(s32MutexId));
        if (!mutex)
            return ZU_INVALID_ARGUMENT;
        mutex->retire();
        return ZU_OK;
    });
}
