#pragma once

#include "multiplexer/aac_module.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace zu3host {

/**
 * AAC-LC, 48 kHz stereo, 128 kbit/s, each frame with an ADTS header (ISO/IEC 13818-7, 6.2). Not
 * thread-safe.
 */
class AacEncoder {
public:
    /**
     * Delay in samples from the input of an encode() to the decoder's output: one frame that the
     * encoder keeps, and one of overlap.
     */
    static constexpr int64_t delay_samples = 2 * aac_frame_samples;

    /** @return null, with a log line, if the encoder is not installed or refuses */
    static std::unique_ptr<AacEncoder> open();

    /**
     * @param pcm one frame, interleaved
     * @param out at least SoundQueue::greatest_frame bytes
     * @return bytes written to `out`; 0 for the first frame, and if the encoder failed
     */
    size_t encode(std::span<const int16_t, aac_frame_samples * 2> pcm, std::span<uint8_t> out);

private:
    explicit AacEncoder(std::unique_ptr<AacCodec> codec) : codec_(std::move(codec)) {}

    std::unique_ptr<AacCodec> codec_;
};

} // namespace zu3host
