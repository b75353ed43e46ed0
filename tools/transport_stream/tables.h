#pragma once

#include "transport_stream/findings.h"
#include "transport_stream/packet.h"

#include <map>
#include <optional>

namespace transport_stream {

/** What the tables of a stream of one program say (ISO/IEC 13818-1, 2.4.4). */
struct Program {
    std::optional<uint16_t> map_pid;
    std::optional<uint16_t> pcr_pid;
    std::map<uint16_t, uint8_t> streams; /**< stream_type by PID */
    std::vector<size_t> associations;    /**< packets in which a good association table ended */
    std::vector<size_t> maps;            /**< packets in which a good program map ended */
};

/** Reads all tables and judges their syntax, checksums and contradictions. */
Program read_tables(const std::vector<Packet>& packets, Findings& findings);

} // namespace transport_stream
