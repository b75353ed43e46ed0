#pragma once

#include <cstdint>

namespace zu3host {

/**
 * Notes when the picture with the time stamp `pts` was due, for zu3_host_due_time(). Both are
 * microseconds of the monotonic clock. From any thread.
 */
void note_due_time(uint64_t pts, uint64_t due);

} // namespace zu3host
