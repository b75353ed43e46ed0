#include "base/border.h"
#include "os/timed_mutex.h"

#include <zu3/os.h>

namespace {

using zu3host::at_border;
using zu3host::HandleTable;
using zu3host::TimedMutex;

// Never destroyed: threads may still hold mutexes while the process exits. Ids only count up, so
// that an old one is never another mutex; -1 is a handle that counting does not reach.
HandleTable<TimedMutex>& mutexes()
{
    static auto& all = *new HandleTable<TimedMutex>(0);
    return all;
}

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
            HOST_LOGE("Mutex %d was released by a thread that does not hold it.", s32MutexId);
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
