#pragma once

#include <cstdint>

namespace zu3host {

/** Ticks of the system clock, 27 MHz (ISO/IEC 13818-1, 2.4.2.1). */
inline constexpr uint64_t system_clock_hz = 27000000;

constexpr uint64_t system_ticks_of_ms(uint64_t milliseconds)
{
    return milliseconds * (system_clock_hz / 1000);
}

/**
 * Where the stream stands, on its own system clock; what a PCR says. At a constant rate it moves
 * with the packets alone, exactly; at a variable rate it also moves to the moments that the
 * pictures ask for.
 */
class StreamClock {
public:
    /** @param bits_per_second of the 188-byte packets; 0 = variable rate */
    StreamClock(uint64_t start, uint64_t bits_per_second);

    uint64_t now() const { return now_; }
    bool constant_rate() const { return bits_per_second_ != 0; }
    uint64_t packet_ticks() const { return whole_ticks_; }
    void packet_sent();
    /** Moves forward to `moment`; only at a variable rate. */
    void wait_until(uint64_t moment);

private:
    uint64_t now_;
    uint64_t bits_per_second_;
    /** duration of a packet, rounded down */
    uint64_t whole_ticks_;
    /** its rest, in 1/rate of a tick */
    uint64_t remainder_ = 0;
    uint64_t carried_ = 0;
};

} // namespace zu3host
