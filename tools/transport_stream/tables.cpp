#include "transport_stream/tables.h"

#include <functional>

namespace transport_stream {

namespace {

using Section = std::vector<uint8_t>;
using SectionHandler = std::function<void(const Section&, size_t packet)>;

/** The decoder of annex A: zero over a whole section that is undamaged. */
uint32_t crc32(std::span<const uint8_t> bytes)
{
    uint32_t crc = 0xffffffff;
    for (const uint8_t byte : bytes) {
        for (int bit = 7; bit >= 0; --bit) {
            const bool feedback = (crc >> 31) ^ ((byte >> bit) & 1u);
            crc = crc << 1 ^ (feedback ? 0x04c11db7u : 0u);
        }
    }
    return crc;
}

/** Puts the sections of one PID together out of its packets. */
class SectionReader {
public:
    explicit SectionReader(SectionHandler handler) : handler_(std::move(handler)) {}

    void add(const Packet& packet, size_t index)
    {
        auto payload = packet.payload;
        if (packet.unit_start && !payload.empty()) {
            const size_t pointer = payload[0];
            payload = payload.subspan(1);
            if (pointer > payload.size())
                return;
            append(payload.first(pointer), index);
            section_.clear();
            collecting_ = true;
            payload = payload.subspan(pointer);
        }
        append(payload, index);
    }

private:
    void append(std::span<const uint8_t> bytes, size_t index)
    {
        for (const uint8_t byte : bytes) {
            if (!collecting_ || (section_.empty() && byte == 0xff))
                return;
            section_.push_back(byte);
            if (section_.size() >= 3 && section_.size() == 3 + length()) {
                handler_(section_, index);
                section_.clear();
            }
        }
    }
    size_t length() const { return (section_[1] & 0x0fu) << 8 | section_[2]; }

    SectionHandler handler_;
    Section section_;
    bool collecting_ = false;
};

class TableReader {
public:
    explicit TableReader(Findings& findings) : findings_(findings) {}

    Program read(const std::vector<Packet>& packets)
    {
        SectionReader associations([this](const Section& s, size_t i) { read_association(s, i); });
        SectionReader maps([this](const Section& s, size_t i) { read_map(s, i); });
        for (size_t i = 0; i < packets.size(); ++i) {
            const Packet& packet = packets[i];
            if (!packet.well_formed || packet.transport_error)
                continue;
            if (packet.pid == 0)
                associations.add(packet, i);
            else if (program_.map_pid && packet.pid == *program_.map_pid)
                maps.add(packet, i);
        }
        return program_;
    }

private:
    void find(const char* kind, size_t packet, std::string what)
    {
        findings_.push_back({kind, packet, std::move(what)});
    }

    bool sound(const Section& section, uint8_t table_id, size_t least, size_t index)
    {
        const char* const name = table_id == 0 ? "association table" : "program map";
        if (section.size() < least || !(section[1] & 0x80) || (section[1] & 0x40)) {
            find("section", index, std::string(name) + " is malformed");
            return false;
        }
        if (crc32(section) != 0) {
            find("crc", index, std::string(name) + " has a wrong CRC_32");
            return false;
        }
        if (section[0] != table_id) {
            find("section", index, std::string(name) + " has another table_id");
            return false;
        }
        // current_next_indicator
        return section[5] & 1;
    }

    void read_association(const Section& section, size_t index)
    {
        if (!sound(section, 0, 12, index))
            return;
        program_.associations.push_back(index);
        size_t programs = 0;
        for (size_t at = 8; at + 8 <= section.size(); at += 4) {
            if (section[at] == 0 && section[at + 1] == 0)
                // network PID
                continue;
            const auto pid = static_cast<uint16_t>((section[at + 2] & 0x1f) << 8 | section[at + 3]);
            if (program_.map_pid && *program_.map_pid != pid)
                find("pat", index, "the program map moves to another PID");
            program_.map_pid = pid;
            ++programs;
        }
        if (programs != 1)
            find("pat", index, std::to_string(programs) + " programs instead of one");
    }

    void read_map(const Section& section, size_t index)
    {
        if (!sound(section, 2, 16, index))
            return;
        program_.maps.push_back(index);
        std::map<uint16_t, uint8_t> streams;
        size_t at = 12 + ((section[10] & 0x0fu) << 8 | section[11]);
        while (at + 5 + 4 <= section.size()) {
            const auto pid = static_cast<uint16_t>((section[at + 1] & 0x1f) << 8 | section[at + 2]);
            streams[pid] = section[at];
            at += 5 + ((section[at + 3] & 0x0fu) << 8 | section[at + 4]);
        }
        if (at + 4 != section.size())
            find("section", index, "the program map's loops do not fill it");
        const int version = section[5] >> 1 & 0x1f;
        if (version == map_version_ && streams != program_.streams)
            find("pmt", index, "the program map changes under the same version");
        map_version_ = version;
        program_.streams = std::move(streams);
        program_.pcr_pid = static_cast<uint16_t>((section[8] & 0x1f) << 8 | section[9]);
    }

    Findings& findings_;
    Program program_;
    int map_version_ = -1;
};

} // namespace

Program read_tables(const std::vector<Packet>& packets, Findings& findings)
{
    Program program = TableReader(findings).read(packets);
    if (program.associations.empty())
        findings.push_back({"pat", 0, "there is no association table"});
    if (program.maps.empty())
        findings.push_back({"pmt", 0, "there is no program map"});
    return program;
}

} // namespace transport_stream
