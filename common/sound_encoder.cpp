#include "common/sound_encoder.h"

#include <new>
#include <stdexcept>

extern "C" {
#include <libavutil/opt.h>
}

namespace common {
namespace {

constexpr int64_t sound_bits_per_second = 128'000;

EncoderContext open_encoder()
{
    const AVCodec* const codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!codec)
        throw std::runtime_error("this libavcodec has no AAC encoder");
    EncoderContext encoder(avcodec_alloc_context3(codec));
    if (!encoder)
        throw std::bad_alloc();
    // Messages of this encoder alone: the level of libavutil belongs to the program.
    encoder->log_level_offset = AV_LOG_TRACE;
    encoder->sample_rate = SoundEncoder::rate;
    encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder->time_base = {1, SoundEncoder::rate};
    encoder->bit_rate = sound_bits_per_second;
    encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    encoder->thread_count = 1;
    av_channel_layout_default(&encoder->ch_layout, SoundEncoder::channels);
    av_opt_set(encoder->priv_data, "aac_coder", "fast", 0);
    checked(avcodec_open2(encoder.get(), codec, nullptr));
    return encoder;
}

} // namespace

SoundEncoder::SoundEncoder()
    : encoder_(open_encoder()), frame_(make_frame()), packet_(make_packet())
{
    begin_frame();
}

// The encoder may keep a reference to the samples, so each frame has separate memory.
void SoundEncoder::begin_frame()
{
    av_frame_unref(frame_.get());
    frame_->format = encoder_->sample_fmt;
    frame_->sample_rate = encoder_->sample_rate;
    frame_->nb_samples = encoder_->frame_size;
    checked(av_channel_layout_copy(&frame_->ch_layout, &encoder_->ch_layout));
    checked(av_frame_get_buffer(frame_.get(), 0));
    frame_->pts = position_;
    filled_ = 0;
}

void SoundEncoder::put(std::span<const int16_t> samples, const Take& take)
{
    for (size_t at = 0; at + channels <= samples.size(); at += channels) {
        for (size_t channel = 0; channel < channels; ++channel)
            reinterpret_cast<float*>(frame_->data[channel])[filled_] =
                static_cast<float>(samples[at + channel]) / 32768;
        if (++filled_ == encoder_->frame_size)
            send(frame_.get(), take);
    }
}

void SoundEncoder::finish(const Take& take)
{
    frame_->nb_samples = filled_;
    if (filled_ > 0)
        send(frame_.get(), take);
    send(nullptr, take);
}

void SoundEncoder::send(AVFrame* frame, const Take& take)
{
    checked(avcodec_send_frame(encoder_.get(), frame));
    while (true) {
        const int result = avcodec_receive_packet(encoder_.get(), packet_.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            break;
        checked(result);
        take(*packet_);
        av_packet_unref(packet_.get());
    }
    position_ += filled_;
    if (frame)
        begin_frame();
}

} // namespace common
