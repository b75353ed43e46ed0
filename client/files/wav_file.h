#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace client {

/** Samples as in a WAV file: little-endian, channels interleaved. */
struct PcmFormat {
    uint32_t channels = 2;
    /** per second and channel */
    uint32_t sample_rate = 48000;
    uint32_t bits = 16;

    constexpr uint32_t frame_bytes() const { return channels * bits / 8; }
    constexpr uint64_t bytes_per_second() const { return uint64_t{sample_rate} * frame_bytes(); }
};

inline constexpr size_t wav_header_bytes = 44;

/**
 * The header of a WAV file (RIFF, PCM) with `data_bytes` of samples. Its size fields have 32 bits:
 * beyond that they contain the greatest value, which players read as "up to the end of the file".
 */
std::array<uint8_t, wav_header_bytes> wav_header(const PcmFormat& format, uint64_t data_bytes);

} // namespace client
