#include "multiplexer/program_tables.h"

#include <bitstream/mpeg/psi.h>
#include <cstring>

namespace zu3host {

namespace {

constexpr uint16_t transport_stream_id = 1;
constexpr uint16_t program_number = 1;

using Section = std::array<uint8_t, ts_packet_bytes - TS_HEADER_SIZE - 1>;

void finish_section(uint8_t* section)
{
    psi_set_version(section, 0);
    psi_set_current(section);
    psi_set_section(section, 0);
    psi_set_lastsection(section, 0);
    psi_set_crc(section);
}

Section association_section(uint16_t map_pid)
{
    Section section{};
    pat_init(section.data());
    pat_set_length(section.data(), PAT_PROGRAM_SIZE);
    pat_set_tsid(section.data(), transport_stream_id);
    uint8_t* const program = section.data() + PAT_HEADER_SIZE;
    patn_init(program);
    patn_set_program(program, program_number);
    patn_set_pid(program, map_pid);
    finish_section(section.data());
    return section;
}

Section map_section(uint16_t pcr_pid, const std::vector<ProgramStream>& streams)
{
    Section section{};
    pmt_init(section.data());
    pmt_set_length(section.data(), static_cast<uint16_t>(PMT_ES_SIZE * streams.size()));
    pmt_set_program(section.data(), program_number);
    pmt_set_pcrpid(section.data(), pcr_pid);
    pmt_set_desclength(section.data(), 0);
    uint8_t* entry = section.data() + PMT_HEADER_SIZE;
    for (const ProgramStream& stream : streams) {
        pmtn_init(entry);
        pmtn_set_streamtype(entry, stream.stream_type);
        pmtn_set_pid(entry, stream.pid);
        pmtn_set_desclength(entry, 0);
        entry += PMT_ES_SIZE;
    }
    finish_section(section.data());
    return section;
}

TablePacket packet_of(const Section& section, uint16_t pid)
{
    TablePacket packet;
    packet.fill(0xff);
    ts_init(packet.data());
    ts_set_pid(packet.data(), pid);
    ts_set_unitstart(packet.data());
    ts_set_payload(packet.data());
    // pointer_field
    packet[TS_HEADER_SIZE] = 0;
    const size_t bytes = psi_get_length(section.data()) + size_t{PSI_HEADER_SIZE};
    std::memcpy(packet.data() + TS_HEADER_SIZE + 1, section.data(), bytes);
    return packet;
}

} // namespace

ProgramTables make_program_tables(uint16_t map_pid, uint16_t pcr_pid,
                                  const std::vector<ProgramStream>& streams)
{
    return {packet_of(association_section(map_pid), PAT_PID),
            packet_of(map_section(pcr_pid, streams), map_pid)};
}

} // namespace zu3host
