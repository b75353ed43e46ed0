#include "transport_stream/packet.h"

namespace transport_stream {

namespace {

constexpr uint8_t sync_byte = 0x47;

uint64_t read_pcr(const uint8_t* field)
{
    uint64_t base = 0;
    for (int i = 0; i < 4; ++i)
        base = base << 8 | field[i];
    base = base << 1 | field[4] >> 7;
    const uint64_t extension = (field[4] & 1u) << 8 | field[5];
    return base * 300 + extension;
}

/** @return false when the field does not fit */
bool read_adaptation(Packet& packet, size_t& at)
{
    const size_t length = packet.bytes[at];
    if (at + 1 + length > packet_bytes)
        return false;
    if (length > 0) {
        const uint8_t flags = packet.bytes[at + 1];
        packet.discontinuity = flags & 0x80;
        packet.random_access = flags & 0x40;
        const bool has_pcr = flags & 0x10;
        if (has_pcr && length < 7)
            return false;
        if (has_pcr)
            packet.pcr = read_pcr(&packet.bytes[at + 2]);
    }
    at += 1 + length;
    return true;
}

Packet read_packet(std::span<const uint8_t> bytes)
{
    Packet packet;
    packet.bytes = bytes;
    packet.sync = bytes[0] == sync_byte;
    if (!packet.sync)
        return packet;
    packet.transport_error = bytes[1] & 0x80;
    packet.unit_start = bytes[1] & 0x40;
    packet.pid = static_cast<uint16_t>((bytes[1] & 0x1f) << 8 | bytes[2]);
    packet.scrambled = bytes[3] & 0xc0;
    packet.continuity = bytes[3] & 0x0f;
    const bool has_adaptation = bytes[3] & 0x20;
    const bool has_payload = bytes[3] & 0x10;
    size_t at = 4;
    if ((!has_adaptation && !has_payload) || (has_adaptation && !read_adaptation(packet, at)))
        return packet;
    packet.well_formed = has_payload ? at < packet_bytes : at == packet_bytes;
    if (has_payload && packet.well_formed)
        packet.payload = bytes.subspan(at);
    return packet;
}

} // namespace

std::vector<Packet> split_packets(std::span<const uint8_t> stream, size_t packet_size)
{
    std::vector<Packet> packets;
    packets.reserve(stream.size() / packet_size);
    for (size_t at = 0; at + packet_size <= stream.size(); at += packet_size) {
        const auto whole = stream.subspan(at, packet_size);
        packets.push_back(read_packet(whole.last(packet_bytes)));
        if (packet_size == packet_bytes)
            continue;
        const uint32_t extra = uint32_t{whole[0]} << 24 | uint32_t{whole[1]} << 16 |
                               uint32_t{whole[2]} << 8 | whole[3];
        packets.back().arrival = extra & 0x3fffffff;
    }
    return packets;
}

size_t guess_packet_size(std::span<const uint8_t> stream)
{
    const auto fits = [&](size_t first, size_t step) {
        size_t hits = 0;
        size_t places = 0;
        for (size_t at = first; at < stream.size() && places < 64; at += step, ++places)
            hits += stream[at] == sync_byte;
        return places != 0 && hits * 2 > places;
    };
    return !fits(0, 188) && fits(4, 192) ? 192 : 188;
}

} // namespace transport_stream
