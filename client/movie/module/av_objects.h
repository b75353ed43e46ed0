#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "movie/movie_module.h"

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

/** Adapter for libavformat to write to a MovieOutput. */
class ByteOutput {
public:
    ByteOutput(MovieOutput& output, bool seekable);
    ByteOutput(const ByteOutput&) = delete;
    ByteOutput& operator=(const ByteOutput&) = delete;

    AVIOContext* io() const { return io_.get(); }
    /** Rethrows an exception of the output, which cannot pass through C. */
    void rethrow();

private:
    static int write(void* self, uint8_t* bytes, int count);
    static int64_t seek(void* self, int64_t offset, int whence);

    MovieOutput& output_;
    Io io_;
    uint64_t at_ = 0;
    uint64_t end_ = 0;
    std::exception_ptr thrown_;
};

} // namespace client::movie
