#pragma once

#include <cstddef>
#include <cstdint>

namespace zu3host {

/**
 * The writes that a transport stream goes into a file with.
 *
 * A process that is killed leaves a write(2) where two pages of the file meet: of a batch of 64 KiB that was
 * being written nearly always in the middle of a packet. So the packets that lie in one page are one write,
 * which happens or not, and the one that lies in two pages is a write of its own: a kill can still cut it,
 * but the moment for that is a quarter as long. Other data goes in one write.
 */
class PacketSteps {
public:
    /** @param position of the first byte in the file; negative where there is none, as in a pipe */
    PacketSteps(const void* src, size_t size, int64_t position)
        : packet_(position < 0 ? 0 : packet_bytes(static_cast<const uint8_t*>(src), size)),
          position_(position)
    {
    }

    /** Most bytes of the write that begins `at` bytes behind the first one; `left` are to be written. */
    size_t most(size_t at, size_t left) const
    {
        if (packet_ == 0)
            return left;
        const size_t begun = at % packet_; // of a packet that was cut short
        const size_t in_page = page_bytes - (static_cast<uint64_t>(position_) + at) % page_bytes;
        const size_t whole = begun == 0 ? in_page / packet_ * packet_ : 0;
        const size_t step = whole != 0 ? whole : packet_ - begun;
        return step < left ? step : left;
    }

private:
    static constexpr size_t page_bytes = 4096;
    static constexpr size_t plain = 188,
                            stamped = 192; // ISO/IEC 13818-1, 2.4.3.2; with 4 bytes of arrival time
    static constexpr uint8_t sync_byte = 0x47;

    /** Of one packet; 0 when the data is no transport stream of whole packets. */
    static size_t packet_bytes(const uint8_t* data, size_t size)
    {
        for (const size_t packet : {plain, stamped}) {
            const size_t sync = packet - plain;
            if (size >= packet && size % packet == 0 && data[sync] == sync_byte &&
                data[size - plain] == sync_byte)
                return packet;
        }
        return 0;
    }

    size_t packet_;
    int64_t position_;
};

} // namespace zu3host
