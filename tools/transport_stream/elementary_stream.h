#pragma once

#include "transport_stream/findings.h"
#include "transport_stream/packet.h"
#include "transport_stream/stream_time.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace transport_stream {

constexpr uint8_t type_h264 = 0x1b;
constexpr uint8_t type_adts = 0x0f;

struct StreamSummary {
    uint16_t pid = 0;
    uint8_t type = 0;
    size_t packets = 0;
    size_t access_units = 0;
    size_t random_access_units = 0;
    /** elementary stream */
    uint64_t payload_bytes = 0;
    /** 90 kHz, unwrapped */
    std::optional<int64_t> first_pts;
    std::optional<int64_t> last_pts;
    /** the last PES packet is not whole */
    bool cut = false;
};

/**
 * The PES packets of one PID: their syntax (ISO/IEC 13818-1, 2.4.3.6), times, and that each holds
 * whole access units of H.264 (2.14.1) or ADTS frames.
 */
class ElementaryStream {
public:
    /**
     * @param time may be null
     * @param from_start whether the stream must begin with a picture that can be decoded alone
     */
    ElementaryStream(uint16_t pid, uint8_t type, const StreamTime* time, bool from_start,
                     Findings& findings);

    void add(const Packet& packet, size_t index);
    /** No more packets come. */
    void finish();
    const StreamSummary& summary() const { return summary_; }
    /** The elementary stream's bytes, for tests. */
    const std::vector<uint8_t>& bytes() const { return bytes_; }
    void keep_bytes() { keep_bytes_ = true; }

private:
    void find(const char* kind, std::string what);
    void end_pes();
    void read_pes(std::span<const uint8_t> payload);
    void check_pts(int64_t pts);
    void check_pictures(std::span<const uint8_t> unit);
    void check_sound(std::span<const uint8_t> unit, int64_t pts);

    uint16_t pid_;
    uint8_t type_;
    const StreamTime* time_;
    bool from_start_;
    Findings& findings_;
    StreamSummary summary_;
    std::vector<uint8_t> pes_;
    bool open_ = false;
    bool finishing_ = false;
    bool random_access_ = false;
    size_t first_packet_ = 0;
    size_t last_packet_ = 0;
    std::optional<int64_t> next_sound_pts_;
    std::vector<uint8_t> bytes_;
    bool keep_bytes_ = false;
};

} // namespace transport_stream
