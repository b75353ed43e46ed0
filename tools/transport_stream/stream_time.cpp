#include "transport_stream/stream_time.h"

#include <algorithm>
#include <cmath>

namespace transport_stream {

namespace {

constexpr int64_t wrap = (int64_t{1} << 33) * 300;
constexpr int64_t ticks_of_ms = clock_hz / 1000;

/** The difference of two times that wrap around, the shorter way. */
int64_t difference(int64_t later, int64_t earlier)
{
    const int64_t forward = ((later - earlier) % wrap + wrap) % wrap;
    return forward > wrap / 2 ? forward - wrap : forward;
}

} // namespace

StreamTime::StreamTime(const std::vector<Packet>& packets, uint16_t pcr_pid)
{
    for (size_t i = 0; i < packets.size(); ++i) {
        const Packet& packet = packets[i];
        if (!packet.well_formed || packet.transport_error || packet.pid != pcr_pid || !packet.pcr)
            continue;
        auto time = static_cast<int64_t>(*packet.pcr);
        if (!references_.empty())
            time = references_.back().time + difference(time, references_.back().time);
        references_.push_back({i, time, packet.discontinuity});
    }
}

int64_t StreamTime::at(size_t packet) const
{
    if (packet <= references_.front().packet)
        return references_.front().time;
    if (packet >= references_.back().packet)
        return references_.back().time;
    const auto next = std::upper_bound(references_.begin(), references_.end(), packet,
                                       [](size_t p, const Reference& r) { return p < r.packet; });
    const Reference& before = *(next - 1);
    const double per_packet = static_cast<double>(next->time - before.time) /
                              static_cast<double>(next->packet - before.packet);
    const double packets = static_cast<double>(packet) - static_cast<double>(before.packet);
    return before.time + static_cast<int64_t>(per_packet * packets);
}

double StreamTime::rate() const
{
    const Reference& first = references_.front();
    const Reference& last = references_.back();
    const auto bits = static_cast<double>((last.packet - first.packet) * packet_bytes * 8);
    return bits * clock_hz / static_cast<double>(last.time - first.time);
}

int64_t StreamTime::greatest_interval() const
{
    int64_t greatest = 0;
    for (size_t i = 1; i < references_.size(); ++i)
        greatest = std::max(greatest, references_[i].time - references_[i - 1].time);
    return greatest;
}

void StreamTime::check_intervals(bool constant_rate, Findings& findings) const
{
    const int64_t longest = (constant_rate ? 40 : 100) * ticks_of_ms;
    for (size_t i = 1; i < references_.size(); ++i) {
        if (references_[i].discontinuity)
            continue;
        const int64_t interval = references_[i].time - references_[i - 1].time;
        const std::string what =
            std::to_string(interval / (ticks_of_ms / 1000)) + " us after the one before";
        if (interval <= 0 || interval > 1000 * ticks_of_ms)
            findings.push_back(
                {"pcr_discontinuity", references_[i].packet, "time reference " + what});
        else if (interval > longest)
            findings.push_back({"pcr_interval", references_[i].packet, "time reference " + what});
    }
}

void StreamTime::check_accuracy(Findings& findings) const
{
    const Reference& first = references_.front();
    const Reference& last = references_.back();
    const double per_packet = static_cast<double>(last.time - first.time) /
                              static_cast<double>(last.packet - first.packet);
    for (const Reference& reference : references_) {
        const double expected = per_packet * static_cast<double>(reference.packet - first.packet);
        const double off = static_cast<double>(reference.time - first.time) - expected;
        if (std::abs(off) > clock_hz * 500e-9)
            findings.push_back(
                {"pcr_accuracy", reference.packet,
                 "time reference is " + std::to_string(off / 27 * 1000) + " ns off its place"});
    }
}

} // namespace transport_stream
