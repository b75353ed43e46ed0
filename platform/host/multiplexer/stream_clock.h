#pragma once

#include <cstddef>
#include <cstdint>

namespace zu3host {

/** ISO/IEC 13818-1, 2.4.3.2 */
inline constexpr size_t ts_packet_bytes = 188;
/** the same behind a TP_extra_header of 4 bytes */
inline constexpr size_t timed_ts_packet_bytes = 192;

/** Ticks of the system clock, 27 MHz (ISO/IEC 13818-1, 2.4.2.1). */
inline constexpr uint64_t system_clock_hz = 27000000;

constexpr uint64_t system_ticks_of_ms(uint64_t milliseconds)
{
    return milliseconds * (system_clock_hz / 1000);
}

/**
 * The current time of the stream on its system clock, the value of a PCR. At a constant rate it
 * advances exactly with the packets; at a variable rate also to the times that pictures request.
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

/**
 * The first time reference: small, and greater than nothing, so that no sum before it runs below
 * zero.
 */
inline constexpr uint64_t stream_start = system_ticks_of_ms(100);
/**
 * Over how much of the stream a picture is spread at most, and before its end begins at the
 * earliest.
 */
inline constexpr uint64_t picture_window = system_ticks_of_ms(100);
/**
 * Time from a picture's last byte to its presentation. At a constant rate a large picture needs a
 * longer lead; with the window above, a decoder buffers less than one second.
 */
inline constexpr uint64_t variable_rate_lead = system_ticks_of_ms(300);
inline constexpr uint64_t constant_rate_lead = system_ticks_of_ms(900);
/** A decoder holds 3584 bytes of stereo AAC (2.4.2.6), which is 224 ms at 128 kbit/s. */
inline constexpr uint64_t sound_lead = system_ticks_of_ms(200);

constexpr uint64_t picture_lead(bool constant_rate)
{
    return constant_rate ? constant_rate_lead : variable_rate_lead;
}

/**
 * The first time reference of this process's streams: stream_start, later by the seconds that
 * ZU3_STREAM_START names.
 */
uint64_t start_of_streams();

/** A clock of a stream whose first time reference is `start`. */
constexpr int64_t first_pts(uint64_t start, bool constant_rate)
{
    return static_cast<int64_t>((start + picture_window + picture_lead(constant_rate)) / 300);
}

} // namespace zu3host
