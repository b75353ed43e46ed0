#ifndef SCREENRECORD_BASE_CALLBACK_GATE_H
#define SCREENRECORD_BASE_CALLBACK_GATE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <zu3/types.h>

/**
 * Lets a close wait until the last foreign thread has left a module's record.
 *
 * The middleware calls back on its threads during a module's close and after it. A callback enters
 * the gate before it looks for its handle in the record; a close withdraws the handle before it
 * drains the gate. So a callback either finds no handle and leaves, or the close waits for it. No
 * callback overlaps the steps after a drain, and that needs neither a lock per picture nor a sleep.
 *
 * Each drain advances an epoch, and the gate counts callbacks by its parity: callbacks that arrive
 * during a drain do not prolong it.
 */
class CallbackGate {
public:
    /** Counts the calling thread in. @return the ticket for Leave */
    u32 Enter();
    void Leave(u32 u32Ticket);
    /**
     * Waits until every thread that entered before this call has left, at most 5000 ms. One drain
     * at a time.
     * @return false, and a log line, on a timeout
     */
    bool Drain();

private:
    bool AwaitEmpty(std::unique_lock<std::mutex>& lock, u32 u32Parity,
                    std::chrono::steady_clock::time_point deadline);

    std::atomic<u32> m_u32Epoch{0};
    std::atomic<u32> m_au32Inside[2] = {0, 0};
    std::mutex m_mutex;
    std::condition_variable m_left;
};

/** Keeps the calling thread inside a gate for a scope. */
class GatePass {
public:
    explicit GatePass(CallbackGate& gate) : m_pGate(&gate), m_u32Ticket(gate.Enter()) {}
    ~GatePass() { m_pGate->Leave(m_u32Ticket); }
    GatePass(const GatePass&) = delete;
    GatePass& operator=(const GatePass&) = delete;

private:
    CallbackGate* m_pGate;
    u32 m_u32Ticket;
};

#endif
