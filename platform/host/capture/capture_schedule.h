#pragma once

#include <chrono>
#include <cstdint>

namespace zu3host {

/**
 * The moments at which pictures are due: start + n / rate, whatever happens in between, so that
 * nothing drifts. A picture that is more than one interval late is passed over, but for the first
 * few: the encoder is slow until its memory has been touched once, and catches up.
 */
class CaptureSchedule {
public:
    using Time = std::chrono::steady_clock::time_point;

    CaptureSchedule(Time start, uint32_t rate) : start_(start), rate_(rate) {}

    /** Number of the next picture, from 0. */
    uint64_t number() const { return number_; }
    /** When it is due. */
    Time due() const { return moment(number_); }
    /** Goes past the pictures that are too late at `now`; returns how many. */
    uint64_t pass_over_late(Time now)
    {
        const uint64_t before = number_;
        const bool may_catch_up = number_ < beginning && now <= moment(number_ + beginning);
        if (moment(number_ + 1) < now && !may_catch_up) {
            const auto elapsed =
                std::chrono::duration_cast<std::chrono::nanoseconds>(now - start_).count();
            // The newest that is due; the one before it may still be within its interval.
            number_ = static_cast<uint64_t>(elapsed / second) * rate_ +
                      static_cast<uint64_t>(elapsed % second) * rate_ / second;
            if (number_ < before)
                number_ = before;
        }
        return number_ - before;
    }
    /** The next picture has been dealt with. */
    void advance() { ++number_; }

private:
    static constexpr int64_t second = 1'000'000'000;
    /** Pictures that are not passed over, and how many of them the last one taken may be behind. */
    static constexpr uint64_t beginning = 8;

    Time moment(uint64_t number) const
    {
        const uint64_t seconds = number / rate_;
        const uint64_t rest = number % rate_ * second / rate_;
        return start_ + std::chrono::seconds(seconds) + std::chrono::nanoseconds(rest);
    }

    Time start_;
    uint32_t rate_;
    uint64_t number_ = 0;
};

} // namespace zu3host
