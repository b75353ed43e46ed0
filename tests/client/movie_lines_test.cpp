// Where frames and sound land in a movie.
#include "movie/timeline.h"

#include <gtest/gtest.h>

namespace client::movie {
namespace {

constexpr uint64_t start = 5'000'000'000;

/** A frame of so many periods of 1/30 s behind the start, whose time stamp may be a later one's. */
EncodedFrame frame_at(double periods, bool key = false)
{
    static const uint8_t byte = 0;
    return {.bytes = {&byte, 1},
            .pts_us = start + static_cast<uint64_t>(periods * 1'000'000 / 30),
            .key = key};
}

std::vector<int64_t> places(const std::vector<EncodedFrame>& frames)
{
    std::vector<int64_t> found;
    FrameLine line(30, [&found](const PlacedFrame& frame) { found.push_back(frame.index); });
    for (const EncodedFrame& frame : frames)
        line.put(frame);
    line.flush();
    return found;
}

// Catches a grid that drifts, hides a missing frame, or moves with a key frame's late time stamp.
TEST(FrameLine, PlacesFramesByTheirTimes)
{
    using Places = std::vector<int64_t>;
    EXPECT_EQ(places({frame_at(0, true), frame_at(1), frame_at(2)}), (Places{0, 1, 2}));
    EXPECT_EQ(places({frame_at(0, true), frame_at(1.2), frame_at(1.9), frame_at(6)}),
              (Places{0, 1, 2, 6}));
    EXPECT_EQ(places({frame_at(1, true), frame_at(1), frame_at(2)}), (Places{0, 1, 2}));
    EXPECT_EQ(places({frame_at(2, true), frame_at(1), frame_at(2)}), (Places{0, 1, 2}));
    EXPECT_EQ(places({frame_at(0, true), frame_at(1), frame_at(3, true), frame_at(3), frame_at(4)}),
              (Places{0, 1, 2, 3, 4}));
    EXPECT_EQ(places({frame_at(0, true), frame_at(1), frame_at(3, true), frame_at(4)}),
              (Places{0, 1, 3, 4}));
    EXPECT_EQ(places({frame_at(0, true), frame_at(3 * 3600 * 30)}), (Places{0, 3 * 3600 * 30}));
}

// Catches sound that is placed by the time of the first frame alone, which a busy machine captures
// late.
TEST(FrameLine, PlacesSoundByTheTimesOfSeveralFrames)
{
    FrameLine line(30, [](const PlacedFrame&) {});
    for (const double periods : {0.4, 1.0, 2.0, 3.1, 4.0, 5.0})
        line.put(frame_at(periods, periods < 1));
    EXPECT_TRUE(line.settled());
    EXPECT_NEAR(static_cast<double>(line.sample_at(start + 1'000'000)), 48'000, 1);
}

// Catches a pause that stays in the times, and sound that does not follow the pictures over it.
TEST(FrameLine, LeavesPausesOut)
{
    std::vector<int64_t> found;
    FrameLine line(30, [&found](const PlacedFrame& frame) { found.push_back(frame.index); });
    line.put(frame_at(0, true));
    line.put(frame_at(1));
    EXPECT_EQ(line.sample_at(start + 10'000), 480);
    line.flush();
    line.begin_stretch();
    line.put(frame_at(300, true));
    line.put(frame_at(301));
    EXPECT_EQ(found, (std::vector<int64_t>{0, 1, 2, 3}));
    EXPECT_EQ(line.sample_at(start + 10'010'000), 2 * 1600 + 480);
}

class SoundLines : public testing::Test {
protected:
    static int64_t sample_at(uint64_t time_us)
    {
        return (static_cast<int64_t>(time_us) - static_cast<int64_t>(start)) * 48 / 1000;
    }
    /** `count` pairs of one value, the first heard so many samples behind the start. */
    void put(int64_t sample, int64_t count, int16_t value)
    {
        const std::vector<int16_t> samples(static_cast<size_t>(count) * 2, value);
        line_.put(static_cast<uint64_t>(static_cast<int64_t>(start) + sample * 1000 / 48), samples);
    }

    std::vector<int16_t> heard_;
    SoundLine line_{[this](std::span<const int16_t> samples) {
        for (size_t i = 0; i < samples.size(); i += 2)
            heard_.push_back(samples[i]);
    }};
};

// Catches sound that is handed on before its picture, twice or not at all.
TEST_F(SoundLines, WaitsForThePictures)
{
    put(0, 960, 1);
    put(960, 960, 2);
    line_.hand_on(1200, sample_at);
    EXPECT_EQ(heard_.size(), 1200u);
    EXPECT_EQ(std::count(heard_.begin(), heard_.end(), 1), 960);
    line_.hand_on(4800, sample_at);
    EXPECT_EQ(heard_.size(), 1920u);
    line_.fill(2400);
    EXPECT_EQ(heard_.size(), 2400u);
}

// Catches missing silence for lost sound, so that the rest comes too early.
TEST_F(SoundLines, KeepsItsPlaceBehindAGap)
{
    put(-480, 960, 1);
    put(4800, 480, 2);
    line_.hand_on(9600, sample_at);
    ASSERT_EQ(heard_.size(), 5280u);
    EXPECT_EQ(std::count(heard_.begin(), heard_.end(), 1), 480);
    EXPECT_EQ(heard_[479], 1);
    EXPECT_EQ(heard_[480], 0);
    EXPECT_EQ(heard_[4799], 0);
    EXPECT_EQ(heard_[4800], 2);
}

} // namespace
} // namespace client::movie
