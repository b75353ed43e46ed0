#include "multiplexer/packets.h"

#include "statistics/counters.h"

#include <algorithm>
#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/ts.h>
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

namespace {

void set_pcr(uint8_t* packet, uint64_t time_27mhz)
{
    tsaf_set_pcr(packet, time_27mhz / 300);
    tsaf_set_pcrext(packet, static_cast<uint16_t>(time_27mhz % 300));
}

} // namespace

PesPacket::PesPacket(uint8_t stream_id, int64_t pts, std::span<const uint8_t> data) : data_(data)
{
    // Pictures too long for the field leave it open, which is for pictures alone (2.4.3.7).
    const size_t behind_length = pes_header_bytes - PES_HEADER_SIZE + data.size();
    uint8_t* const header = header_.data();
    pes_init(header);
    pes_set_streamid(header, stream_id);
    pes_set_length(header, behind_length <= UINT16_MAX ? static_cast<uint16_t>(behind_length)
                                                       : uint16_t{0});
    pes_set_headerlength(header, PES_HEADER_TS_SIZE);
    pes_set_dataalignment(header);
    pes_set_pts(header, static_cast<uint64_t>(pts));
}

void PesPacket::read(uint8_t* dst, size_t size)
{
    if (position_ < header_.size()) {
        const size_t part = std::min(size, header_.size() - position_);
        std::memcpy(dst, header_.data() + position_, part);
        position_ += part;
        dst += part;
        size -= part;
    }
    if (size == 0)
        return;
    std::memcpy(dst, data_.data() + (position_ - header_.size()), size);
    position_ += size;
}

uint8_t* PacketWriter::begin()
{
    return ring_.append(clock_.now());
}

void PacketWriter::write_null()
{
    ts_pad(begin());
    clock_.packet_sent();
}

void PacketWriter::write_table(const TablePacket& table, uint8_t& continuity)
{
    uint8_t* const packet = begin();
    std::memcpy(packet, table.data(), table.size());
    continuity = (continuity + 1) & 0xf;
    ts_set_cc(packet, continuity);
    clock_.packet_sent();
}

void PacketWriter::write_pcr(const PacketStream& stream)
{
    uint8_t* const packet = begin();
    ts_init(packet);
    ts_set_pid(packet, stream.pid);
    // no payload: the counter does not advance (2.4.3.3)
    ts_set_cc(packet, stream.continuity);
    ts_set_adaptation(packet, ts_payload_bytes - 1);
    set_pcr(packet, clock_.now());
    clock_.packet_sent();
}

void PacketWriter::write_pes(PesPacket& pes, PacketStream& stream, Marks marks)
{
    uint8_t* const packet = begin();
    ts_init(packet);
    ts_set_pid(packet, stream.pid);
    stream.continuity = (stream.continuity + 1) & 0xf;
    ts_set_cc(packet, stream.continuity);
    ts_set_payload(packet);
    if (pes.at_start())
        ts_set_unitstart(packet);
    // with its length byte
    size_t adaptation = marks.pcr ? 8 : marks.random_access ? 2 : 0;
    const size_t taken = std::min(pes.left(), ts_payload_bytes - adaptation);
    adaptation = ts_payload_bytes - taken;
    if (adaptation != 0)
        ts_set_adaptation(packet, static_cast<uint8_t>(adaptation - 1));
    if (marks.random_access)
        tsaf_set_randomaccess(packet);
    if (marks.pcr)
        set_pcr(packet, clock_.now());
    pes.read(packet + TS_HEADER_SIZE + adaptation, taken);
    clock_.packet_sent();
}

} // namespace zu3host
