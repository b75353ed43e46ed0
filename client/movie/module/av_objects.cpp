#include "movie/module/av_objects.h"

#include <algorithm>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

namespace client::movie {
namespace {

/** Bytes written at once, a frame or less. */
constexpr int output_buffer_bytes = 256 << 10;

} // namespace

int checked(int result)
{
    if (result >= 0)
        return result;
    if (result == AVERROR(ENOMEM))
        throw std::bad_alloc();
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(result, text, sizeof text);
    throw std::runtime_error(text);
}

Packet make_packet()
{
    Packet packet(av_packet_alloc());
    return packet ? std::move(packet) : throw std::bad_alloc();
}

Frame make_frame()
{
    Frame frame(av_frame_alloc());
    return frame ? std::move(frame) : throw std::bad_alloc();
}

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
