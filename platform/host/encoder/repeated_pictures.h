#pragma once

#include "encoder/raw_bits.h"

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <x264.h>

namespace zu3host {

/**
 * Writes access units that repeat the last picture into x264's stream, without x264: a P picture
 * whose macroblocks are all skipped (ISO/IEC 14496-10 clause 7.3.4), a dozen bytes.
 *
 * x264 knows nothing of them. They are reference pictures, since the stream's picture order count
 * has type 2, which forbids two non-reference pictures in a row (clause 8.2.1.3). So `frame_num` of
 * what x264 encodes later lags behind by their number until the next IDR picture, and is rewritten.
 * With one reference picture the latest repetition is the only one, and equal to the picture that
 * x264 predicts from.
 *
 * The slices of a repetition use a second picture parameter set, for CAVLC and without weighted
 * prediction; it is sent ahead of every IDR picture. Not thread-safe.
 */
class RepeatedPictures {
public:
    /** Null when the stream of `encoder` is none that can be continued like this. */
    static std::unique_ptr<RepeatedPictures> into(x264_t* encoder);

    /**
     * An access unit of x264's in its place in the stream. The bytes live until the next call, here
     * or of x264. Without memory it throws, and the unit is lost.
     */
    std::span<uint8_t> pass_on(std::span<const x264_nal_t> units);
    /** An access unit that repeats the last one's picture; the bytes live until the next call. */
    std::span<uint8_t> repeat();

private:
    /** The fields of a sequence parameter set that slices depend on (clause 7.3.2.1.1). */
    struct Sequence {
        uint32_t id;
        unsigned frame_number_bits;
        uint32_t macroblocks;
    };
    static bool read(std::span<const uint8_t> rbsp, Sequence& sequence);

    explicit RepeatedPictures(const Sequence& sequence);
    std::span<uint8_t> as_they_are(std::span<const x264_nal_t> units);
    /** Notes a slice's frame_num as the stream has it; the position of that in its RBSP. */
    size_t read_frame_number(const x264_nal_t& slice);
    void append_slice(const x264_nal_t& unit);
    void begin_unit(uint8_t header);
    uint32_t wrapped(uint32_t frame_number) const;

    const Sequence sequence_;
    std::vector<uint8_t> parameter_set_;
    // of the last reference picture in the stream
    uint32_t frame_number_ = 0;
    // repetitions since the last IDR picture
    uint32_t repeated_ = 0;
    std::vector<uint8_t> bytes_;
    std::vector<uint8_t> rbsp_;
    RawBitWriter slice_;
};

} // namespace zu3host
