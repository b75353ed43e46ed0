#pragma once

#include <functional>
#include <span>

#include "movie/module/av_objects.h"

namespace client::movie {

/** AAC (ISO/IEC 14496-3, Low Complexity) from samples of any number at once. */
class SoundEncoder {
public:
    using Take = std::function<void(AVPacket&)>;

    SoundEncoder();

    /** The encoder's parameters, as a muxer wants them. */
    const AVCodecContext& context() const { return *encoder_; }
    /**
     * Hands each packet that is complete to `take`; its time is in samples and negative for the
     * encoder's own delay.
     */
    void put(std::span<const int16_t> samples, const Take& take);
    /** Encodes what is left; nothing may follow. */
    void finish(const Take& take);

private:
    void begin_frame();
    void send(AVFrame* frame, const Take& take);

    EncoderContext encoder_;
    Frame frame_;
    Packet packet_;
    /** samples of each channel in the frame */
    int filled_ = 0;
    int64_t position_ = 0;
};

} // namespace client::movie
