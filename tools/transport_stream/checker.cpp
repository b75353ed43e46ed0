#include "transport_stream/checker.h"

#include "transport_stream/packet.h"
#include "transport_stream/stream_time.h"
#include "transport_stream/tables.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>

namespace transport_stream {

namespace {

std::string pid_name(uint16_t pid)
{
    char name[16];
    std::snprintf(name, sizeof name, "PID 0x%x", pid);
    return name;
}

/** Follows the continuity counter of one PID (2.4.3.3). */
class ContinuityCheck {
public:
    bool follows(const Packet& packet)
    {
        const bool first = !last_;
        const uint8_t before = last_.value_or(0);
        const bool same = !first && packet.continuity == before;
        const bool duplicate = same && !packet.payload.empty() && !duplicated_ && is_copy(packet);
        const bool good =
            first || packet.discontinuity || duplicate ||
            (packet.payload.empty() ? same : packet.continuity == ((before + 1) & 0xf));
        last_ = packet.continuity;
        if (!packet.payload.empty()) {
            duplicated_ = duplicate;
            bytes_ = packet.payload;
        }
        return good;
    }
    bool was_duplicate() const { return duplicated_; }

private:
    bool is_copy(const Packet& packet) const
    {
        return std::equal(bytes_.begin(), bytes_.end(), packet.payload.begin(),
                          packet.payload.end());
    }
    std::optional<uint8_t> last_;
    std::span<const uint8_t> bytes_;
    bool duplicated_ = false;
};

class Checker {
public:
    Checker(std::span<const uint8_t> stream, const CheckOptions& options) : options_(options)
    {
        report_.packet_size = options.packet_size ? options.packet_size : guess_packet_size(stream);
        packets_ = split_packets(stream, report_.packet_size);
        report_.packets = packets_.size();
        if (!options.live && stream.size() % report_.packet_size != 0)
            find("size", packets_.size(), "the stream ends inside a packet");
    }

    Report run()
    {
        program_ = read_tables(packets_, report_.findings);
        if (program_.pcr_pid)
            time_.emplace(packets_, *program_.pcr_pid);
        if (!time_ || !time_->known())
            find("pcr_missing", 0, "there are no time references");
        else
            check_time();
        walk();
        check_pids();
        std::stable_sort(report_.findings.begin(), report_.findings.end(),
                         [](const Finding& a, const Finding& b) { return a.packet < b.packet; });
        return std::move(report_);
    }

private:
    void find(const char* kind, size_t packet, std::string what)
    {
        report_.findings.push_back({kind, packet, std::move(what)});
    }
    const StreamTime* time() const { return time_ && time_->known() ? &*time_ : nullptr; }

    void check_time()
    {
        report_.time_references = time_->references();
        report_.rate = time_->rate();
        report_.first_time = static_cast<double>(time_->first()) / clock_hz;
        report_.seconds =
            static_cast<double>(time_->at(packets_.size()) - time_->first()) / clock_hz;
        report_.greatest_time_interval = static_cast<double>(time_->greatest_interval()) / clock_hz;
        time_->check_intervals(options_.rate != 0, report_.findings);
        check_repetition(program_.associations, "association table");
        check_repetition(program_.maps, "program map");
        if (options_.rate == 0)
            return;
        time_->check_accuracy(report_.findings);
        const auto asked = static_cast<double>(options_.rate);
        if (std::abs(report_.rate - asked) > asked / 100)
            find("rate", 0,
                 std::to_string(report_.rate) + " bit/s instead of " +
                     std::to_string(options_.rate));
    }

    /** Every 100 ms, which is also the longest wait from the start and to the end. */
    void check_repetition(const std::vector<size_t>& places, const char* name)
    {
        int64_t last = time_->at(0);
        const auto check_gap = [&](size_t packet) {
            const int64_t now = time_->at(packet);
            if (now - last > static_cast<int64_t>(clock_hz) / 10)
                find("table_repetition", packet,
                     std::string(name) + " missing for " + std::to_string((now - last) / 27000) +
                         " ms");
            last = now;
        };
        for (const size_t place : places)
            check_gap(place);
        if (!packets_.empty())
            check_gap(packets_.size() - 1);
    }

    void walk()
    {
        for (const auto& [pid, type] : program_.streams)
            streams_.try_emplace(pid, pid, type, time(), !options_.live, report_.findings);
        for (auto& [pid, stream] : streams_) {
            if (options_.keep_bytes)
                stream.keep_bytes();
        }
        for (size_t i = 0; i < packets_.size(); ++i)
            check_packet(packets_[i], i);
        for (auto& [pid, stream] : streams_) {
            stream.finish();
            report_.streams.push_back(stream.summary());
            if (options_.keep_bytes)
                report_.bytes[pid] = stream.bytes();
        }
    }

    void check_packet(const Packet& packet, size_t index)
    {
        check_arrival(packet, index);
        if (!packet.sync) {
            find("sync", index, "no sync byte");
            return;
        }
        if (packet.transport_error)
            find("transport_error", index,
                 pid_name(packet.pid) + " has transport_error_indicator set");
        if (!packet.well_formed)
            find("packet", index, pid_name(packet.pid) + " has a malformed packet");
        if (packet.scrambled)
            find("scrambled", index, pid_name(packet.pid) + " is scrambled");
        if (packet.pid == null_pid) {
            ++report_.null_packets;
            return;
        }
        auto& continuity = continuity_[packet.pid];
        if (!continuity.follows(packet))
            find("continuity", index, pid_name(packet.pid) + " breaks its continuity counter");
        seen_[packet.pid] = index;
        const auto stream = streams_.find(packet.pid);
        const bool duplicate = !packet.payload.empty() && continuity.was_duplicate();
        if (stream != streams_.end() && packet.well_formed && !packet.transport_error && !duplicate)
            stream->second.add(packet, index);
    }

    void check_arrival(const Packet& packet, size_t index)
    {
        if (!packet.arrival)
            return;
        const uint32_t step = (*packet.arrival - last_arrival_) & 0x3fffffff;
        if (index != 0 && (step == 0 || step >= 0x20000000))
            find("arrival_time", index, "the arrival time stamp does not increase");
        last_arrival_ = *packet.arrival;
    }

    void check_pids()
    {
        for (const auto& [pid, index] : seen_) {
            const bool named = pid < 0x20 || pid == program_.map_pid || pid == program_.pcr_pid ||
                               program_.streams.count(pid) != 0;
            if (!named)
                find("unknown_pid", index, pid_name(pid) + " is in no table");
        }
        for (const auto& [pid, type] : program_.streams) {
            if (seen_.count(pid) == 0)
                find("missing_pid", 0, pid_name(pid) + " is in the program map only");
        }
    }

    CheckOptions options_;
    Report report_;
    std::vector<Packet> packets_;
    Program program_;
    std::optional<StreamTime> time_;
    std::map<uint16_t, ElementaryStream> streams_;
    std::map<uint16_t, ContinuityCheck> continuity_;
    std::map<uint16_t, size_t> seen_;
    uint32_t last_arrival_ = 0;
};

} // namespace

bool Report::has(const std::string& kind) const
{
    return std::any_of(findings.begin(), findings.end(),
                       [&](const Finding& f) { return f.kind == kind; });
}

Report check(std::span<const uint8_t> stream, const CheckOptions& options)
{
    return Checker(stream, options).run();
}

} // namespace transport_stream
