#pragma once

#include "transport_stream/elementary_stream.h"
#include "transport_stream/findings.h"

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace transport_stream {

struct CheckOptions {
    /** 188 or 192; 0 = found out */
    size_t packet_size = 0;
    /** constant rate that is asked for, bits per second of 188-byte packets; 0 = any */
    uint64_t rate = 0;
    /** a piece out of a stream, which may begin and end anywhere */
    bool live = false;
    /** hand out the elementary streams */
    bool keep_bytes = false;
};

struct Report {
    Findings findings;
    size_t packet_size = 0;
    size_t packets = 0;
    size_t null_packets = 0;
    size_t time_references = 0;
    /** from the first time reference to the last */
    double seconds = 0;
    /** measured over the time references, bits per second */
    double rate = 0;
    /** seconds */
    double first_time = 0;
    /** seconds */
    double greatest_time_interval = 0;
    std::vector<StreamSummary> streams;
    /** elementary streams by PID, when kept */
    std::map<uint16_t, std::vector<uint8_t>> bytes;

    bool good() const { return findings.empty(); }
    bool has(const std::string& kind) const;
};

/**
 * Checks a transport stream of one program against ISO/IEC 13818-1, with the limits of ETSI TR 101
 * 290. Independent of the program that wrote it.
 */
Report check(std::span<const uint8_t> stream, const CheckOptions& options);

} // namespace transport_stream
