#pragma once

namespace zu3host {

/**
 * Marks the memory files of libpulse, which it opens without O_CLOEXEC, to be closed in programs
 * that this process starts. To be called when libpulse may have made or received one; from any
 * thread.
 */
void keep_pulse_memory_from_children();

} // namespace zu3host
