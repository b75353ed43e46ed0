#include "multiplexer/stream_clock.h"

#include "base/host_log.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace zu3host {

namespace {

constexpr uint64_t packet_bits_in_ticks = ts_packet_bytes * 8 * system_clock_hz;
/**
 * Packets at a variable rate are a microsecond apart at least, so that no two carry the same time.
 */
constexpr uint64_t least_packet_ticks = 27;

} // namespace

uint64_t start_of_streams()
{
    const char* const text = std::getenv("ZU3_STREAM_START");
    if (!text)
        return stream_start;
    uint32_t seconds = 0;
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, seconds);
    if (error == std::errc{} && stop == end)
        return stream_start + seconds * system_clock_hz;
    HOST_LOGW("ZU3_STREAM_START is not a number of seconds (\"%s\") and is ignored.", text);
    return stream_start;
}

StreamClock::StreamClock(uint64_t start, uint64_t bits_per_second)
    : now_(start), bits_per_second_(bits_per_second), whole_ticks_(least_packet_ticks)
{
    if (bits_per_second == 0)
        return;
    whole_ticks_ = packet_bits_in_ticks / bits_per_second;
    remainder_ = packet_bits_in_ticks % bits_per_second;
}

void StreamClock::packet_sent()
{
    now_ += whole_ticks_;
    carried_ += remainder_;
    if (carried_ < bits_per_second_ || bits_per_second_ == 0)
        return;
    carried_ -= bits_per_second_;
    ++now_;
}

void StreamClock::wait_until(uint64_t moment)
{
    now_ = std::max(now_, moment);
}

} // namespace zu3host
