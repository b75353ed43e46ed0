#pragma once

#include "multiplexer/stream_clock.h"

#include <cstdint>

namespace zu3host {

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
 * How long a picture is complete before it is due. At a constant rate a large picture takes its
 * time, and what a decoder must hold stays below one second with the window above.
 */
inline constexpr uint64_t variable_rate_lead = system_ticks_of_ms(300);
inline constexpr uint64_t constant_rate_lead = system_ticks_of_ms(900);
/** A decoder holds 3584 bytes of stereo AAC (2.4.2.6), which is 224 ms at 128 kbit/s. */
inline constexpr uint64_t sound_lead = system_ticks_of_ms(200);

constexpr uint64_t picture_lead(bool constant_rate)
{
    return constant_rate ? constant_rate_lead : variable_rate_lead;
}

/** Of a stream whose first time reference is `start`. */
constexpr int64_t first_pts(uint64_t start, bool constant_rate)
{
    return static_cast<int64_t>((start + picture_window + picture_lead(constant_rate)) / 300);
}

} // namespace zu3host
