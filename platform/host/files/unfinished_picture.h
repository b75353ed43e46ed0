#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace zu3host {

/**
 * The end of a transport stream on its way into a file.
 *
 * A recording arrives in batches that end anywhere, but a file that a kill or a full disk ends
 * should play to its end. So the data from the last begun picture on stays here until the next
 * picture begins or the file is closed. A stream of sound alone is cut between its frames. Not
 * thread-safe.
 */
class UnfinishedPicture {
public:
    /**
     * Appends a batch. False, without a change, if it is not part of a transport stream or memory
     * runs out.
     */
    bool append(const void* batch, size_t size);
    const uint8_t* data() const { return bytes_.data(); }
    size_t size() const { return bytes_.size(); }
    /** Bytes from data() on that end with a whole picture. */
    size_t whole() const { return whole_; }
    /**
     * Bytes from data() on that go into a file that is closed: all, unless the last picture lacks
     * its end.
     */
    size_t whole_at_end() const { return pictures_ && !ended_ ? whole_ : bytes_.size(); }
    /** Removes bytes that were written or lost. */
    void remove(size_t bytes);
    /**
     * A part of the stream is lost: the rest is dropped up to the next picture that needs none
     * before it.
     */
    void skip_to_random_access();

private:
    void scan_packet(size_t packet_at, size_t packet_bytes);
    void begin_picture(const uint8_t* packet);
    void go_on_with_picture(const uint8_t* packet);
    void drop_until_random_access(size_t packet_bytes);

    std::vector<uint8_t> bytes_;
    size_t whole_ = 0;
    /** whether a picture, or a frame of sound, has begun yet */
    bool any_ = false;
    /** whether a picture has */
    bool pictures_ = false;
    uint16_t picture_pid_ = 0;
    /** bytes that the last picture's PES packet still lacks; none if that is open */
    std::optional<size_t> left_;
    /** the last picture is whole */
    bool ended_ = false;
    bool skipping_ = false;
};

} // namespace zu3host
