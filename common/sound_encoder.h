#pragma once

#include "common/av_codec.h"

#include <cstdint>
#include <functional>
#include <span>

namespace common {

/**
 * Encodes samples, in any number at a time, as AAC (ISO/IEC 14496-3, Low Complexity): 48 kHz stereo,
 * interleaved, 128 kbit/s. Throws std::runtime_error and std::bad_alloc.
 */
class SoundEncoder {
public:
    static constexpr int rate = 48000, channels = 2;
    /** of each channel in a packet; also the delay of the first packet */
    static constexpr int packet_samples = 1024;

    using Take = std::function<void(AVPacket&)>;

    SoundEncoder();

    /** The parameters of the encoder for a muxer. */
    const AVCodecContext& context() const { return *encoder_; }
    /**
     * Calls `take` with each complete packet; its time is in samples, and negative for the delay of
     * the encoder.
     */
    void put(std::span<const int16_t> samples, const Take& take);
    /** Encodes the rest; the last call. */
    void finish(const Take& take);

private:
    void begin_frame();
    void send(AVFrame* frame, const Take& take);

    EncoderContext encoder_;
    Frame frame_;
    Packet packet_;
    /** samples per channel in the frame */
    int filled_ = 0;
    int64_t position_ = 0;
};

} // namespace common
