#pragma once

#include <cstdint>

namespace zu3host {

/**
 * Decides when x264 refines a picture that does not change. Each picture is noted, in the order of
 * the stream. Not thread-safe.
 */
class Refinement {
public:
    explicit Refinement(uint32_t frame_rate);

    /** A picture that x264 encoded into `size` bytes. */
    void note_encoded(uint32_t size, bool key, bool unchanged);
    /** An unchanged picture that was repeated. */
    void note_repeated();
    /** Unchanged pictures that x264 has last encoded into one size, in a row. */
    uint32_t equal_sizes() const { return equal_sizes_; }
    /** After this many of one size, x264 would repeat that size. */
    static constexpr uint32_t equal_sizes_until_settled = 2;
    /**
     * Whether the next picture, if it is unchanged, may be repeated although x264 would refine it:
     * another change comes soon, or the last one was small.
     */
    bool may_wait() const;

private:
    void note(bool unchanged);

    uint32_t pictures_of_video_;
    uint32_t wait_in_video_;
    uint32_t wait_after_small_change_;
    // one bit per picture, 1 if it changed; the last one lowest
    uint32_t changes_ = 0;
    uint32_t unchanged_ = 0;
    uint32_t equal_sizes_ = 0;
    uint32_t last_size_ = 0;
    // since the picture was settled, all changes were small
    bool changed_little_ = false;
};

} // namespace zu3host
