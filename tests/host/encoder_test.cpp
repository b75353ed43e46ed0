// The encoder through its contract: what comes out for what goes in, and what it refuses.
#include "capture/picture_leases.h"
#include "capture/picture_time_scope.h"
#include "common/picture_layout.h"
#include "encoder/open_encoders.h"
#include "encoder/rate_ceiling.h"
#include "statistics/counters.h"
#include "zu3/venc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <unistd.h>
#include <vector>

namespace zu3host {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

constexpr auto deadline = 60s; // a sanitizer on a busy machine is slow; nothing here waits for it to pass

struct Frame {
    Bytes bytes;
    bool key;
    uint64_t pts;
    uint32_t index;
    std::optional<uint64_t> time_in_callback;
};

/** Keeps what the encoder's callback gets; can hold a callback back. */
class Receiver {
public:
    static u32 receive(s32, u32 event, ZU_VENC_FrameInfo_t* frame, void* self)
    {
        static_cast<Receiver*>(self)->add(event, *frame);
        return 0;
    }
    void block() { set_blocked(true); }
    void unblock() { set_blocked(false); }
    bool wait_for(std::function<bool()> condition)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, deadline, condition);
    }
    bool wait_for_frames(size_t count)
    {
        return wait_for([&] { return frames.size() >= count; });
    }
    bool wait_until_held()
    {
        return wait_for([&] { return held; });
    }
    size_t frame_count()
    {
        const std::lock_guard lock(mutex_);
        return frames.size();
    }

    std::vector<Frame> frames;
    bool held = false;

private:
    void add(u32 event, const ZU_VENC_FrameInfo_t& frame)
    {
        std::unique_lock lock(mutex_);
        EXPECT_EQ(event, u32{ZU_VENC_EVENT_FRAME});
        frames.push_back({Bytes(frame.pu8Data, frame.pu8Data + frame.u32DataSize), frame.u8FrameType == 0xFF,
                          frame.u64Pts, frame.u32InBufIndex, time_of_frame_in_callback()});
        held = blocked_;
        changed_.notify_all();
        changed_.wait(lock, [&] { return !blocked_; });
        held = false;
    }
    void set_blocked(bool blocked)
    {
        const std::lock_guard lock(mutex_);
        blocked_ = blocked;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    bool blocked_ = false;
};

ZU_VENC_OpenParams_t params_of(uint32_t width, uint32_t height)
{
    ZU_VENC_OpenParams_t params{};
    params.u32Width = width;
    params.u32Height = height;
    params.u32FrameRate = 30;
    params.u32Bitrate = 1048576;
    params.eCodecType = E_ZU_VENC_CODEC_H264;
    params.pfnCallback = &Receiver::receive;
    params.u32EventMask = ZU_VENC_EVENT_FRAME;
    return params;
}

/** A texture that moves by three pixels a picture, with some noise of its own in each. */
void draw(uint8_t* picture, PictureLayout layout, uint32_t number)
{
    uint32_t random = number * 2654435761u + 1;
    for (size_t i = 0; i < layout.luma_bytes(); ++i) {
        const uint32_t x = static_cast<uint32_t>(i % layout.stride) + 3 * number;
        const uint32_t y = static_cast<uint32_t>(i / layout.stride);
        random = random * 1664525u + 1013904223u;
        picture[i] = static_cast<uint8_t>(100 + (x / 8 * 37 + y / 8 * 59) % 64 + (random >> 28));
    }
    for (size_t i = layout.luma_bytes(); i < layout.picture_bytes(); ++i)
        picture[i] = i % 2 == 0 ? 90 : 160;
}

/** An encoder that is closed at the end of its test. */
class TestEncoder {
public:
    explicit TestEncoder(ZU_VENC_OpenParams_t params)
        : layout(PictureLayout::of(params.u32Width, params.u32Height))
    {
        params.pUserData = &receiver;
        EXPECT_EQ(ZU_VENC_Open(&params, &handle), u32{ZU_OK});
    }
    ~TestEncoder()
    {
        receiver.unblock();
        EXPECT_EQ(ZU_VENC_Close(handle), u32{ZU_OK});
        EXPECT_EQ(ZU_VENC_Stop(handle), u32{ZU_INVALID_ARGUMENT});
    }
    void start()
    {
        const ZU_VENC_StartParams_t params{};
        ASSERT_EQ(ZU_VENC_Start(handle, &params), u32{ZU_OK});
    }
    ZU_VENC_InputBuffer_t lend()
    {
        ZU_VENC_InputBuffer_t buffer{};
        EXPECT_EQ(ZU_VENC_QueryBuffer(handle, &buffer), u32{ZU_OK});
        EXPECT_EQ(buffer.u32DataSize, layout.picture_bytes());
        return buffer;
    }
    /** Hands picture `number` over, stamped 1000 times its number. */
    u32 feed(uint32_t number, bool as_key = false)
    {
        ZU_VENC_InputBuffer_t buffer = lend();
        draw(buffer.pu8Data, layout, number);
        buffer.u64Pts = number * 1000;
        buffer.u32InBufIndex = number % 16;
        buffer.bRequestIFrame = as_key;
        return ZU_VENC_WriteBufferComplete(handle, &buffer);
    }
    /** Feeds and waits for each picture, so that none is refused. */
    void encode(uint32_t first, uint32_t count)
    {
        for (uint32_t number = first; number < first + count; ++number) {
            const size_t before = receiver.frame_count();
            ASSERT_EQ(feed(number), u32{ZU_OK});
            ASSERT_TRUE(receiver.wait_for_frames(before + 1));
        }
    }

    /** Of `count` frames from `first` on, at 30 pictures per second. */
    double bits_per_second(size_t first, size_t count) const
    {
        size_t bytes = 0;
        for (size_t i = first; i < first + count; ++i)
            bytes += receiver.frames[i].bytes.size();
        return static_cast<double>(bytes) * 8 * 30 / static_cast<double>(count);
    }

    Receiver receiver; // outlives the encoder, whose thread calls it
    PictureLayout layout;
    u32 handle = 0;
};

std::vector<int> nal_types(const Bytes& unit)
{
    std::vector<int> types;
    for (size_t i = 0; i + 3 < unit.size(); ++i)
        if (unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1)
            types.push_back(unit[i + 3] & 31);
    return types;
}

/** What `command`, with the stream's file for its "{}", prints. */
Bytes output_of(std::string command, const std::vector<Frame>& frames)
{
    const auto file =
        std::filesystem::temp_directory_path() / ("encoder_test_" + std::to_string(getpid()) + ".264");
    std::ofstream stream(file, std::ios::binary);
    for (const Frame& frame : frames)
        stream.write(reinterpret_cast<const char*>(frame.bytes.data()),
                     static_cast<std::streamsize>(frame.bytes.size()));
    stream.close();
    Bytes output;
    FILE* pipe = popen((command.replace(command.find("{}"), 2, file.string()) + " 2>&1").c_str(), "r");
    for (int byte; pipe && (byte = std::fgetc(pipe)) != EOF;)
        output.push_back(static_cast<uint8_t>(byte));
    EXPECT_TRUE(pipe && pclose(pipe) == 0);
    std::filesystem::remove(file);
    return output;
}

// Catches a delimiter, parameter sets or a first key frame that is missing, and a key frame that is not
// flagged.
TEST(EncoderStream, IsAnnexBWithDelimitersAndParameterSetsBeforeEachIdr)
{
    TestEncoder encoder(params_of(320, 240));
    encoder.start();
    encoder.encode(0, 70); // two seconds are 60 pictures: one more key frame
    for (const Frame& frame : encoder.receiver.frames) {
        const std::vector<int> types = nal_types(frame.bytes);
        ASSERT_GE(types.size(), 2u);
        EXPECT_EQ(types.front(), 9);
        const bool idr = std::find(types.begin(), types.end(), 5) != types.end();
        EXPECT_EQ(frame.key, idr);
        if (idr) {
            EXPECT_EQ((std::vector(types.begin() + 1, types.begin() + 3)), (std::vector{7, 8}));
        }
    }
    EXPECT_TRUE(encoder.receiver.frames[0].key);
    EXPECT_TRUE(encoder.receiver.frames[60].key);
    const Bytes colours = output_of(
        "ffprobe -v error -show_entries stream=color_range,color_space,avg_frame_rate -of csv=p=0 {}",
        encoder.receiver.frames);
    EXPECT_EQ(std::string(colours.begin(), colours.end()), "tv,smpte170m,30/1\n");
}

// Catches a wrong stride, a chroma plane sought at the wrong line, wrong cropping, and a picture that never
// comes out.
TEST(EncoderStream, DecodesToThePicturesThatWentIn)
{
    for (const auto& [width, height] : {std::pair{64u, 64u}, {1366u, 768u}, {640u, 360u}}) {
        SCOPED_TRACE(width);
        constexpr uint32_t pictures = 3;
        TestEncoder encoder(params_of(width, height));
        encoder.start();
        encoder.encode(0, pictures);
        const Bytes decoded =
            output_of("ffmpeg -v error -i {} -f rawvideo -pix_fmt nv12 -", encoder.receiver.frames);
        ASSERT_EQ(decoded.size(), size_t{width} * height * 3 / 2 * pictures);
        Bytes source(encoder.layout.picture_bytes());
        draw(source.data(), encoder.layout, pictures - 1);
        const uint8_t* last = decoded.data() + size_t{width} * height * 3 / 2 * (pictures - 1);
        const auto mean_difference = [&](size_t first, size_t lines, size_t first_of_source) {
            uint64_t sum = 0;
            for (size_t i = 0; i < lines * width; ++i)
                sum += static_cast<uint64_t>(
                    std::abs(last[first * width + i] -
                             source[(first_of_source + i / width) * encoder.layout.stride + i % width]));
            return static_cast<double>(sum) / static_cast<double>(lines * width);
        };
        EXPECT_LT(mean_difference(0, height, 0), 8.0); // the noise is coded away
        EXPECT_LT(mean_difference(height, height / 2, encoder.layout.lines), 1.5);
    }
}

// Catches a key request that comes a picture late, records of one picture that carry another's values, and
// captured pictures that are not timed by when they were due.
TEST(EncoderStream, HonoursAKeyRequestInThatVeryPictureAndGivesItsValuesBack)
{
    TestEncoder encoder(params_of(64, 64));
    encoder.start();
    for (uint32_t number = 1; number <= 6; ++number) {
        std::optional<DueTimeInCallback> captured;
        if (number >= 3)
            captured.emplace(std::chrono::steady_clock::time_point(number * 900us + 1ns));
        ASSERT_EQ(encoder.feed(number, number == 4), u32{ZU_OK});
        ASSERT_TRUE(encoder.receiver.wait_for_frames(number));
    }
    for (uint32_t number = 1; number <= 6; ++number) {
        const Frame& frame = encoder.receiver.frames[number - 1];
        EXPECT_EQ(frame.key, number == 1 || number == 4);
        EXPECT_EQ(frame.pts, number * 1000u);
        EXPECT_EQ(frame.time_in_callback, number * (number >= 3 ? 900u : 1000u));
        EXPECT_EQ(frame.index, frame.key ? UINT32_MAX : number);
    }
    EXPECT_FALSE(time_of_frame_in_callback());
}

// Catches a profile or level that is not what was asked for; the bytes are profile_idc, constraints,
// level_idc.
TEST(EncoderStream, SaysProfileAndLevelInTheSps)
{
    struct Case {
        u32 profile, level;
        int profile_idc, level_idc;
        bool level_1b;
    };
    for (const Case& wish : {Case{66, 310, 66, 31, false},
                             {77, 410, 77, 41, false},
                             {66, 101, 66, 11, true},
                             {77, 100, 77, 10, false},
                             {0, 0, 100, 10, false}}) {
        SCOPED_TRACE(wish.level);
        ZU_VENC_OpenParams_t params = params_of(64, 64);
        params.u32Bitrate = 40; // a rate that every level allows
        params.u32Profile = wish.profile;
        params.u32Level = wish.level;
        TestEncoder encoder(params);
        encoder.start();
        encoder.encode(0, 1);
        const Bytes& unit = encoder.receiver.frames[0].bytes;
        const Bytes start{0, 0, 1, 0x67};
        const auto sps = std::search(unit.begin(), unit.end(), start.begin(), start.end());
        ASSERT_LT(sps + 7, unit.end());
        EXPECT_EQ(sps[4], wish.profile_idc);
        EXPECT_EQ((sps[5] & 0x10) != 0, wish.level_1b); // constraint_set3_flag
        EXPECT_EQ(sps[6], wish.level_idc);
    }
}

// Catches a rate in the wrong unit and a change that does not arrive or is not followed.
TEST(EncoderStream, FollowsTheBitRateAlsoWhenItChanges)
{
    constexpr uint32_t half = 120; // four seconds
    ZU_VENC_OpenParams_t params = params_of(320, 240);
    params.u32Bitrate = 2000;
    TestEncoder encoder(params);
    encoder.start();
    encoder.encode(0, half);
    u32 bitrate = 0;
    EXPECT_EQ(ZU_VENC_SetAttr(encoder.handle, ZU_VENC_ATTR_BITRATE, &bitrate), u32{ZU_INVALID_ARGUMENT});
    bitrate = 500;
    EXPECT_EQ(ZU_VENC_SetAttr(encoder.handle, ZU_VENC_ATTR_BITRATE, &bitrate), u32{ZU_OK});
    EXPECT_EQ(ZU_VENC_SetAttr(encoder.handle, ZU_VENC_ATTR_BITRATE + 1, &bitrate), u32{ZU_INVALID_ARGUMENT});
    encoder.encode(half, half);
    EXPECT_NEAR(encoder.bits_per_second(0, half), 2000 * 1024, 0.2 * 2000 * 1024);
    EXPECT_NEAR(encoder.bits_per_second(half, half), 500 * 1024, 0.2 * 500 * 1024);
    bitrate = 1048576; // another kind of rate control: the stream goes on with a key frame
    EXPECT_EQ(ZU_VENC_SetAttr(encoder.handle, ZU_VENC_ATTR_BITRATE, &bitrate), u32{ZU_OK});
    encoder.encode(2 * half, 2);
    EXPECT_FALSE(encoder.receiver.frames[2 * half + 1].key);
    EXPECT_TRUE(encoder.receiver.frames[2 * half].key);
}

// Catches a stream of constant rate that comes ever later because its pictures need more than it has.
TEST(EncoderStream, StaysUnderTheCeilingThatAMultiplexerSets)
{
    constexpr uint32_t count = 60; // two seconds
    TestEncoder encoder(params_of(320, 240));
    encoder.start();
    const auto bits_per_second_of_next = [&] {
        const size_t before = encoder.receiver.frame_count();
        encoder.encode(static_cast<uint32_t>(before), count);
        return encoder.bits_per_second(before, count);
    };
    EXPECT_GT(bits_per_second_of_next(), 90'000);
    set_rate_ceiling(50'000);
    bits_per_second_of_next(); // settles
    EXPECT_LT(bits_per_second_of_next(), 60'000);
    set_rate_ceiling(0);
    bits_per_second_of_next();
    EXPECT_GT(bits_per_second_of_next(), 90'000);
}

// Catches sizes and values that x264 would choke on later, or that would overflow a size computation.
TEST(EncoderOpen, RefusesWhatItCannotEncode)
{
    struct Case {
        const char* what;
        std::function<void(ZU_VENC_OpenParams_t&)> spoil;
    };
    const Case cases[] = {
        {"codec", [](auto& p) { p.eCodecType = 0; }},
        {"colour format", [](auto& p) { p.eColorFormat = 5; }},
        {"no width", [](auto& p) { p.u32Width = 0; }},
        {"no height", [](auto& p) { p.u32Height = 0; }},
        {"odd width", [](auto& p) { p.u32Width = 641; }},
        {"odd height", [](auto& p) { p.u32Height = 361; }},
        {"too narrow", [](auto& p) { p.u32Width = 62; }},
        {"too wide", [](auto& p) { p.u32Width = 3842; }},
        {"too high", [](auto& p) { p.u32Height = 2178; }},
        {"width that wraps", [](auto& p) { p.u32Width = 0xFFFFFFF0; }},
        {"frame rate", [](auto& p) { p.u32FrameRate = 121; }},
        {"profile", [](auto& p) { p.u32Profile = 88; }},
        {"level", [](auto& p) { p.u32Level = 99; }},
        {"callback", [](auto& p) { p.pfnCallback = nullptr; }},
        {"event mask", [](auto& p) { p.u32EventMask = 2; }},
    };
    for (const Case& refused : cases) {
        ZU_VENC_OpenParams_t params = params_of(640, 360);
        refused.spoil(params);
        u32 handle = 0;
        EXPECT_NE(ZU_VENC_Open(&params, &handle), u32{ZU_OK}) << refused.what;
        EXPECT_EQ(handle, 0u) << refused.what;
    }
    TestEncoder greatest(params_of(3840, 2176));
    TestEncoder without_rate([] {
        ZU_VENC_OpenParams_t params = params_of(64, 64);
        params.u32FrameRate = 0;
        return params;
    }());
}

// Catches a capture that would be told the size of a closed or another encoder.
TEST(EncoderOpen, TellsItsExactSizeWhileItIsOpen)
{
    EXPECT_EQ(exact_size_of_open_encoder(1376, 768), std::nullopt);
    {
        TestEncoder older(params_of(1366, 768));
        TestEncoder other(params_of(640, 360));
        EXPECT_EQ(exact_size_of_open_encoder(1376, 768), (PictureSize{1366, 768}));
        TestEncoder newer(params_of(1370, 750));
        EXPECT_EQ(exact_size_of_open_encoder(1376, 768), (PictureSize{1370, 750}));
        EXPECT_EQ(exact_size_of_open_encoder(640, 384), (PictureSize{640, 360}));
    }
    EXPECT_EQ(exact_size_of_open_encoder(1376, 768), std::nullopt);
}

// Catches reading memory that is not the encoder's, and a lent buffer that is lost when its lender gives up.
TEST(EncoderInput, RefusesWhatItDidNotLend)
{
    TestEncoder encoder(params_of(64, 64));
    encoder.start();
    const ZU_VENC_InputBuffer_t lent = encoder.lend();
    EXPECT_EQ(encoder.lend().pu8Data, lent.pu8Data);
    draw(lent.pu8Data, encoder.layout, 0);
    Bytes foreign(lent.u32DataSize);
    struct Case {
        const char* what;
        std::function<void(ZU_VENC_InputBuffer_t&)> spoil;
    };
    const Case cases[] = {
        {"no address", [](auto& b) { b.pu8Data = nullptr; }},
        {"foreign address", [&](auto& b) { b.pu8Data = foreign.data(); }},
        {"inside the buffer", [](auto& b) { b.pu8Data += 16; }},
        {"too short", [](auto& b) { b.u32DataSize -= 1; }},
        {"said to be injected", [](auto& b) { b.bEntireInject = 1; }},
    };
    uint64_t refused = counters().pictures_refused;
    ZU_VENC_InputBuffer_t nothing{}; // follows a failed query, so it is counted, but no mistake to be told of
    testing::internal::CaptureStderr();
    EXPECT_EQ(ZU_VENC_WriteBufferComplete(encoder.handle, &nothing), u32{ZU_INVALID_ARGUMENT});
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(counters().pictures_refused, ++refused);
    for (const Case& wrong : cases) {
        ZU_VENC_InputBuffer_t buffer = lent;
        wrong.spoil(buffer);
        EXPECT_EQ(ZU_VENC_WriteBufferComplete(encoder.handle, &buffer), u32{ZU_INVALID_ARGUMENT})
            << wrong.what;
        EXPECT_EQ(counters().pictures_refused, ++refused) << wrong.what;
    }
    EXPECT_EQ(ZU_VENC_WriteBufferComplete(encoder.handle, &lent), u32{ZU_OK});
    EXPECT_EQ(ZU_VENC_WriteBufferComplete(encoder.handle, &lent), u32{ZU_INVALID_ARGUMENT});
    ASSERT_TRUE(encoder.receiver.wait_for_frames(1));
    ZU_VENC_EntireInjectBuf_t region{1, 1, {}};
    EXPECT_EQ(ZU_VENC_QueryEntireInjectBuffer(encoder.handle, &region), u32{ZU_OK});
    EXPECT_EQ(region.u32VirtAddr, 0u); // opened for copies
}

// Catches a full queue that costs pictures at once although it is about to have room, copied or injected.
TEST(EncoderInput, WaitsForRoomWhenPicturesComeTooFast)
{
    constexpr uint32_t pictures = 100;
    for (const bool injected : {false, true}) {
        ZU_VENC_OpenParams_t params = params_of(64, 64);
        params.eColorFormat = injected ? u32{E_ZU_VENC_COLOR_INJECT} : params.eColorFormat;
        TestEncoder encoder(params);
        ZU_VENC_EntireInjectBuf_t region{};
        ASSERT_EQ(ZU_VENC_QueryEntireInjectBuffer(encoder.handle, &region), u32{ZU_OK});
        encoder.start();
        ZU_VENC_InputBuffer_t buffer{};
        buffer.pu8Data = reinterpret_cast<uint8_t*>(uintptr_t{region.u32VirtAddr});
        buffer.u32DataSize = static_cast<u32>(encoder.layout.picture_bytes());
        buffer.bEntireInject = injected;
        uint32_t taken = 0, refused = 0;
        while (taken < pictures && refused < pictures) {
            const bool lent = injected || ZU_VENC_QueryBuffer(encoder.handle, &buffer) == ZU_OK;
            const bool accepted = lent && ZU_VENC_WriteBufferComplete(encoder.handle, &buffer) == ZU_OK;
            ++(accepted ? taken : refused);
        }
        EXPECT_LT(refused, pictures / 10) << "more than a busy machine explains";
    }
}

// Catches a region too small to work with, a picture that capture may overwrite too early, and a lease never
// ended.
TEST(EncoderInput, EncodesOutOfTheInjectRegionUnderALease)
{
    ZU_VENC_OpenParams_t params = params_of(320, 256);
    params.eColorFormat = E_ZU_VENC_COLOR_INJECT;
    setenv("ZU3_INJECT", "0", 1);
    TestEncoder encoder(params);
    ZU_VENC_EntireInjectBuf_t region{};
    EXPECT_EQ(ZU_VENC_QueryEntireInjectBuffer(encoder.handle, &region), u32{ZU_OK});
    EXPECT_EQ(region.u32VirtAddr, 0u);
    unsetenv("ZU3_INJECT");
    ASSERT_EQ(ZU_VENC_QueryEntireInjectBuffer(encoder.handle, &region), u32{ZU_OK});
    ASSERT_EQ(region.u32VirtAddr % picture_alignment, 0u);
    ASSERT_GE(region.u32Size, 320u * 256 * 3 / 2 * 4);
    uint8_t* const start = reinterpret_cast<uint8_t*>(uintptr_t{region.u32VirtAddr});
    const auto bytes = static_cast<uint32_t>(encoder.layout.picture_bytes());
    const auto inject = [&](uint8_t* data) {
        const ZU_VENC_InputBuffer_t buffer{data, bytes, 1, 0, {}, 1, 1, 0};
        return ZU_VENC_WriteBufferComplete(encoder.handle, &buffer);
    };
    encoder.start();
    EXPECT_EQ(inject(start + region.u32Size - bytes + 1), u32{ZU_INVALID_ARGUMENT});
    EXPECT_EQ(inject(start - 1), u32{ZU_INVALID_ARGUMENT});
    encoder.receiver.block();
    ASSERT_EQ(inject(start), u32{ZU_OK});
    ASSERT_TRUE(encoder.receiver.wait_until_held());
    EXPECT_FALSE(picture_is_leased(start)); // encoded: x264 no longer needs it while its frame is handed out
    for (uint32_t number = 1; number <= 4; ++number)
        EXPECT_EQ(inject(start + size_t{number} * bytes / 2), u32{ZU_OK});
    EXPECT_EQ(inject(start), u32{ZU_BUSY}); // the queue is full
    EXPECT_FALSE(picture_is_leased(start));
    EXPECT_TRUE(picture_is_leased(start + bytes));
    EXPECT_EQ(ZU_VENC_Stop(encoder.handle), u32{ZU_OK});
    EXPECT_FALSE(picture_is_leased(start + bytes));
}

// Catches a stop that waits for a callback which waits for the stop, and a callback that begins after it.
TEST(EncoderStop, ReturnsWhileACallbackIsBlockedAndDropsTheQueue)
{
    TestEncoder encoder(params_of(64, 64));
    encoder.start();
    encoder.receiver.block();
    ASSERT_EQ(encoder.feed(0), u32{ZU_OK});
    ASSERT_TRUE(encoder.receiver.wait_until_held());
    for (uint32_t number = 1; number <= 4; ++number)
        ASSERT_EQ(encoder.feed(number), u32{ZU_OK});
    ZU_VENC_InputBuffer_t none{};
    EXPECT_EQ(ZU_VENC_QueryBuffer(encoder.handle, &none), u32{ZU_BUSY});
    const uint64_t refused = counters().pictures_refused;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(ZU_VENC_Stop(encoder.handle), u32{ZU_OK});
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s); // far below the deadline of a blocked callback
    EXPECT_EQ(counters().pictures_refused, refused + 4);
    EXPECT_EQ(encoder.feed(5), u32{ZU_FAILURE});
    EXPECT_EQ(counters().pictures_refused, refused + 5);
    encoder.receiver.unblock();
    encoder.start();
    ASSERT_EQ(encoder.feed(6), u32{ZU_OK});
    ASSERT_TRUE(encoder.receiver.wait_for_frames(2));
    EXPECT_TRUE(encoder.receiver.frames[1].key); // the first after a restart
    EXPECT_EQ(encoder.receiver.frames[1].pts, 6000u);
}

// Catches one who waits for room, or who holds up the end, while the encoder stops.
TEST(EncoderStop, WakesWhoWaitsForRoom)
{
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int round = 0; round < 3; ++round) { // a busy machine may hold up one of them
        TestEncoder encoder(params_of(64, 64));
        encoder.start();
        encoder.receiver.block();
        ASSERT_EQ(encoder.feed(0), u32{ZU_OK});
        ASSERT_TRUE(encoder.receiver.wait_until_held());
        for (uint32_t number = 1; number <= 4; ++number)
            ASSERT_EQ(encoder.feed(number), u32{ZU_OK});
        std::atomic<bool> asking{false};
        std::thread waiting([&] {
            const auto before = std::chrono::steady_clock::now();
            asking = true;
            asking.notify_one();
            ZU_VENC_InputBuffer_t none{};
            EXPECT_EQ(ZU_VENC_QueryBuffer(encoder.handle, &none), u32{ZU_BUSY});
            shortest = std::min(shortest, std::chrono::steady_clock::now() - before);
        });
        asking.wait(false);
        EXPECT_EQ(ZU_VENC_Stop(encoder.handle), u32{ZU_OK});
        waiting.join();
    }
    EXPECT_LT(shortest, 60ms);
}

// Catches the end of a recording being lost, and pictures of a start that comes after the capture's.
TEST(EncoderStop, LetsWhatItTookBeEncodedFirst)
{
    const uint64_t encoded = counters().pictures_encoded;
    const uint64_t bytes = counters().bytes_encoded;
    TestEncoder encoder(params_of(64, 64));
    for (uint32_t number = 0; number < 4; ++number)
        ASSERT_EQ(encoder.feed(number), u32{ZU_OK}); // before the start
    EXPECT_EQ(encoder.receiver.frame_count(), 0u);
    encoder.start();
    ASSERT_TRUE(encoder.receiver.wait_for_frames(1));
    EXPECT_EQ(ZU_VENC_Stop(encoder.handle), u32{ZU_OK});
    ASSERT_EQ(encoder.receiver.frame_count(), 4u);
    size_t received = 0;
    for (const Frame& frame : encoder.receiver.frames)
        received += frame.bytes.size();
    EXPECT_EQ(counters().pictures_encoded, encoded + 4);
    EXPECT_EQ(counters().bytes_encoded, bytes + received);
}

} // namespace
} // namespace zu3host
