#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace client::movie {

/**
 * The sequence and picture parameter sets of an access unit, each with its start code (ISO/IEC
 * 14496-10, 7.4.1 and Annex B).
 */
std::vector<uint8_t> parameter_sets(std::span<const uint8_t> access_unit);

} // namespace client::movie
