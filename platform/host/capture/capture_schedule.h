#pragma once

#include <chrono>
#include <cstdint>

namespace zu3host {

/**
 * The times at which pictures are due: start + n / rate, so nothing drifts. After a short delay, as
 * with the first pictures of a cold encoder, the missed pictures are captured one after the other.
 * After a longer delay, or on a machine that stays too slow, they are skipped, since they would all
 * show a later screen.
 */
class CaptureSchedule {
public:
    using Time = std::chrono::steady_clock::time_point;

    CaptureSchedule(Time start, uint32_t rate) : start_(start), rate_(rate) {}

    /** Number of the next picture, from 0. */
    uint64_t number() const { return number_; }
    /** When it is due. */
    Time due() const { return moment(number_); }
    /**
     * Skips the pictures that are too late at `now`; returns their number. Call it once for each
     * captured picture.
     */
    uint64_t pass_over_late(Time now)
    {
        if (now <= moment(number_ + 1)) {
            if (++in_time_ >= rate_)
                to_make_up_ = most_made_up;
            return 0;
        }
        in_time_ = 0;
        if (to_make_up_ > 0 && now <= moment(number_ + most_made_up)) {
            --to_make_up_;
            return 0;
        }
        const uint64_t before = number_;
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::nanoseconds>(now - start_).count();
        // The newest due picture; its predecessor may still be within its interval.
        number_ = static_cast<uint64_t>(elapsed / second) * rate_ +
                  static_cast<uint64_t>(elapsed % second) * rate_ / second;
        if (number_ < before)
            number_ = before;
        return number_ - before;
    }
    /** The next picture has been dealt with. */
    void advance() { ++number_; }

private:
    static constexpr int64_t second = 1'000'000'000;
    /** Limits: late pictures until a second's worth was on time, and pictures behind. */
    static constexpr uint64_t most_made_up = 8;

    Time moment(uint64_t number) const
    {
        const uint64_t seconds = number / rate_;
        const uint64_t rest = number % rate_ * second / rate_;
        return start_ + std::chrono::seconds(seconds) + std::chrono::nanoseconds(rest);
    }

    Time start_;
    uint32_t rate_;
    uint64_t number_ = 0;
    // A cold encoder may need eight intervals for its first pictures; those made up are late too.
    uint64_t to_make_up_ = 2 * most_made_up;
    /** pictures on time in a row */
    uint64_t in_time_ = 0;
};

} // namespace zu3host
