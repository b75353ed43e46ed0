#include "movie/module/av_objects.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

namespace client::movie {
namespace {

/** Bytes written at once, a frame or less. */
constexpr int output_buffer_bytes = 256 << 10;

} // namespace

ByteOutput::ByteOutput(MovieOutput& output, bool seekable) : output_(output)
{
    auto* const buffer = static_cast<uint8_t*>(av_malloc(output_buffer_bytes));
    if (!buffer)
        throw std::bad_alloc();
    io_.reset(avio_alloc_context(buffer, output_buffer_bytes, 1, this, nullptr, &ByteOutput::write,
                                 seekable ? &ByteOutput::seek : nullptr));
    if (io_)
        return;
    av_free(buffer);
    throw std::bad_alloc();
}

int ByteOutput::write(void* self, uint8_t* bytes, int count)
{
    auto& output = *static_cast<ByteOutput*>(self);
    if (output.thrown_)
        return AVERROR_EXTERNAL;
    try {
        output.output_.write(output.at_, {bytes, static_cast<size_t>(count)});
    } catch (...) {
        output.thrown_ = std::current_exception();
        return AVERROR_EXTERNAL;
    }
    output.at_ += static_cast<uint64_t>(count);
    output.end_ = std::max(output.end_, output.at_);
    return count;
}

int64_t ByteOutput::seek(void* self, int64_t offset, int whence)
{
    auto& output = *static_cast<ByteOutput*>(self);
    if (whence == AVSEEK_SIZE)
        return static_cast<int64_t>(output.end_);
    if (whence != SEEK_SET || offset < 0)
        return AVERROR(EINVAL);
    output.at_ = static_cast<uint64_t>(offset);
    return offset;
}

void ByteOutput::rethrow()
{
    if (thrown_)
        std::rethrow_exception(std::exchange(thrown_, nullptr));
}

} // namespace client::movie
