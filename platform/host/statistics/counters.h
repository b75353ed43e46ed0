#pragma once

#include <atomic>
#include <cstdint>

namespace zu3host {

/**
 * The live counters behind zu3_host_statistics_t, a field each with the same meaning; relaxed
 * atomics.
 */
struct Counters {
    std::atomic<uint64_t> pictures_due{0};
    std::atomic<uint64_t> pictures_captured{0};
    std::atomic<uint64_t> pictures_dropped_late{0};
    std::atomic<uint64_t> pictures_dropped_no_buffer{0};
    std::atomic<uint64_t> pictures_dropped_no_display{0};
    std::atomic<uint64_t> pictures_encoded{0};
    std::atomic<uint64_t> pictures_refused{0};
    std::atomic<uint64_t> bytes_encoded{0};
    std::atomic<uint64_t> access_units_multiplexed{0};
    std::atomic<uint64_t> multiplexer_busy{0};
    std::atomic<uint64_t> bytes_multiplexed{0};
    std::atomic<uint64_t> bytes_copied_out{0};
    std::atomic<uint64_t> bytes_written{0};
    std::atomic<uint64_t> write_failures{0};
    std::atomic<int32_t> last_write_errno{0};
    std::atomic<uint32_t> sound_level{0};
    std::atomic<uint64_t> audio_bytes_lost{0};
    std::atomic<uint32_t> display_lost{0};
    std::atomic<uint32_t> sound_lost{0};
    std::atomic<uint64_t> audio_frames_encoded{0};
    std::atomic<uint32_t> display_silent_ms{0};
    std::atomic<uint64_t> pictures_left_out_for_room{0};
    /** monotonic time, 0 = no write waits */
    std::atomic<int64_t> write_waits_since_us{0};
    std::atomic<uint64_t> pictures_coarsened{0};
    /** those whose last push was answered busy */
    std::atomic<uint32_t> full_multiplexers{0};
};

Counters& counters();

inline void count(std::atomic<uint64_t>& counter, uint64_t by = 1)
{
    counter.fetch_add(by, std::memory_order_relaxed);
}

/**
 * Counts a picture that is lost; also as one that there was no room for, while a multiplexer is
 * full.
 */
inline void count_lost_picture(std::atomic<uint64_t>& counter, uint64_t by = 1)
{
    count(counter, by);
    if (counters().full_multiplexers.load(std::memory_order_relaxed) > 0)
        count(counters().pictures_left_out_for_room, by);
}

} // namespace zu3host
