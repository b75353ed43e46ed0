#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zu3host {

/** ISO/IEC 13818-1, 2.4.3.2 */
inline constexpr size_t ts_packet_bytes = 188;
/** the same behind a TP_extra_header of 4 bytes */
inline constexpr size_t timed_ts_packet_bytes = 192;

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
     * @return where the 188 bytes go, which the caller fills before anything else is done with the
     *     ring
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

} // namespace zu3host
