#pragma once

#include "movie/module/av_objects.h"
#include "movie/movie_module.h"

namespace client::movie {

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
