#pragma once

#include <memory>

extern "C" {
#include <libavformat/avformat.h>
}

#include "movie/movie_module.h"
#include <common/av_codec.h>

namespace client::movie {

using common::checked;
using common::make_packet;
using common::Packet;

struct FreeContext {
    void operator()(AVFormatContext* context) const { avformat_free_context(context); }
};
struct CloseInput {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
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
using Io = std::unique_ptr<AVIOContext, FreeIo>;

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
