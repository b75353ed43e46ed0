#include "base/callback_gate.h"

#include <chrono>

#include "base/log.h"
#include "base/middleware_mutex.h"

u32 CallbackGate::Enter()
{
    for (;;) {
        const u32 u32Epoch = m_u32Epoch.load();
        m_au32Inside[u32Epoch & 1].fetch_add(1);
        if (m_u32Epoch.load() == u32Epoch)
            return u32Epoch & 1;
        // A drain began meanwhile and may have missed this thread: leave, and enter after it.
        Leave(u32Epoch & 1);
    }
}

void CallbackGate::Leave(u32 u32Ticket)
{
    if (m_au32Inside[u32Ticket].fetch_sub(1) != 1 || (m_u32Epoch.load() & 1) == u32Ticket)
        return;
    // The last thread of an epoch that is being drained. Without the mutex, the wake-up could fall
    // between the drain's check of the count and its wait.
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_left.notify_all();
}

bool CallbackGate::AwaitEmpty(std::unique_lock<std::mutex>& lock, u32 u32Parity,
                              std::chrono::steady_clock::time_point deadline)
{
    return m_left.wait_until(lock, deadline, [&] { return m_au32Inside[u32Parity].load() == 0; });
}

bool CallbackGate::Drain()
{
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(SCREENRECORD_LOCK_TIMEOUT_MS);
    std::unique_lock<std::mutex> lock(m_mutex);
    const u32 u32Current = m_u32Epoch.load() & 1;
    // A thread that an earlier drain gave up is counted under the other parity, which the next
    // epoch reuses.
    if (AwaitEmpty(lock, u32Current ^ 1, deadline)) {
        m_u32Epoch.fetch_add(1);
        if (AwaitEmpty(lock, u32Current, deadline))
            return true;
    }
    SR_LOGE("A callback has not returned after %d ms\n", SCREENRECORD_LOCK_TIMEOUT_MS);
    return false;
}
