#include "multiplexer/packet_ring.h"

#include "statistics/counters.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace zu3host {

PacketRing::PacketRing(std::span<uint8_t> memory, size_t packet_bytes)
    : memory_(memory.data()), packet_bytes_(packet_bytes), capacity_(memory.size() / packet_bytes)
{
}

uint8_t* PacketRing::append(uint64_t arrival_27mhz)
{
    assert(used_ < capacity_);
    uint8_t* packet = memory_ + (first_ + used_) % capacity_ * packet_bytes_;
    ++used_;
    count(counters().bytes_multiplexed, packet_bytes_);
    if (packet_bytes_ == ts_packet_bytes)
        return packet;
    // copy_permission_indicator 0 (free), then a 30-bit arrival time stamp.
    const uint32_t extra = static_cast<uint32_t>(arrival_27mhz) & 0x3fffffffu;
    for (int shift = 24; shift >= 0; shift -= 8)
        *packet++ = static_cast<uint8_t>(extra >> shift);
    return packet;
}

size_t PacketRing::copy_out(uint8_t* dst, size_t max_bytes)
{
    const size_t wanted = std::min(max_bytes / packet_bytes_, used_);
    const size_t straight = std::min(wanted, capacity_ - first_);
    if (wanted == 0)
        return 0;
    std::memcpy(dst, memory_ + first_ * packet_bytes_, straight * packet_bytes_);
    std::memcpy(dst + straight * packet_bytes_, memory_, (wanted - straight) * packet_bytes_);
    used_ -= wanted;
    // An empty ring begins anew: a stream that is read in time stays in the few pages that it fills
    // each time.
    first_ = used_ == 0 ? 0 : (first_ + wanted) % capacity_;
    return wanted * packet_bytes_;
}

} // namespace zu3host
