#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zu3host {

/** Sound on this platform: 48 kHz, two channels, 16 bits, little-endian, interleaved. */
inline constexpr uint32_t pcm_rate = 48000;
inline constexpr uint32_t pcm_channels = 2;
/** one sample of both channels */
inline constexpr uint32_t pcm_frame_bytes = 4;

/** Whether any audio capture is started in this process. */
bool audio_capture_running();

/**
 * Reads the process's audio capture from its own position, which begins at its creation. Sound is
 * captured while at least one audio capture is started. Without sound it reads silence, at the rate
 * of the clock. A late reader loses the oldest samples, which the statistics count. One thread at a
 * time.
 */
class PcmReader {
public:
    virtual ~PcmReader() = default;

    /** Bytes that can be read now, a multiple of pcm_frame_bytes. */
    virtual size_t level() = 0;
    /** Moves up to `size` bytes out; returns their number. Does not wait. */
    virtual size_t read(void* dst, size_t size) = 0;
    /** When the next byte to be read was heard, microseconds of the monotonic clock. */
    virtual int64_t time_of_next_us() = 0;
};

std::unique_ptr<PcmReader> make_pcm_reader();

} // namespace zu3host
