#include "core/callback_gate.h"

#include <chrono>

#include "core/log.h"
#include "core/middleware_mutex.h"

u32 CallbackGate::Enter()
{
    for (;;) {
        const u32 u32Epoch = m_u32Epoch.load();
        m_au32Inside[u32Epoch & 1].fetch_add(1);
        if (m_u32Epoch.load() == u32Epoch)
            return u32Epoch & 1;
        // A drain began in between and may not have counted us: leave, and enter behind it.
        Leave(u32Epoch & 1);
    }
}

void CallbackGate::Leave(u32 u32Ticket)
{
    if (m_au32Inside[u32Ticket].fetch_sub(1) != 1 || (m_u32Epoch.load() & 1) == u32Ticket)
        return;
    // The last one of an epoch that is being drained. Taking the mutex keeps the wake-up from falling between
    // the drain's look at the count and its wait.
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_left.notify_all();
}

void CallbackGate::Drain()
{
    const u32 u32Old = m_u32Epoch.fetch_add(1) & 1;
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool bEmpty = m_left.wait_for(lock, std::chrono::milliseconds(SCREENRECORD_LOCK_TIMEOUT_MS),
                                        [&] { return m_au32Inside[u32Old].load() == 0; });
    if (!bEmpty)
        SR_LOGE("A callback has not returned after %d ms\n", SCREENRECORD_LOCK_TIMEOUT_MS);
}
