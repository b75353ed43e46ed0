#pragma once

#include <cstdint>

namespace zu3host {

/**
 * What one multiplexer of constant rate leaves for the pictures. While it lives it counts for the
 * process's rate ceiling, which is the lowest of all budgets. Thread-safe among budgets; one thread
 * at a time uses one.
 */
class RateBudget {
public:
    RateBudget() = default;
    RateBudget(const RateBudget&) = delete;
    RateBudget& operator=(const RateBudget&) = delete;
    ~RateBudget() { set(0); }

    /** Bits per second that pictures may take; 0 = this multiplexer sets no limit. */
    void set(uint64_t bits_per_second);
};

/**
 * What remains of a transport-stream rate for pictures, beside tables, packet headers and sound.
 */
uint64_t picture_budget(uint64_t stream_rate, bool with_sound);

} // namespace zu3host
