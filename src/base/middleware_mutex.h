#ifndef SCREENRECORD_BASE_MIDDLEWARE_MUTEX_H
#define SCREENRECORD_BASE_MIDDLEWARE_MUTEX_H

#include <zu3/os.h>

enum {
    /** task, mutex or descriptor: none */
    SCREENRECORD_NO_ID = -1,
    /** timeout of every wait for a middleware mutex */
    SCREENRECORD_LOCK_TIMEOUT_MS = 5000,
};

/** Obtains a module's mutex for a scope. Releases it only if it was obtained. */
class MiddlewareLock {
public:
    explicit MiddlewareLock(s32 s32MutexId)
        : m_s32MutexId(s32MutexId),
          m_bObtained(s32MutexId != SCREENRECORD_NO_ID &&
                      ZU_OS_ObtainMutex(s32MutexId, SCREENRECORD_LOCK_TIMEOUT_MS) == ZU_OK)
    {
    }
    ~MiddlewareLock()
    {
        if (m_bObtained)
            ZU_OS_ReleaseMutex(m_s32MutexId);
    }
    MiddlewareLock(const MiddlewareLock&) = delete;
    MiddlewareLock& operator=(const MiddlewareLock&) = delete;

    /** True if the protected data is safe to use: the mutex was obtained, or there is none. */
    bool HeldOrNone() const { return m_bObtained || m_s32MutexId == SCREENRECORD_NO_ID; }

private:
    const s32 m_s32MutexId;
    const bool m_bObtained;
};

#endif
