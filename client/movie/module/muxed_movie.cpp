#include "movie/module/muxed_movie.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

extern "C" {
#include <libavutil/opt.h>
}

namespace client::movie {
namespace {

constexpr std::array<uint8_t, 3> start_code{0, 0, 1};
constexpr int type_sps = 7, type_pps = 8, type_delimiter = 9;

/**
 * The sequence and picture parameter sets of an access unit, each with its start code (ISO/IEC
 * 14496-10, 7.4.1 and Annex B).
 */
std::vector<uint8_t> parameter_sets(std::span<const uint8_t> access_unit)
{
    std::vector<uint8_t> sets;
    const auto next_code = [&access_unit](auto from) {
        return std::search(from, access_unit.end(), start_code.begin(), start_code.end());
    };
    for (auto at = next_code(access_unit.begin()); at != access_unit.end();) {
        const auto unit = at + start_code.size();
        at = next_code(unit);
        const int type = unit == access_unit.end() ? 0 : *unit & 31;
        if (type != type_sps && type != type_pps)
            continue;
        sets.push_back(0);
        sets.insert(sets.end(), start_code.begin(), start_code.end());
        // a zero before the next start code belongs to that code
        auto end = at;
        while (end > unit && end[-1] == 0)
            --end;
        sets.insert(sets.end(), unit, end);
    }
    return sets;
}

/**
 * Without the delimiter at its beginning, which MP4 and Matroska do not need (ISO/IEC 14496-15): a
 * third of an access unit that repeats the last picture.
 */
std::span<const uint8_t> without_delimiter(std::span<const uint8_t> access_unit)
{
    constexpr std::array<uint8_t, 5> delimiter{0, 0, 0, 1, type_delimiter};
    constexpr size_t bytes = delimiter.size() + 1;
    const bool has_one = access_unit.size() > bytes &&
                         std::equal(delimiter.begin(), delimiter.end(), access_unit.begin());
    return access_unit.subspan(has_one ? bytes : 0);
}

// Microseconds by which sound may be behind the frames that wait for it.
constexpr int64_t patience_with_sound = 1'000'000;

OutputContext make_context(const MovieFormat& format, AVIOContext* io)
{
    AVFormatContext* context = nullptr;
    checked(
        avformat_alloc_output_context2(&context, nullptr, muxer_name(format.container), nullptr));
    OutputContext made(context);
    context->pb = io;
    context->flags |= AVFMT_FLAG_CUSTOM_IO;
    context->flush_packets = 0;
    context->max_interleave_delta = patience_with_sound;
    return made;
}

void set_colours(AVCodecParameters& parameters)
{
    parameters.color_range = AVCOL_RANGE_MPEG;
    parameters.color_primaries = AVCOL_PRI_SMPTE170M;
    parameters.color_trc = AVCOL_TRC_SMPTE170M;
    parameters.color_space = AVCOL_SPC_SMPTE170M;
    parameters.chroma_location = AVCHROMA_LOC_LEFT;
}

// A kill loses the current piece and the data in transit, less than a second in all. The first
// pieces are shorter, so that a recording plays even if it is killed early.
constexpr int64_t piece_ms = 500, first_piece_ms = 100, first_pieces_end_ms = 500;

// delay_moov writes the header with the first fragment, when the delay of the sound is known.
AVDictionary* muxer_options(Container container)
{
    AVDictionary* options = nullptr;
    if (container == Container::mp4) {
        av_dict_set(&options, "movflags",
                    "+frag_keyframe+empty_moov+delay_moov+default_base_moof+write_colr", 0);
    }
    return options;
}

/** Sets the greatest length of the pieces from here on. */
void set_piece(AVFormatContext& context, Container container, int64_t milliseconds)
{
    if (container == Container::mp4)
        checked(av_opt_set_int(context.priv_data, "frag_duration", 1000 * milliseconds, 0));
    else if (container == Container::matroska)
        checked(av_opt_set_int(context.priv_data, "cluster_time_limit", milliseconds, 0));
}

} // namespace

const char* muxer_name(Container container)
{
    switch (container) {
    case Container::mp4:
        return "mp4";
    case Container::matroska:
        return "matroska";
    case Container::transport_stream:
        return "mpegts";
    }
    return nullptr;
}

MuxedMovie::MuxedMovie(const MovieFormat& format, MovieOutput& output)
    : format_(format), output_(output, format.seekable),
      context_(make_context(format, output_.io())), packet_(make_packet())
{
    if (format.sound)
        encoder_.emplace();
}

void MuxedMovie::add_video(std::span<const uint8_t> first_frame)
{
    const std::vector<uint8_t> sets = parameter_sets(first_frame);
    if (sets.empty())
        throw std::runtime_error("the first frame has no parameter sets");
    video_ = avformat_new_stream(context_.get(), nullptr);
    if (!video_)
        throw std::bad_alloc();
    AVCodecParameters& parameters = *video_->codecpar;
    parameters.codec_type = AVMEDIA_TYPE_VIDEO;
    parameters.codec_id = AV_CODEC_ID_H264;
    parameters.width = static_cast<int>(format_.width);
    parameters.height = static_cast<int>(format_.height);
    parameters.format = AV_PIX_FMT_YUV420P;
    set_colours(parameters);
    parameters.extradata =
        static_cast<uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!parameters.extradata)
        throw std::bad_alloc();
    std::memcpy(parameters.extradata, sets.data(), sets.size());
    parameters.extradata_size = static_cast<int>(sets.size());
    video_->time_base = {1, static_cast<int>(format_.fps)};
    video_->avg_frame_rate = video_->r_frame_rate = {static_cast<int>(format_.fps), 1};
}

void MuxedMovie::add_sound()
{
    sound_ = avformat_new_stream(context_.get(), nullptr);
    if (!sound_)
        throw std::bad_alloc();
    checked(avcodec_parameters_from_context(sound_->codecpar, &encoder_->context()));
    if (format_.container != Container::mp4)
        sound_->codecpar->initial_padding = 0;
    sound_->time_base = {1, sound_rate};
}

void MuxedMovie::begin(std::span<const uint8_t> first_frame)
{
    add_video(first_frame);
    if (encoder_)
        add_sound();
    AVDictionary* options = muxer_options(format_.container);
    const int result = avformat_write_header(context_.get(), &options);
    av_dict_free(&options);
    output_.rethrow();
    checked(result);
    begun_ = true;
    header_end_ = avio_tell(output_.io());
    set_piece(*context_, format_.container, first_piece_ms);
}

void MuxedMovie::write(AVPacket& packet, const AVStream& stream, AVRational time_base)
{
    packet.stream_index = stream.index;
    av_packet_rescale_ts(&packet, time_base, stream.time_base);
    const int result = av_interleaved_write_frame(context_.get(), &packet);
    pass_on_pieces();
    output_.rethrow();
    checked(result);
}

// The header waits for the first piece: alone it does not play.
void MuxedMovie::pass_on_pieces()
{
    if (context_->flush_packets != 0 || avio_tell(output_.io()) == header_end_)
        return;
    context_->flush_packets = 1;
    avio_flush(output_.io());
}

void MuxedMovie::put_frame(std::span<const uint8_t> frame, int64_t index, bool key)
{
    if (!begun_)
        begin(frame);
    if (!first_pieces_over_ && index * 1000 >= first_pieces_end_ms * format_.fps) {
        first_pieces_over_ = true;
        set_piece(*context_, format_.container, piece_ms);
    }
    if (format_.container != Container::transport_stream)
        frame = without_delimiter(frame);
    av_packet_unref(packet_.get());
    // read only: libavformat copies a packet that does not own its bytes
    packet_->data = const_cast<uint8_t*>(frame.data());
    packet_->size = static_cast<int>(frame.size());
    packet_->pts = packet_->dts = index;
    packet_->duration = 1;
    packet_->flags = key ? AV_PKT_FLAG_KEY : 0;
    write(*packet_, *video_, {1, static_cast<int>(format_.fps)});
}

// MP4 has an edit list for the encoder's delay. MPEG-TS has no means for it, and libavformat 59
// writes Matroska's CodecDelay for Opus alone. There the packet that contains only this delay is
// left out, so that times begin at 0; a decoder then fades in the first 21 ms.
void MuxedMovie::write_sound(AVPacket& packet)
{
    if (packet.pts < 0 && format_.container != Container::mp4)
        return;
    write(packet, *sound_, {1, sound_rate});
}

void MuxedMovie::put_sound(std::span<const int16_t> samples)
{
    encoder_->put(samples, [this](AVPacket& packet) { write_sound(packet); });
}

void MuxedMovie::finish()
{
    if (!begun_)
        return;
    if (encoder_)
        encoder_->finish([this](AVPacket& packet) { write_sound(packet); });
    const int result = av_write_trailer(context_.get());
    avio_flush(output_.io());
    output_.rethrow();
    checked(result);
}

} // namespace client::movie
