#pragma once

#include "multiplexer/packets.h"
#include "multiplexer/program_tables.h"
#include "multiplexer/sound_queue.h"

#include <cstdint>
#include <span>
#include <vector>

namespace zu3host {

/** One access unit with its presentation time on the stream's clock, 90 kHz. */
struct PictureUnit {
    std::span<const uint8_t> data;
    int64_t pts;
    /** decoding can start here: tables go before it */
    bool random_access;
};

/**
 * Orders the stream: pictures, and between them everything due by the stream's clock: PCRs at most
 * 40 ms apart, tables at most 100 ms apart, sound shortly before its presentation, null packets at
 * a constant rate. Not thread-safe.
 */
class StreamWriter {
public:
    /** Room in packets that an idle step needs for everything due. */
    static constexpr size_t idle_room = 10;

    /** @param bits_per_second constant rate of the 188-byte packets; 0 = variable */
    StreamWriter(PacketRing& ring, uint64_t start, uint64_t bits_per_second);
    StreamWriter(const StreamWriter&) = delete;
    StreamWriter& operator=(const StreamWriter&) = delete;

    uint64_t now() const { return clock_.now(); }
    bool constant_rate() const { return clock_.constant_rate(); }

    /**
     * Sets the contents of the tables. Call it before the first packet. PCRs are in the packets of
     * pictures(), even without pictures.
     */
    void set_program(uint16_t map_pid, const std::vector<ProgramStream>& streams);
    PacketStream& pictures() { return pictures_; }
    PacketStream& sound() { return sound_; }
    /** Lead of sound before its presentation, ticks of 27 MHz. */
    void set_sound_lead(uint64_t ticks) { sound_lead_ = ticks; }

    /**
     * Moves the stream to `moment`, with what falls due until then. @return false when the ring
     * filled up first
     */
    bool advance(uint64_t moment, SoundQueue* queue);
    /**
     * Packets that a picture of `bytes` needs at most, with tables and time references, without
     * sound.
     */
    size_t greatest_picture_packets(size_t bytes) const;
    /**
     * Writes a picture whole, at a variable rate spread up to `end`. free_packets() of the ring
     * must not be below greatest_picture_packets().
     */
    void write_picture(const PictureUnit& picture, uint64_t end, SoundQueue* queue);
    /**
     * Writes sound up to `pts` without waiting for its time, as far as there is room.
     */
    void flush_sound(SoundQueue& queue, int64_t pts);

private:
    bool write_due(SoundQueue* queue, size_t reserved);
    void write_tables();
    void write_tables_before_picture();
    /** A time reference is being written; when is the next one due? */
    void plan_next_time();
    void write_time();
    void write_sound(SoundQueue& queue);
    void step(uint64_t moment, SoundQueue* queue, size_t reserved);
    bool sound_fits(const SoundQueue* queue, size_t reserved) const;
    uint64_t sound_due(const SoundQueue& queue) const;
    uint64_t time_period() const;
    bool tables_due() const;

    StreamClock clock_;
    PacketWriter packets_;
    ProgramTables tables_ = {};
    uint8_t association_continuity_ = 15;
    uint8_t map_continuity_ = 15;
    PacketStream pictures_ = {0, 0, 15};
    PacketStream sound_ = {0, 0, 15};
    uint64_t sound_lead_ = 0;
    uint64_t tables_due_;
    /** at a variable rate: when a time reference is written for them */
    uint64_t tables_limit_ = 0;
    uint64_t time_due_;
    /** whether the packet written last carries the time; tables go first of all */
    bool after_time_ = true;
};

} // namespace zu3host
