#pragma once

#include <optional>

#include "movie/module/av_objects.h"
#include <common/sound_encoder.h>

namespace client::movie {

/** A movie muxed by libavformat, in MP4 fragments or Matroska clusters of half a second. */
class MuxedMovie final : public MovieWriter {
public:
    MuxedMovie(const MovieFormat& format, MovieOutput& output);

    void put_frame(std::span<const uint8_t> frame, int64_t index, bool key) override;
    void put_sound(std::span<const int16_t> samples) override;
    void finish() override;

private:
    void add_video(std::span<const uint8_t> first_frame);
    void add_sound();
    void begin(std::span<const uint8_t> first_frame);
    void write(AVPacket& packet, const AVStream& stream, AVRational time_base);
    void pass_on_pieces();
    void write_sound(AVPacket& packet);

    const MovieFormat format_;
    ByteOutput output_;
    OutputContext context_;
    std::optional<common::SoundEncoder> encoder_;
    AVStream* video_ = nullptr;
    AVStream* sound_ = nullptr;
    Packet packet_;
    bool begun_ = false;
    int64_t header_end_ = 0;
    bool first_pieces_over_ = false;
};

/** libavformat's name of a container's muxer. */
const char* muxer_name(Container container);

} // namespace client::movie
