#pragma once

#include <cstdint>

namespace zu3host {

/**
 * The most that open recording encoders of this process may produce, bits per second averaged over
 * less than a second; 0 = no ceiling but the encoder's own. A multiplexer of constant rate calls
 * it: content above its rate would make the stream late without bound. From any thread, also while
 * encoders run.
 */
void set_rate_ceiling(uint64_t bits_per_second);

/** What was set last. From any thread. */
uint64_t rate_ceiling();

} // namespace zu3host
