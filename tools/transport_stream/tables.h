#pragma once

#include "transport_stream/findings.h"
#include "transport_stream/packet.h"

#include <map>
#include <optional>

namespace transport_stream {

/** The tables of a stream of one program (ISO/IEC 13818-1, 2.4.4). */
struct Program {
    std::optional<uint16_t> map_pid;
    std::optional<uint16_t> pcr_pid;
    /** stream_type by PID */
    std::map<uint16_t, uint8_t> streams;
    /** packets in which a good association table ended */
    std::vector<size_t> associations;
    /** packets in which a good program map ended */
    std::vector<size_t> maps;
};

/** Reads all tables and judges their syntax, checksums and contradictions. */
Program read_tables(const std::vector<Packet>& packets, Findings& findings);

} // namespace transport_stream
