#pragma once

#include <functional>
#include <span>

#include "movie/module/av_objects.h"

namespace client::movie {

/** Encodes samples, in any number at a time, as AAC (ISO/IEC 14496-3, Low Complexity). */
class SoundEncoder {
public:
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

} // namespace client::movie
