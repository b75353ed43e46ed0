#pragma once

#include <cstdint>

namespace common {

/**
 * Bit/s: MaxBR of levels 5.1 and 5.2 (ISO/IEC 14496-10 table A-1). A greater rate leaves the choice
 * to the encoder.
 */
inline constexpr uint32_t greatest_bit_rate = 240'000'000;
/** The limit of a recording's writer, with tables, headers and sound, in units of 1000 bit/s. */
inline constexpr int recording_kilobits = 4500;
/** Pictures per second. */
inline constexpr uint32_t greatest_frame_rate = 120;
/** The greatest rate factor of x264; the best is 0. */
inline constexpr uint32_t worst_quality = 51;

} // namespace common
