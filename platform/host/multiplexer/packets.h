#pragma once

#include "multiplexer/stream_clock.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace zu3host {

/**
 * The multiplexed stream between the multiplexer and its reader: a ring of whole packets in memory
 * of the caller's. Not thread-safe.
 */
class PacketRing {
public:
    /**
     * @param packet_bytes 188 or 192. The memory must hold at least one packet and outlive the
     * ring.
     */
    PacketRing(std::span<uint8_t> memory, size_t packet_bytes);

    size_t capacity() const { return capacity_; }
    size_t free_packets() const { return capacity_ - used_; }

    /**
     * Adds one packet; free_packets() must not be 0.
     * @param arrival_27mhz the packet's place on the stream's clock, for the extra header of
     *     192-byte packets
     * @return where the 188 bytes go, which the caller fills before the ring is used
     *     again
     */
    uint8_t* append(uint64_t arrival_27mhz);
    /** Moves whole packets out, at most `max_bytes`. @return bytes moved */
    size_t copy_out(uint8_t* dst, size_t max_bytes);

private:
    uint8_t* memory_;
    size_t packet_bytes_;
    /** packets */
    size_t capacity_;
    size_t first_ = 0;
    size_t used_ = 0;
};

using TablePacket = std::array<uint8_t, ts_packet_bytes>;

/** of a packet without an adaptation field */
inline constexpr size_t ts_payload_bytes = 184;
/** with a PTS only */
inline constexpr size_t pes_header_bytes = 14;

/** Whether a stream may have it (2.4.3.3). */
constexpr bool valid_pid(uint16_t pid)
{
    return pid >= 0x10 && pid <= 0x1ffe;
}

/** One elementary stream and its place in the sequence of its packets. */
struct PacketStream {
    uint16_t pid = 0;
    /** of its PES packets */
    uint8_t stream_id = 0;
    uint8_t continuity = 0;
};

/**
 * A PES packet (2.4.3.6) on its way into transport packets: a header made here, then the caller's
 * bytes.
 */
class PesPacket {
public:
    PesPacket(uint8_t stream_id, int64_t pts, std::span<const uint8_t> data);
    size_t left() const { return header_.size() + data_.size() - position_; }
    bool at_start() const { return position_ == 0; }
    void read(uint8_t* dst, size_t size);

private:
    std::array<uint8_t, pes_header_bytes> header_;
    std::span<const uint8_t> data_;
    size_t position_ = 0;
};

/**
 * Writes transport packets straight into the ring and moves the stream's clock by each. Not
 * thread-safe.
 */
class PacketWriter {
public:
    PacketWriter(PacketRing& ring, StreamClock& clock) : ring_(ring), clock_(clock) {}

    size_t free_packets() const { return ring_.free_packets(); }
    void write_null();
    void write_table(const TablePacket& table, uint8_t& continuity);
    /** A packet that carries nothing but the time. */
    void write_pcr(const PacketStream& stream);

    struct Marks {
        bool pcr;
        bool random_access;
    };
    /** The next packet of a PES packet; marks go into its adaptation field. */
    void write_pes(PesPacket& pes, PacketStream& stream, Marks marks);

private:
    uint8_t* begin();

    PacketRing& ring_;
    StreamClock& clock_;
};

} // namespace zu3host
