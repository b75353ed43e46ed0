#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace transport_stream {

constexpr size_t packet_bytes = 188;
constexpr uint64_t clock_hz = 27000000;
constexpr uint16_t null_pid = 0x1fff;

/** One packet's header, adaptation field and payload (ISO/IEC 13818-1, 2.4.3.2 to 2.4.3.5). */
struct Packet {
    /** 188 */
    std::span<const uint8_t> bytes;
    /** 30-bit arrival time stamp, of 192-byte packets */
    std::optional<uint32_t> arrival;
    bool sync = false;
    /** fields fit into the packet and have no forbidden value */
    bool well_formed = false;
    bool transport_error = false;
    bool unit_start = false;
    bool scrambled = false;
    bool discontinuity = false;
    bool random_access = false;
    uint16_t pid = 0;
    uint8_t continuity = 0;
    /** 27 MHz */
    std::optional<uint64_t> pcr;
    std::span<const uint8_t> payload;
};

/** Every whole packet of a stream, whose packets have 188 or 192 bytes. */
std::vector<Packet> split_packets(std::span<const uint8_t> stream, size_t packet_size);
/** 188 or 192, whichever puts sync bytes in their places; 188 when neither does. */
size_t guess_packet_size(std::span<const uint8_t> stream);

} // namespace transport_stream
