#ifndef SCREENRECORD_BASE_CALLBACK_GATE_H
#define SCREENRECORD_BASE_CALLBACK_GATE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <zu3/types.h>

/**
 * Tells a close when the last foreign thread has left a module's record.
 *
 * The middleware calls in on its own threads, also while a module is being closed and after it. A
 * callback enters the gate and only then looks for its handle in the record; a close withdraws the
 * handle from the record and then drains the gate. So a callback either finds no handle and leaves,
 * or the close waits for it: no callback meets the steps after a drain, without a lock per picture
 * and without a protective sleep.
 *
 * Callbacks are counted by the parity of an epoch that each drain advances, so that those that come
 * in during a drain do not prolong it.
 */
class CallbackGate {
public:
    /** Counts the calling thread in; the result is the ticket for Leave. */
    u32 Enter();
    void Leave(u32 u32Ticket);
    /**
     * Waits, up to 5000 ms, until every thread that entered before this call has left. One drain at
     * a time.
     * @return false, which is logged, when one has not
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

/** Holds a gate for a scope. */
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
