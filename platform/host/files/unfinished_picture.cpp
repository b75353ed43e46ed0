#include "files/unfinished_picture.h"

#include <algorithm>
#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/ts.h>
#include <cstring>
#include <new>

namespace zu3host {

namespace {

/**
 * More than any encoded picture with its packet headers; longer data is not a picture.
 */
constexpr size_t greatest_picture = 4 << 20;

/**
 * Bytes per packet, 188 or 192, in a piece of a transport stream; 0 if it does not consist of whole
 * packets.
 */
size_t packet_bytes_of(const uint8_t* data, size_t size)
{
    // with its arrival time
    constexpr size_t plain = TS_SIZE, stamped = plain + 4;
    for (const size_t packet : {plain, stamped})
        if (size >= packet && size % packet == 0 && ts_validate(data + packet - plain) &&
            ts_validate(data + size - plain))
            return packet;
    return 0;
}

/** Bytes of a packet's payload. */
size_t payload_of(const uint8_t* packet)
{
    const size_t adaptation = ts_has_adaptation(packet) ? size_t{1} + ts_get_adaptation(packet) : 0;
    const size_t room = TS_SIZE - TS_HEADER_SIZE;
    return ts_has_payload(packet) && adaptation < room ? room - adaptation : 0;
}

/**
 * Whether a packet is full apart from its marks (none, random access, clock reference): a picture
 * of unknown length continues after it, or ends there by chance, as one in 61 does.
 */
bool is_filled(size_t payload)
{
    const size_t marks = TS_SIZE - TS_HEADER_SIZE - payload;
    return marks == 0 || marks == 2 || marks == 8;
}

enum class Begins { nothing, sound, picture, random_access };

/** The kind of data that begins with a packet of 188 bytes. */
Begins begins_with(const uint8_t* packet)
{
    if (!ts_get_unitstart(packet) || !ts_has_payload(packet))
        return Begins::nothing;
    const bool adaptation = ts_has_adaptation(packet);
    const size_t payload = TS_HEADER_SIZE + (adaptation ? 1 + ts_get_adaptation(packet) : 0);
    if (payload + PES_HEADER_SIZE > TS_SIZE || !pes_validate(packet + payload))
        return Begins::nothing;
    const uint8_t id = pes_get_streamid(packet + payload);
    if ((id & 0xe0) == PES_STREAM_ID_AUDIO_MPEG)
        return Begins::sound;
    if ((id & 0xf0) != PES_STREAM_ID_VIDEO_MPEG)
        return Begins::nothing;
    const bool random_access =
        adaptation && ts_get_adaptation(packet) > 0 && tsaf_has_randomaccess(packet);
    return random_access ? Begins::random_access : Begins::picture;
}

} // namespace

bool UnfinishedPicture::append(const void* batch, size_t size)
{
    const size_t packet_bytes = packet_bytes_of(static_cast<const uint8_t*>(batch), size);
    if (packet_bytes == 0 || bytes_.size() % packet_bytes != 0)
        return false;
    const size_t before = bytes_.size();
    try {
        bytes_.resize(before + size);
    } catch (const std::bad_alloc&) {
        return false;
    }
    std::memcpy(bytes_.data() + before, batch, size);
    if (skipping_)
        drop_until_random_access(packet_bytes);
    for (size_t at = std::min(before, bytes_.size()); at < bytes_.size(); at += packet_bytes)
        scan_packet(at, packet_bytes);
    if (!any_ || bytes_.size() - whole_ > greatest_picture)
        whole_ = bytes_.size();
    return true;
}

void UnfinishedPicture::scan_packet(size_t packet_at, size_t packet_bytes)
{
    const uint8_t* const packet = bytes_.data() + packet_at + packet_bytes - TS_SIZE;
    const Begins begins = begins_with(packet);
    const bool picture = begins == Begins::picture || begins == Begins::random_access;
    if (picture)
        begin_picture(packet);
    else if (pictures_ && payload_of(packet) > 0 && ts_get_pid(packet) == picture_pid_)
        go_on_with_picture(packet);
    // Frames of sound lie whole between the packets of a picture.
    if (!picture && (begins != Begins::sound || pictures_))
        return;
    if (any_)
        whole_ = packet_at;
    any_ = true;
    pictures_ = pictures_ || picture;
}

void UnfinishedPicture::begin_picture(const uint8_t* packet)
{
    picture_pid_ = ts_get_pid(packet);
    const uint16_t length = pes_get_length(packet + TS_SIZE - payload_of(packet));
    left_ = length != 0 ? std::optional<size_t>(PES_HEADER_SIZE + length) : std::nullopt;
    go_on_with_picture(packet);
}

void UnfinishedPicture::go_on_with_picture(const uint8_t* packet)
{
    const size_t payload = payload_of(packet);
    if (left_)
        left_ = *left_ - std::min(*left_, payload);
    ended_ = left_ ? *left_ == 0 : !is_filled(payload);
}

void UnfinishedPicture::drop_until_random_access(size_t packet_bytes)
{
    size_t at = 0;
    while (at < bytes_.size() &&
           begins_with(bytes_.data() + at + packet_bytes - TS_SIZE) != Begins::random_access)
        at += packet_bytes;
    skipping_ = at == bytes_.size();
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(at));
}

void UnfinishedPicture::remove(size_t bytes)
{
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(bytes));
    whole_ -= std::min(whole_, bytes);
}

void UnfinishedPicture::skip_to_random_access()
{
    bytes_.clear();
    whole_ = 0;
    skipping_ = any_ && pictures_;
}

} // namespace zu3host
