#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace client::movie {

/** Throws the text of libavutil if `result` is an error; otherwise returns it. */
int checked(int result);

struct FreeContext {
    void operator()(AVFormatContext* context) const { avformat_free_context(context); }
};
struct CloseInput {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct FreeEncoder {
    void operator()(AVCodecContext* encoder) const { avcodec_free_context(&encoder); }
};
struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FreeFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct FreeIo {
    void operator()(AVIOContext* io) const
    {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
};
using OutputContext = std::unique_ptr<AVFormatContext, FreeContext>;
using InputContext = std::unique_ptr<AVFormatContext, CloseInput>;
using EncoderContext = std::unique_ptr<AVCodecContext, FreeEncoder>;
using Packet = std::unique_ptr<AVPacket, FreePacket>;
using Frame = std::unique_ptr<AVFrame, FreeFrame>;
using Io = std::unique_ptr<AVIOContext, FreeIo>;

/** Each throws std::bad_alloc instead of returning null. */
Packet make_packet();
Frame make_frame();

} // namespace client::movie
