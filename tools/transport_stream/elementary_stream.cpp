#include "transport_stream/elementary_stream.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace transport_stream {

namespace {

constexpr int64_t pts_wrap = int64_t{1} << 33;
// TR 101 290, 2.5
constexpr int64_t longest_pts_interval = 90 * 700;
/** Decoder buffer (2.4.2.6), plus a tenth for the time from the first byte to the last. */
constexpr int64_t longest_lead = 90 * 1100;

enum NalType { nal_slice = 1, nal_idr = 5, nal_sps = 7, nal_pps = 8, nal_delimiter = 9 };

/** The types of the NAL units of an access unit, up to its first slice. */
std::vector<int> nal_types(std::span<const uint8_t> unit)
{
    std::vector<int> types;
    for (size_t at = 0; at + 3 < unit.size(); ++at) {
        if (unit[at] != 0 || unit[at + 1] != 0 || unit[at + 2] != 1)
            continue;
        types.push_back(unit[at + 3] & 0x1f);
        if (types.back() >= nal_slice && types.back() <= nal_idr)
            break;
    }
    return types;
}

int64_t read_pts(const uint8_t* field)
{
    return int64_t{field[0] & 0x0e} << 29 | int64_t{field[1]} << 22 |
           int64_t{field[2] & 0xfe} << 14 | int64_t{field[3]} << 7 | field[4] >> 1;
}

bool good_pts_markers(const uint8_t* field, bool with_dts)
{
    return field[0] >> 4 == (with_dts ? 3 : 2) && (field[0] & 1) && (field[2] & 1) &&
           (field[4] & 1);
}

bool good_stream_id(uint8_t type, uint8_t id)
{
    return type == type_h264 ? (id & 0xf0) == 0xe0 : type == type_adts ? (id & 0xe0) == 0xc0 : true;
}

} // namespace

ElementaryStream::ElementaryStream(uint16_t pid, uint8_t type, const StreamTime* time,
                                   bool from_start, Findings& findings)
    : pid_(pid), type_(type), time_(time), from_start_(from_start), findings_(findings)
{
    summary_.pid = pid;
    summary_.type = type;
}

void ElementaryStream::find(const char* kind, std::string what)
{
    char name[16];
    std::snprintf(name, sizeof name, "PID 0x%x: ", pid_);
    findings_.push_back({kind, first_packet_, name + what});
}

void ElementaryStream::add(const Packet& packet, size_t index)
{
    ++summary_.packets;
    if (packet.unit_start) {
        end_pes();
        open_ = true;
        first_packet_ = index;
        random_access_ = packet.random_access;
    }
    if (packet.payload.empty())
        return;
    last_packet_ = index;
    if (open_)
        pes_.insert(pes_.end(), packet.payload.begin(), packet.payload.end());
    else if (from_start_)
        find("pes", "payload before the first PES packet");
}

void ElementaryStream::finish()
{
    finishing_ = true;
    end_pes();
}

void ElementaryStream::end_pes()
{
    if (!open_)
        return;
    open_ = false;
    if (pes_.size() < 9 || pes_[0] != 0 || pes_[1] != 0 || pes_[2] != 1)
        find("pes", "a PES packet without its start code");
    else if (!good_stream_id(type_, pes_[3]))
        find("pes", "a stream_id that does not suit the stream_type");
    else if ((pes_[6] & 0xc0) != 0x80 || pes_.size() < size_t{9} + pes_[8])
        find("pes", "a malformed PES header");
    else
        read_pes(pes_);
    pes_.clear();
}

void ElementaryStream::read_pes(std::span<const uint8_t> pes)
{
    const size_t length = size_t{pes[4]} << 8 | pes[5];
    const bool cut = finishing_ && length != 0 && length + 6 > pes.size();
    summary_.cut = cut;
    if (cut)
        return;
    if (length == 0 && type_ != type_h264)
        find("pes", "only pictures may leave PES_packet_length open");
    if (length != 0 && length + 6 != pes.size())
        find("pes", "PES_packet_length is not what the packet holds");
    const uint8_t flags = pes[7] >> 6;
    if (flags < 2 || pes[8] < 5 || !good_pts_markers(&pes[9], flags == 3)) {
        find("pts_missing", "a PES packet without a PTS");
        return;
    }
    int64_t pts = read_pts(&pes[9]);
    if (summary_.last_pts) {
        const int64_t forward = ((pts - *summary_.last_pts) % pts_wrap + pts_wrap) % pts_wrap;
        pts = *summary_.last_pts + (forward > pts_wrap / 2 ? forward - pts_wrap : forward);
    }
    check_pts(pts);
    const auto unit = pes.subspan(size_t{9} + pes[8]);
    if (type_ == type_h264)
        check_pictures(unit);
    else if (type_ == type_adts)
        check_sound(unit, pts);
    summary_.payload_bytes += unit.size();
    if (keep_bytes_)
        bytes_.insert(bytes_.end(), unit.begin(), unit.end());
}

void ElementaryStream::check_pts(int64_t pts)
{
    if (summary_.last_pts && pts <= *summary_.last_pts)
        find("pts_order", "PTS " + std::to_string(pts) + " does not follow " +
                              std::to_string(*summary_.last_pts));
    else if (summary_.last_pts && pts - *summary_.last_pts > longest_pts_interval)
        find("pts_interval", std::to_string((pts - *summary_.last_pts) / 90) + " ms without a PTS");
    if (!summary_.first_pts)
        summary_.first_pts = pts;
    summary_.last_pts = pts;
    if (!time_)
        return;
    const auto lead_at = [&](size_t packet) {
        const int64_t lead = (pts - time_->at(packet) / 300) % pts_wrap;
        return lead > pts_wrap / 2    ? lead - pts_wrap
               : lead < -pts_wrap / 2 ? lead + pts_wrap
                                      : lead;
    };
    if (lead_at(last_packet_) < 0)
        find("pts_late",
             "arrives " + std::to_string(-lead_at(last_packet_) / 90) + " ms after its PTS");
    if (lead_at(first_packet_) > longest_lead)
        find("pts_lead",
             "arrives " + std::to_string(lead_at(first_packet_) / 90) + " ms before its PTS");
}

void ElementaryStream::check_pictures(std::span<const uint8_t> unit)
{
    const std::vector<int> types = nal_types(unit);
    const auto has = [&](int type) {
        return std::find(types.begin(), types.end(), type) != types.end();
    };
    const bool idr = has(nal_idr);
    if (types.empty() || types.front() != nal_delimiter)
        find("access_unit", "a picture without an access unit delimiter in front");
    if (idr && !(has(nal_sps) && has(nal_pps)))
        find("access_unit", "an IDR picture without its parameter sets");
    if (idr != random_access_)
        find("random_access", "random_access_indicator and IDR picture do not agree");
    if (from_start_ && summary_.access_units == 0 && !idr)
        find("first_unit", "the first picture is no IDR picture");
    ++summary_.access_units;
    summary_.random_access_units += idr;
}

void ElementaryStream::check_sound(std::span<const uint8_t> unit, int64_t pts)
{
    constexpr int64_t frequencies[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                       16000, 12000, 11025, 8000,  7350,  0,     0,     0};
    if (next_sound_pts_ && std::llabs(pts - *next_sound_pts_) > 90)
        find("sound_gap",
             "sound continues " + std::to_string((pts - *next_sound_pts_) / 90) + " ms off");
    next_sound_pts_ = pts;
    while (!unit.empty()) {
        const bool header = unit.size() >= 7 && unit[0] == 0xff && (unit[1] & 0xf6) == 0xf0;
        const size_t length = header ? (unit[3] & 3u) << 11 | unit[4] << 3 | unit[5] >> 5 : 0;
        const int64_t frequency = header ? frequencies[unit[2] >> 2 & 0xf] : 0;
        if (length < 7 || length > unit.size() || frequency == 0) {
            find("access_unit", "sound that is no row of whole ADTS frames");
            return;
        }
        *next_sound_pts_ += 1024 * 90000 / frequency;
        ++summary_.access_units;
        unit = unit.subspan(length);
    }
}

} // namespace transport_stream
