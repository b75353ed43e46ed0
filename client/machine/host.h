#pragma once

#include <optional>
#include <zu3_host/exact_size.h>
#include <zu3_host/frame_event.h>
#include <zu3_host/statistics.h>

namespace client {

/**
 * What the platform counts, or nothing where it does not. Fields that an older platform lacks are
 * 0.
 */
std::optional<zu3_host_statistics_t> read_statistics();

/**
 * A descriptor that becomes readable with each encoded frame, -1 where the platform has none; see
 * frame_event.h.
 */
int frame_event();

/** Lets no write wait for its disk any longer; see slow_disk.h. */
void give_up_writes();
/**
 * Asks for a stream of exactly this size, see exact_size.h; false where the platform has none but
 * the rounded ones.
 */
bool want_exact_size(uint32_t width, uint32_t height);

/** One sentence on the platform, NULL where it has none. */
const char* platform_sentence();

/** Bytes of all streams that no file has yet. */
inline uint64_t unwritten_bytes(const zu3_host_statistics_t& s)
{
    return s.bytes_multiplexed > s.bytes_written ? s.bytes_multiplexed - s.bytes_written : 0;
}

/** Whether a picture of the display has been waited for in vain for a second. */
inline bool display_is_silent(const zu3_host_statistics_t& s)
{
    return s.display_silent_ms >= 1000;
}

/** Pictures that capture dropped, for any reason. */
inline uint64_t dropped_pictures(const zu3_host_statistics_t& s)
{
    return s.pictures_dropped_late + s.pictures_dropped_no_buffer + s.pictures_dropped_no_display;
}

} // namespace client
