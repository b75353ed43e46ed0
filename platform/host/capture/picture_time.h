#pragma once

#include <cstdint>
#include <optional>

namespace zu3host {

/**
 * On a capture's thread, while its callback runs: when the picture in the callback was due,
 * microseconds of the monotonic clock. Nothing on any other thread. Unlike the moment at which
 * somebody got to look at the picture, it lies exactly on the grid of the frame rate, so it is what
 * pictures are to be stamped with.
 */
std::optional<uint64_t> due_time_of_picture_in_callback();

} // namespace zu3host
