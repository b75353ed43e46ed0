#include "common/av_codec.h"

#include <new>
#include <stdexcept>
#include <utility>

namespace common {

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

} // namespace common
