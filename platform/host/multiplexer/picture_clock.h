#pragma once

#include <cstdint>
#include <optional>

namespace zu3host {

/**
 * Presentation times of pictures, in ticks of 90 kHz from the first one, which strictly increase.
 * Follows the capture's clock if it is known. Follows stated times within the continuity limits; a
 * picture with a step beyond them, or without a time, continues at the frame interval so far.
 */
class PictureClock {
public:
    /** A presentation time that was worked out but does not count until it is committed. */
    struct Stamp {
        int64_t ticks;
        /** microseconds of the capture's clock at tick 0 */
        int64_t host_origin;
        int64_t stated_offset;
        bool host_known;
    };

    PictureClock();
    /** Greatest steps of stated times that are believed, ticks. */
    void set_limits(int64_t max_forward, int64_t max_backward);
    /**
     * @param host_us capture time of the picture on the monotonic clock
     * @param stated_us time that came with the picture, all ones = none
     */
    Stamp stamp(std::optional<uint64_t> host_us, uint64_t stated_us) const;
    void commit(const Stamp& stamp);
    bool started() const { return last_.has_value(); }

private:
    void follow_host(Stamp& next, int64_t host_us) const;
    void follow_stated(Stamp& next, int64_t stated_us) const;
    int64_t continued() const { return last_ ? *last_ + interval_ : 0; }

    std::optional<int64_t> last_;
    int64_t interval_ = 3000;
    int64_t host_origin_ = 0;
    bool host_known_ = false;
    int64_t stated_offset_ = 0;
    int64_t max_forward_;
    int64_t max_backward_;
};

} // namespace zu3host
