#pragma once

#include "transport_stream/findings.h"
#include "transport_stream/packet.h"

#include <cstdint>
#include <vector>

namespace transport_stream {

/** The stream's clock as its program clock references tell it (ISO/IEC 13818-1, 2.4.2.2). */
class StreamTime {
public:
    StreamTime(const std::vector<Packet>& packets, uint16_t pcr_pid);

    bool known() const { return references_.size() >= 2; }
    size_t references() const { return references_.size(); }
    /**
     * 27 MHz, unwrapped; between references by the packets' number; it stands still outside them.
     */
    int64_t at(size_t packet) const;
    /** From the first reference to the last, bits per second of the 188-byte packets. */
    double rate() const;
    int64_t first() const { return references_.front().time; }
    int64_t greatest_interval() const;

    /** Intervals and jumps. @param constant_rate demands 40 ms instead of 100 ms */
    void check_intervals(bool constant_rate, Findings& findings) const;
    /** Whether each reference is within 500 ns of its place at an even rate. */
    void check_accuracy(Findings& findings) const;

private:
    struct Reference {
        size_t packet;
        int64_t time;
        bool discontinuity;
    };
    std::vector<Reference> references_;
};

} // namespace transport_stream
