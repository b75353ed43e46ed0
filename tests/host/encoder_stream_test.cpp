// What comes out of the encoder: its form, key frames, profile and rate. That it shows the pictures that went
// in, recordings of a screen show.
#include "encoder_fixture.h"

namespace zu3host {
namespace {

std::vector<int> nal_types(const Bytes& unit)
{
    std::vector<int> types;
    for (size_t i = 0; i + 3 < unit.size(); ++i)
        if (unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1)
            types.push_back(unit[i + 3] & 31);
    return types;
}

// Catches a delimiter, parameter sets or a key frame that is missing, late or not flagged, records of one
// picture that carry another's values, and captured pictures that are not timed by when they were due.
TEST(EncoderStream, HasKeyFramesWhereDueAndGivesValuesBack)
{
    TestEncoder encoder(params_of(64, 64));
    std::vector<uint32_t> keys;
    encoder.start();
    for (uint32_t number = 1; number <= 66; ++number) {
        std::optional<DueTimeInCallback> captured;
        if (number >= 3)
            captured.emplace(std::chrono::steady_clock::time_point(number * 900us + 1ns));
        ASSERT_EQ(encoder.feed(number, number == 4), ZU_OK);
        ASSERT_TRUE(encoder.receiver.wait_for_frames(number));
        const Frame& frame = encoder.receiver.frames.back();
        if (frame.key)
            keys.push_back(number);
        const std::vector<int> types = nal_types(frame.bytes);
        ASSERT_GE(types.size(), frame.key ? 4u : 2u);
        EXPECT_EQ(types[0], 9);
        EXPECT_EQ(types[1] == 7 && types[2] == 8, frame.key);
        EXPECT_EQ(std::count(types.begin(), types.end(), 5) > 0, frame.key);
        EXPECT_EQ(frame.pts, number * 1000u);
        EXPECT_EQ(frame.time_in_callback, number * (number >= 3 ? 900u : 1000u));
        EXPECT_EQ(frame.index, frame.key ? UINT32_MAX : number % 16);
    }
    ASSERT_EQ(keys.size(), 3u); // the first, the one asked for, and one within two seconds of that
    EXPECT_EQ(keys[0] * 10 + keys[1], 14u);
    EXPECT_FALSE(time_of_frame_in_callback());
}

// Catches a profile or level that is not what was asked for; the bytes are profile_idc, constraints,
// level_idc.
TEST(EncoderStream, SaysProfileAndLevelInTheSps)
{
    const struct {
        u32 profile, level;
        int profile_idc, level_idc;
        bool level_1b; // constraint_set3_flag
    } cases[] = {{66, 310, 66, 31, false},
                 {77, 410, 77, 41, false},
                 {66, 101, 66, 11, true},
                 {100, 410, 100, 41, false},
                 {0, 0, 77, 10, false}};
    for (const auto& wish : cases) {
        ZU_VENC_OpenParams_t params = params_of(64, 64);
        params.u32Bitrate = 40; // a rate that every level allows
        params.u32Profile = wish.profile;
        params.u32Level = wish.level;
        TestEncoder encoder(params);
        encoder.start();
        encoder.encode(1);
        const Bytes& unit = encoder.receiver.frames[0].bytes;
        const Bytes start{0, 0, 1, 0x67};
        const auto sps = std::search(unit.begin(), unit.end(), start.begin(), start.end());
        ASSERT_LT(sps + 7, unit.end());
        EXPECT_EQ(sps[4], wish.profile_idc);
        EXPECT_EQ((sps[5] & 0x10) != 0, wish.level_1b);
        EXPECT_EQ(sps[6], wish.level_idc);
    }
}

// Catches a rate in the wrong unit, a change that is not followed, and a stream of constant rate that comes
// ever later because its pictures need more than the multiplexer's ceiling.
TEST(EncoderStream, FollowsTheBitRateAndTheCeiling)
{
    constexpr uint32_t second = 30;
    TestEncoder encoder(params_of(320, 240));
    const auto set = [&](u32 attribute, u32 bitrate) {
        return ZU_VENC_SetAttr(encoder.handle, attribute, &bitrate);
    };
    encoder.start();
    EXPECT_GT(encoder.encode(2 * second), 90'000);
    set_rate_ceiling(50'000);
    encoder.encode(2 * second); // settles
    EXPECT_LT(encoder.encode(2 * second), 60'000);
    set_rate_ceiling(0);
    EXPECT_EQ(set(ZU_VENC_ATTR_BITRATE, 0), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(set(ZU_VENC_ATTR_BITRATE + 1, 500), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(set(ZU_VENC_ATTR_BITRATE, 500), ZU_OK);
    encoder.encode(second);
    EXPECT_NEAR(encoder.encode(4 * second), 500 * 1024, 0.2 * 500 * 1024);
    EXPECT_EQ(set(ZU_VENC_ATTR_BITRATE, 1048576),
              ZU_OK); // another rate control: the stream goes on with a key frame
    encoder.encode(1);
    EXPECT_TRUE(encoder.receiver.frames.back().key);
    encoder.encode(1);
    EXPECT_FALSE(encoder.receiver.frames.back().key);
}

} // namespace
} // namespace zu3host
