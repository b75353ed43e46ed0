// What the encoder puts out: form, key frames, profile and rate; other tests look at the pictures.
#include "encoder_fixture.h"
#include "zu3_host/due_time.h"

using namespace zu3host;

namespace {

/** Types and contents of a frame's NAL units. */
std::vector<std::pair<int, const uint8_t*>> nal_units(const Bytes& frame)
{
    std::vector<std::pair<int, const uint8_t*>> units;
    for (size_t i = 0; i + 3 < frame.size(); ++i)
        if (frame[i] == 0 && frame[i + 1] == 0 && frame[i + 2] == 1)
            units.emplace_back(frame[i + 3] & 31, &frame[i + 4]);
    return units;
}

// Catches a missing delimiter, parameter set or key frame, and values of another picture.
TEST(EncoderStream, HasKeyFramesWhereDueAndGivesValuesBack)
{
    TestEncoder encoder(params_of(64, 64));
    std::vector<uint32_t> keys;
    encoder.start();
    for (uint32_t number = 1; number <= 66; ++number) {
        const PictureInFlight picture{.time_us = number * 900u};
        std::optional<PictureInCallback> captured;
        if (number >= 3)
            captured.emplace(picture);
        ASSERT_EQ(encoder.feed(number, number == 4), ZU_OK);
        ASSERT_TRUE(encoder.receiver.wait_for_frames(number));
        const Frame& frame = encoder.receiver.frames.back();
        if (frame.key)
            keys.push_back(number);
        const auto units = nal_units(frame.bytes);
        ASSERT_GE(units.size(), frame.key ? 4u : 2u);
        EXPECT_EQ(units[0].first, 9);
        EXPECT_EQ(units[1].first == 7 && units[2].first == 8, frame.key);
        EXPECT_EQ(units.back().first == 5, frame.key);
        EXPECT_EQ(frame.pts, number * 1000u);
        EXPECT_EQ(frame.time_in_callback, number * (number >= 3 ? 900u : 1000u));
        EXPECT_EQ(zu3_host_due_time(frame.pts), frame.time_in_callback);
        EXPECT_EQ(frame.index, frame.key ? UINT32_MAX : number % 16);
    }
    // the first, the one asked for, and one within two seconds of that
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_EQ(keys[0] * 10 + keys[1], 14u);
    EXPECT_FALSE(encoded_picture_in_callback());
    EXPECT_EQ(zu3_host_due_time(2000), 0u);
    EXPECT_EQ(zu3_host_due_time(3000), 2700u);
}

// Catches a warning of x264's, or a lost key frame, if one is requested just where it is due.
TEST(EncoderStream, MakesAKeyFrameOfAWishForTheOneThatIsDue)
{
    ZU_VENC_OpenParams_t params = params_of(64, 64);
    // At a rate, x264's settings do not follow the content, which costs a key frame.
    params.u32Bitrate = 4096;
    TestEncoder encoder(params);
    encoder.start();
    testing::internal::CaptureStderr();
    for (uint32_t number = 1; number <= 62; ++number) {
        ASSERT_EQ(encoder.feed(number, number == 61), ZU_OK);
        ASSERT_TRUE(encoder.receiver.wait_for_frames(number));
    }
    EXPECT_EQ(captured_log(), "");
    std::vector<size_t> keys;
    for (size_t index = 0; index < encoder.receiver.frames.size(); ++index)
        if (encoder.receiver.frames[index].key)
            keys.push_back(index);
    EXPECT_EQ(keys, (std::vector<size_t>{0, 60}));
}

// Catches a wrong profile or level; the bytes are profile_idc, constraints, level_idc.
TEST(EncoderStream, SaysProfileAndLevelInTheSps)
{
    const struct {
        u32 profile, level;
        int profile_idc, level_idc;
        // constraint_set3_flag
        bool level_1b;
    } cases[] = {{66, 310, 66, 31, false},
                 {77, 410, 77, 41, false},
                 {66, 101, 66, 11, true},
                 {100, 410, 100, 41, false},
                 {0, 0, 100, 10, false}};
    for (const auto& wish : cases) {
        ZU_VENC_OpenParams_t params = params_of(64, 64);
        // a rate that every level allows
        params.u32Bitrate = 40;
        params.u32Profile = wish.profile;
        params.u32Level = wish.level;
        TestEncoder encoder(params);
        encoder.start();
        encoder.encode(1);
        const auto [type, sps] = nal_units(encoder.receiver.frames[0].bytes).at(1);
        EXPECT_EQ(type, 7);
        EXPECT_EQ(sps[0], wish.profile_idc);
        EXPECT_EQ((sps[1] & 0x10) != 0, wish.level_1b);
        EXPECT_EQ(sps[2], wish.level_idc);
    }
}

// Catches a stream above the multiplexer's ceiling, and a new rate control without a key frame.
TEST(EncoderStream, FollowsTheCeilingAndBeginsAnewWithAnotherRateControl)
{
    constexpr uint32_t second = 30;
    TestEncoder encoder(params_of(320, 240));
    const auto set = [&](u32 attribute, u32 bitrate) {
        return ZU_VENC_SetAttr(encoder.handle, attribute, &bitrate);
    };
    encoder.start();
    EXPECT_GT(encoder.encode(2 * second), 90'000);
    RateBudget budget;
    budget.set(50'000);
    // settles
    encoder.encode(2 * second);
    EXPECT_LT(encoder.encode(2 * second), 60'000);
    budget.set(0);
    EXPECT_EQ(set(ZU_VENC_ATTR_BITRATE, 0), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(set(ZU_VENC_ATTR_BITRATE + 1, 500), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(set(ZU_VENC_ATTR_BITRATE, 500), ZU_OK);
    encoder.encode(1);
    EXPECT_EQ(set(ZU_VENC_ATTR_BITRATE, 1048576),
              // another rate control: the stream goes on with a key frame
              ZU_OK);
    encoder.encode(1);
    EXPECT_TRUE(encoder.receiver.frames.back().key);
    encoder.encode(1);
    EXPECT_FALSE(encoder.receiver.frames.back().key);
}

} // namespace
