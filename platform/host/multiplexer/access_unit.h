#pragma once

#include <cstdint>
#include <span>

namespace zu3host {

/**
 * Whether decoding can start at this H.264 access unit: its first slice is one of an IDR picture
 * (Annex B).
 */
bool is_random_access_unit(std::span<const uint8_t> unit);

} // namespace zu3host
