#pragma once

#include "multiplexer/packets.h"

#include <array>
#include <cstdint>
#include <vector>

namespace zu3host {

/** One line of the program map (ISO/IEC 13818-1, 2.4.4.8). */
struct ProgramStream {
    /** table 2-34: 0x1B = H.264, 0x0F = AAC with ADTS */
    uint8_t stream_type;
    uint16_t pid;
};

/** The stream's program association and map, a packet each, with a continuity counter of 0. */
struct ProgramTables {
    TablePacket association;
    TablePacket map;
};

/**
 * Tables of the one program, number 1, of at most eight streams; version 0, since they never
 * change.
 */
ProgramTables make_program_tables(uint16_t map_pid, uint16_t pcr_pid,
                                  const std::vector<ProgramStream>& streams);

} // namespace zu3host
