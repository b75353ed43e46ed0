#pragma once

#include <cstddef>
#include <memory>

namespace zu3host {

/**
 * The memory that is given out by address: lent buffers of encoders and blocks of device memory.
 * Its owner may give it up while a transfer still writes into it: a read from a dead disk outlasts
 * every wait, and nothing can end it. So a transfer holds what it finds here, and the memory goes
 * with its last holder. Thread-safe.
 */

/**
 * Makes `bytes` from `start` on, which `memory` owns, known until forget_memory(). Throws
 * std::bad_alloc.
 */
void register_memory(const void* start, size_t bytes, std::weak_ptr<const void> memory);
/**
 * The owner calls it before the addresses can be reused; also for memory that is not known.
 */
void forget_memory(const void* start);

/** Keeps the memory that contains an address; null for an address of the caller's own. */
std::shared_ptr<const void> hold_memory(const void* address);

} // namespace zu3host
