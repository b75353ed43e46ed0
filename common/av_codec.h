#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace common {

/** Throws the text of libavutil if `result` is an error; otherwise returns it. */
int checked(int result);

struct FreeEncoder {
    void operator()(AVCodecContext* encoder) const { avcodec_free_context(&encoder); }
};
struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FreeFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using EncoderContext = std::unique_ptr<AVCodecContext, FreeEncoder>;
using Packet = std::unique_ptr<AVPacket, FreePacket>;
using Frame = std::unique_ptr<AVFrame, FreeFrame>;

/** Each throws std::bad_alloc instead of returning null. */
Packet make_packet();
Frame make_frame();

} // namespace common
