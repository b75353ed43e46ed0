#include "multiplexer/stream_writer.h"

#include "statistics/counters.h"

#include <algorithm>

namespace zu3host {

namespace {

constexpr uint64_t constant_rate_tables_period = system_ticks_of_ms(85);
/**
 * At a variable rate a reader assumes that the packets between two time references, however few,
 * are evenly spread. So tables directly follow a reference: the first one after the period, or one
 * written for them at the limit. The rest of 100 ms allows for the packets' apparent places, at
 * most two thirds into the next 36 ms.
 */
constexpr uint64_t variable_rate_tables_period = system_ticks_of_ms(60);
constexpr uint64_t variable_rate_tables_limit = system_ticks_of_ms(75);
/**
 * At a constant rate a time reference replaces a null packet; at a variable rate each costs 188
 * bytes.
 */
constexpr uint64_t constant_rate_time_period = system_ticks_of_ms(25);
constexpr uint64_t variable_rate_time_period = system_ticks_of_ms(36);

constexpr size_t packets_of(size_t bytes)
{
    return (bytes + ts_payload_bytes - 1) / ts_payload_bytes;
}

size_t sound_packets(const SoundQueue& queue)
{
    return packets_of(pes_header_bytes + queue.front().size());
}

} // namespace

StreamWriter::StreamWriter(PacketRing& ring, uint64_t start, uint64_t bits_per_second)
    : clock_(start, bits_per_second), packets_(ring, clock_), tables_due_(start), time_due_(start)
{
}

void StreamWriter::set_program(uint16_t map_pid, const std::vector<ProgramStream>& streams)
{
    tables_ = make_program_tables(map_pid, pictures_.pid, streams);
}

uint64_t StreamWriter::time_period() const
{
    return clock_.constant_rate() ? constant_rate_time_period : variable_rate_time_period;
}

uint64_t StreamWriter::sound_due(const SoundQueue& queue) const
{
    const uint64_t heard = static_cast<uint64_t>(std::max<int64_t>(queue.front_pts(), 0)) * 300;
    return heard - std::min(heard, sound_lead_);
}

bool StreamWriter::sound_fits(const SoundQueue* queue, size_t reserved) const
{
    return queue && !queue->empty() && packets_.free_packets() >= reserved + sound_packets(*queue);
}

bool StreamWriter::tables_due() const
{
    return tables_due_ <= clock_.now() && (clock_.constant_rate() || after_time_);
}

void StreamWriter::write_tables()
{
    packets_.write_table(tables_.association, association_continuity_);
    packets_.write_table(tables_.map, map_continuity_);
    after_time_ = false;
    tables_due_ = clock_.now() + (clock_.constant_rate() ? constant_rate_tables_period
                                                         : variable_rate_tables_period);
    tables_limit_ = clock_.now() + variable_rate_tables_limit;
}

void StreamWriter::plan_next_time()
{
    time_due_ = clock_.now() + time_period();
    if (!clock_.constant_rate() && clock_.now() < tables_limit_)
        time_due_ = std::min(time_due_, tables_limit_);
}

void StreamWriter::write_time()
{
    plan_next_time();
    packets_.write_pcr(pictures_);
    after_time_ = true;
}

void StreamWriter::write_sound(SoundQueue& queue)
{
    PesPacket pes(sound_.stream_id, queue.front_pts(), queue.front());
    while (pes.left() != 0)
        packets_.write_pes(pes, sound_, {false, false});
    after_time_ = false;
    queue.pop();
    count(counters().audio_frames_encoded);
    count(counters().access_units_multiplexed);
}

bool StreamWriter::write_due(SoundQueue* queue, size_t reserved)
{
    const uint64_t now = clock_.now();
    if (tables_due())
        write_tables();
    else if (time_due_ <= now)
        write_time();
    else if (sound_fits(queue, reserved) && sound_due(*queue) <= now)
        write_sound(*queue);
    else
        return false;
    return true;
}

void StreamWriter::step(uint64_t moment, SoundQueue* queue, size_t reserved)
{
    uint64_t due = tables_due() ? clock_.now() : time_due_;
    if (sound_fits(queue, reserved))
        due = std::min(due, sound_due(*queue));
    clock_.wait_until(std::min(due, moment));
}

bool StreamWriter::advance(uint64_t moment, SoundQueue* queue)
{
    while (clock_.now() < moment) {
        if (packets_.free_packets() < idle_room)
            return false;
        if (!clock_.constant_rate())
            step(moment, queue, 0);
        if (!write_due(queue, 0) && clock_.constant_rate())
            packets_.write_null();
    }
    return true;
}

size_t StreamWriter::greatest_picture_packets(size_t bytes) const
{
    // Each packet lets time pass in which tables and time fall due; a few more for those due at
    // once.
    const size_t payload = packets_of(bytes + pes_header_bytes) + 1;
    if (!clock_.constant_rate())
        return payload + payload / 20 + 16;
    const uint64_t packet_ticks = clock_.packet_ticks() + 1;
    const double others = static_cast<double>(packet_ticks) * 2 / constant_rate_tables_period +
                          static_cast<double>(packet_ticks) / constant_rate_time_period;
    return static_cast<size_t>(static_cast<double>(payload + 8) / (1 - others)) + 1;
}

void StreamWriter::write_tables_before_picture()
{
    if (!clock_.constant_rate() && !after_time_)
        write_time();
    write_tables();
}

void StreamWriter::write_picture(const PictureUnit& picture, uint64_t end, SoundQueue* queue)
{
    if (picture.random_access)
        write_tables_before_picture();
    PesPacket pes(pictures_.stream_id, picture.pts, picture.data);
    const uint64_t span = end - std::min(end, clock_.now());
    const uint64_t spacing = clock_.constant_rate() ? 0 : span / packets_of(pes.left() + 16);
    while (pes.left() != 0) {
        const uint64_t next = clock_.now() + spacing;
        const bool with_time = pes.at_start() || time_due_ <= clock_.now() + time_period() / 2;
        if (with_time)
            plan_next_time();
        packets_.write_pes(pes, pictures_, {with_time, pes.at_start() && picture.random_access});
        after_time_ = with_time;
        while (clock_.constant_rate() && write_due(queue, greatest_picture_packets(pes.left())))
            ;
        while (!clock_.constant_rate() && clock_.now() < next) {
            step(next, queue, greatest_picture_packets(pes.left()));
            write_due(queue, greatest_picture_packets(pes.left()));
        }
    }
    count(counters().access_units_multiplexed);
}

void StreamWriter::flush_sound(SoundQueue& queue, int64_t pts)
{
    while (!queue.empty() && queue.front_pts() <= pts && packets_.free_packets() >= idle_room) {
        if (tables_due() || time_due_ <= clock_.now())
            write_due(nullptr, 0);
        else
            write_sound(queue);
    }
}

} // namespace zu3host
