#include "statistics/counters.h"

#include "base/border.h"

#include <algorithm>
#include <common/clock.h>
#include <cstring>
#include <zu3_host/statistics.h>

namespace zu3host {

Counters& counters()
{
    static Counters all;
    return all;
}

} // namespace zu3host

namespace {

template <typename T> T value_of(const std::atomic<T>& counter)
{
    return counter.load(std::memory_order_relaxed);
}

uint64_t microseconds_since(int64_t begin_us)
{
    const int64_t passed = common::monotonic_us() - begin_us;
    return begin_us == 0 ? 0 : static_cast<uint64_t>(std::max<int64_t>(passed, 0));
}

zu3_host_statistics_t snapshot(const zu3host::Counters& live)
{
    return {
        .pictures_due = value_of(live.pictures_due),
        .pictures_captured = value_of(live.pictures_captured),
        .pictures_dropped_late = value_of(live.pictures_dropped_late),
        .pictures_dropped_no_buffer = value_of(live.pictures_dropped_no_buffer),
        .pictures_dropped_no_display = value_of(live.pictures_dropped_no_display),
        .pictures_encoded = value_of(live.pictures_encoded),
        .pictures_refused = value_of(live.pictures_refused),
        .bytes_encoded = value_of(live.bytes_encoded),
        .access_units_multiplexed = value_of(live.access_units_multiplexed),
        .multiplexer_busy = value_of(live.multiplexer_busy),
        .bytes_multiplexed = value_of(live.bytes_multiplexed),
        .bytes_copied_out = value_of(live.bytes_copied_out),
        .bytes_written = value_of(live.bytes_written),
        .write_failures = value_of(live.write_failures),
        .last_write_errno = value_of(live.last_write_errno),
        .sound_level = value_of(live.sound_level),
        .audio_bytes_lost = value_of(live.audio_bytes_lost),
        .display_lost = value_of(live.display_lost),
        .sound_lost = value_of(live.sound_lost),
        .audio_frames_encoded = value_of(live.audio_frames_encoded),
        .display_silent_ms = value_of(live.display_silent_ms),
        .pictures_left_out_for_room = value_of(live.pictures_left_out_for_room),
        .write_waiting_us = microseconds_since(value_of(live.write_waits_since_us)),
        .pictures_coarsened = value_of(live.pictures_coarsened),
    };
}

} // namespace

HOST_EXPORT uint32_t zu3_host_statistics(zu3_host_statistics_t* statistics, uint32_t size)
{
    const zu3_host_statistics_t now = snapshot(zu3host::counters());
    if (statistics)
        std::memcpy(statistics, &now, std::min<size_t>(size, sizeof now));
    return sizeof now;
}

HOST_EXPORT const char* zu3_host_platform(void)
{
    return "Linux host layer: screens of X11 and Wayland, H.264 by x264, sound by PulseAudio, AAC by libavcodec";
}
