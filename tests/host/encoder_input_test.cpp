// The pictures that the encoder lends, accepts and refuses, and its stop.
#include "capture/picture_pool.h"
#include "encoder/input_memory.h"
#include "encoder_fixture.h"
#include "zu3_host/exact_size.h"
#include "zu3_host/quality.h"

#include <algorithm>
#include <cstdlib>
#include <future>
#include <malloc.h>
#include <set>
#include <utility>

using namespace zu3host;

namespace {

using Params = ZU_VENC_OpenParams_t;
using Buffer = ZU_VENC_InputBuffer_t;

// Catches sizes and values that x264 would refuse later or that would overflow.
TEST(EncoderOpen, RefusesWhatItCannotEncode)
{
    const std::pair<u32 Params::*, u32> spoil[] = {
        {&Params::eCodecType, 0},     {&Params::eColorFormat, 5}, {&Params::u32Width, 0},
        {&Params::u32Height, 0},      {&Params::u32Width, 641},   {&Params::u32Height, 361},
        {&Params::u32Width, 62},      {&Params::u32Width, 3842},  {&Params::u32Height, 2178},
        {&Params::u32FrameRate, 121}, {&Params::u32Profile, 88},  {&Params::u32Level, 99},
        {&Params::u32EventMask, 2},   {&Params::u32Width, ~15u},
    };
    for (const auto& [field, value] : spoil) {
        Params params = params_of(640, 360);
        params.*field = value;
        u32 handle = 0;
        EXPECT_NE(ZU_VENC_Open(&params, &handle), ZU_OK) << "field with " << value;
        EXPECT_EQ(handle, 0u);
    }
    Params silent = params_of(640, 360);
    silent.pfnCallback = nullptr;
    u32 handle = 0;
    EXPECT_NE(ZU_VENC_Open(&silent, &handle), ZU_OK);
    Params greatest = params_of(3840, 2176);
    // its own choice
    greatest.u32FrameRate = 0;
    TestEncoder encoder(greatest);
}

// Catches a capture that would be told the size of a closed or another encoder.
TEST(EncoderOpen, TellsItsExactSizeWhileItIsOpen)
{
    {
        TestEncoder older(params_of(1366, 768));
        TestEncoder other(params_of(640, 360));
        EXPECT_EQ(exact_size_of_open_encoder(1376, 768), (PictureSize{1366, 768}));
        TestEncoder newer(params_of(1370, 750));
        EXPECT_EQ(exact_size_of_open_encoder(1376, 768), (PictureSize{1370, 750}));
        EXPECT_EQ(exact_size_of_open_encoder(640, 384), (PictureSize{640, 360}));
    }
    EXPECT_EQ(exact_size_of_open_encoder(1376, 768), std::nullopt);

    // A request of a stream's client is for one encoder, of that size rounded up.
    const struct {
        PictureSize asked, opened, exact;
    } cases[] = {{{1280, 720}, {1280, 736}, {1280, 720}},
                 {{1281, 720}, {1280, 736}, {1280, 736}},
                 {{640, 360}, {1280, 736}, {1280, 736}},
                 {{0, 0}, {640, 384}, {640, 384}}};
    for (const auto& [asked, opened, exact] : cases) {
        zu3_host_exact_size(asked.width, asked.height);
        const TestEncoder encoder(params_of(opened.width, opened.height));
        EXPECT_EQ(exact_size_of_open_encoder(opened.width, opened.height), exact) << asked.width;
    }
}

// Catches a read of memory that is not the encoder's, and a lent buffer that is lost when given up.
TEST(EncoderInput, RefusesWhatItDidNotLend)
{
    TestEncoder encoder(params_of(64, 64));
    encoder.start();
    const Buffer lent = encoder.lend();
    EXPECT_EQ(encoder.lend().pu8Data, lent.pu8Data);
    draw(lent.pu8Data, encoder.layout, 0);
    static Bytes foreign;
    foreign.resize(lent.u32DataSize);
    void (*const spoil[])(Buffer&) = {
        [](Buffer& b) { b = {}; },
        [](Buffer& b) { b.pu8Data = nullptr; },
        [](Buffer& b) { b.pu8Data += 16; },
        [](Buffer& b) { b.pu8Data = foreign.data(); },
        [](Buffer& b) { b.u32DataSize -= 1; },
        [](Buffer& b) { b.bEntireInject = 1; },
    };
    uint64_t refused = counters().pictures_refused;
    for (const auto& change : spoil) {
        Buffer buffer = lent;
        change(buffer);
        testing::internal::CaptureStderr();
        EXPECT_EQ(encoder.take(buffer), ZU_INVALID_ARGUMENT);
        // A caller whose query failed passes an empty record: no error worth a line.
        EXPECT_EQ(captured_log() == "", &change - spoil != 1) << &change - spoil;
        EXPECT_EQ(counters().pictures_refused, ++refused) << &change - spoil;
    }
    EXPECT_EQ(encoder.take(lent), ZU_OK);
    EXPECT_EQ(encoder.take(lent), ZU_INVALID_ARGUMENT);
    ASSERT_TRUE(encoder.receiver.wait_for_frames(1));
    // opened for copies
    EXPECT_EQ(encoder.inject_region().u32VirtAddr, 0u);
}

uint8_t* start_of(const ZU_VENC_EntireInjectBuf_t& region)
{
    return reinterpret_cast<uint8_t*>(uintptr_t{region.u32VirtAddr});
}

// Catches pictures that pile up while x264 touches its memory for the first time.
TEST(EncoderInput, TakesTheFirstPicturesOneByOne)
{
    TestEncoder encoder(params_of(640, 352));
    encoder.start();
    for (size_t number = 0; number < 4; ++number) {
        const Buffer lent = encoder.lend();
        EXPECT_EQ(encoder.receiver.frame_count(), number);
        draw(lent.pu8Data, encoder.layout, static_cast<uint32_t>(number));
        EXPECT_EQ(encoder.take(lent), ZU_OK);
    }
}

// Catches a full queue that drops pictures although it is about to have room, copied or injected.
TEST(EncoderInput, WaitsForRoomWhenPicturesComeTooFast)
{
    for (const bool injected : {false, true}) {
        TestEncoder encoder(
            params_of(64, 64, injected ? E_ZU_VENC_COLOR_INJECT : E_ZU_VENC_COLOR_COPY));
        uint8_t* const place = start_of(encoder.inject_region());
        encoder.start();
        uint32_t taken = 0, refused = 0;
        while (taken < 100 && refused < 100) {
            Buffer lent{};
            const bool accepted = injected ? encoder.inject(place) == ZU_OK
                                           : ZU_VENC_QueryBuffer(encoder.handle, &lent) == ZU_OK &&
                                                 encoder.take(lent) == ZU_OK;
            ++(accepted ? taken : refused);
        }
        EXPECT_LT(refused, 10u) << "more than a busy machine explains";
    }
}

// Catches a region that is too small, a picture overwritten too early, and a lease never ended.
TEST(EncoderInput, EncodesOutOfTheInjectRegionUnderALease)
{
    TestEncoder encoder(params_of(320, 256, E_ZU_VENC_COLOR_INJECT));
    setenv("ZU3_INJECT", "0", 1);
    EXPECT_EQ(encoder.inject_region().u32VirtAddr, 0u);
    unsetenv("ZU3_INJECT");
    const auto region = encoder.inject_region();
    uint8_t* const start = start_of(region);
    const size_t bytes = encoder.layout.picture_bytes();
    ASSERT_EQ(region.u32VirtAddr % picture_alignment, 0u);
    ASSERT_GE(region.u32Size, 320u * 256 * 3 / 2 * 4);
    encoder.start();
    EXPECT_EQ(encoder.inject(start + region.u32Size - bytes + 1), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(encoder.inject(start - 1), ZU_INVALID_ARGUMENT);
    encoder.receiver.block(true);
    ASSERT_EQ(encoder.inject(start), ZU_OK);
    ASSERT_TRUE(wait_until([&] { return encoder.receiver.is_held(); }));
    // encoded: x264 no longer needs it while its frame is handed out
    EXPECT_FALSE(picture_is_leased(start));
    for (uint32_t number = 1; number <= LentBuffers::count; ++number)
        EXPECT_EQ(encoder.inject(start + number * bytes / 2), ZU_OK);
    // the queue is full
    EXPECT_EQ(encoder.inject(start), ZU_BUSY);
    EXPECT_FALSE(picture_is_leased(start));
    EXPECT_TRUE(picture_is_leased(start + bytes));
    EXPECT_EQ(encoder.stop(), ZU_OK);
    EXPECT_FALSE(picture_is_leased(start + bytes));
}

// Catches a stop that deadlocks with a callback, and a callback that begins after the stop.
TEST(EncoderStop, ReturnsWhileACallbackIsBlockedAndDropsTheQueue)
{
    TestEncoder encoder(params_of(64, 64));
    encoder.start();
    encoder.fill();
    const uint64_t refused = counters().pictures_refused;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(encoder.stop(), ZU_OK);
    // far below the deadline of a blocked callback
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
    EXPECT_EQ(counters().pictures_refused, refused + LentBuffers::count);
    EXPECT_EQ(encoder.feed(5), ZU_FAILURE);
    EXPECT_EQ(counters().pictures_refused, refused + LentBuffers::count + 1);
    encoder.receiver.block(false);
    encoder.start();
    ASSERT_EQ(encoder.feed(6), ZU_OK);
    ASSERT_TRUE(encoder.receiver.wait_for_frames(2));
    // the first after a restart
    EXPECT_TRUE(encoder.receiver.frames[1].key);
    EXPECT_EQ(encoder.receiver.frames[1].pts, 6000u);
}

// Catches a producer that waits for room, or delays the stop, while the encoder stops.
TEST(EncoderStop, WakesAProducerThatWaitsForRoom)
{
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int round = 0; round < 3; ++round) { // a busy machine may hold up one of them
        TestEncoder encoder(params_of(64, 64));
        encoder.start();
        encoder.fill();
        const auto before = std::chrono::steady_clock::now();
        auto stopped = std::async(std::launch::async, [&] { return encoder.stop(); });
        Buffer none{};
        EXPECT_EQ(ZU_VENC_QueryBuffer(encoder.handle, &none), ZU_BUSY);
        shortest = std::min(shortest, std::chrono::steady_clock::now() - before);
        EXPECT_EQ(stopped.get(), ZU_OK);
    }
    EXPECT_LT(shortest, 60ms);
}

// Catches a lost end of a recording, and pictures handed in before the start that are lost.
TEST(EncoderStop, LetsWhatItTookBeEncodedFirst)
{
    const uint64_t encoded = counters().pictures_encoded;
    uint64_t bytes = counters().bytes_encoded;
    TestEncoder encoder(params_of(64, 64));
    for (uint32_t number = 0; number < 4; ++number)
        // before the start
        ASSERT_EQ(encoder.feed(number), ZU_OK);
    EXPECT_EQ(encoder.receiver.frame_count(), 0u);
    encoder.start();
    ASSERT_TRUE(encoder.receiver.wait_for_frames(1));
    EXPECT_EQ(encoder.stop(), ZU_OK);
    ASSERT_EQ(encoder.receiver.frame_count(), 4u);
    for (const Frame& frame : encoder.receiver.frames)
        bytes += frame.bytes.size();
    EXPECT_EQ(counters().pictures_encoded, encoded + 4);
    EXPECT_EQ(counters().bytes_encoded, bytes);
}

constexpr PictureLayout layout = PictureLayout::of(64, 64);

PictureInFlight picture_of(const std::shared_ptr<PicturePool>& pool, uint32_t index)
{
    return {.data = pool->picture(index), .layout = pool->layout(), .memory = pool};
}

// Catches a picture overwritten while the encoder reads it, and a queue that uses up all buffers.
TEST(EncoderLending, HoldsPicturesUntilTheyAreReleasedAndLeavesTheCaptureOne)
{
    auto pool = PicturePool::own(layout, 0);
    const std::weak_ptr<PicturePool> memory = pool;
    LentBuffers buffers(layout);
    std::set<uint8_t*> lent;
    while (buffers.any_to_lend()) {
        const uint32_t index = pool->acquire().value();
        const PictureInFlight picture = picture_of(pool, index);
        ASSERT_EQ(buffers.lend(&picture), picture.data);
        EXPECT_TRUE(buffers.is_lent(picture.data));
        buffers.complete();
        EXPECT_TRUE(pool->release(index));
        EXPECT_TRUE(lent.insert(picture.data).second) << "captured into while it is lent";
    }
    EXPECT_FALSE(lent.contains(pool->picture(pool->acquire().value())));
    pool.reset();
    EXPECT_FALSE(memory.expired());
    for (uint8_t* const data : lent) {
        buffers.release(data);
        EXPECT_FALSE(picture_is_leased(data));
    }
    EXPECT_TRUE(memory.expired());
}

// Catches a writer that gets a captured picture to write into, and a picture of another layout.
TEST(EncoderLending, LendsMemoryOfItsOwnOrTheNewPictureInsteadOfAnOlderOne)
{
    const auto pool = PicturePool::own(layout, 0);
    const PictureInFlight first = picture_of(pool, *pool->acquire());
    const PictureInFlight second = picture_of(pool, *pool->acquire());
    PictureInFlight other = second;
    other.layout.lines *= 2;
    LentBuffers buffers(layout);
    ASSERT_EQ(buffers.lend(&first), first.data);
    uint8_t* const own = buffers.lend(nullptr);
    EXPECT_NE(own, first.data);
    EXPECT_FALSE(picture_is_leased(first.data));
    EXPECT_EQ(buffers.lend(&second), second.data);
    EXPECT_EQ(buffers.lend(&other), own);
    EXPECT_FALSE(picture_is_leased(second.data));
}

// Catches a file's last, incomplete picture that shows what was in this memory before.
TEST(EncoderLending, LendsMemoryWithNothingInIt)
{
    mallopt(M_PERTURB, 0x55);
    LentBuffers buffers(layout);
    const uint8_t* const own = buffers.lend(nullptr);
    EXPECT_TRUE(
        std::all_of(own, own + layout.picture_bytes(), [](uint8_t byte) { return byte == 0; }));
    mallopt(M_PERTURB, 0);
}

// Catches a still screen that is searched for changes, and a change that is not looked for.
TEST(EncoderLending, TellsX264WhichPicturesAreUnchanged)
{
    const auto pool = PicturePool::own(layout, 0);
    PictureInFlight picture = picture_of(pool, *pool->acquire());
    TestEncoder encoder(params_of(64, 64));
    encoder.start();
    for (const uint64_t serial : {1, 1, 2, 0, 0}) {
        picture.serial = serial;
        const PictureInCallback in_callback(picture);
        // draws another picture every time
        encoder.encode(1);
    }
    const auto size = [&](size_t frame) { return encoder.receiver.frames[frame].bytes.size(); };
    EXPECT_LT(size(1), 40u);
    for (const size_t changed : {2, 3, 4})
        EXPECT_GT(size(changed), 80u) << changed;
}

// Catches key frames of a still picture that a file does not need, and rare ones in a live stream,
// also in that of the next encoder.
TEST(EncoderLending, PutsOffKeyFramesOnRequest)
{
    const auto pool = PicturePool::own(layout, 0);
    PictureInFlight picture = picture_of(pool, *pool->acquire());
    picture.serial = 1;
    ZU_VENC_OpenParams_t params = params_of(64, 64);
    params.u32FrameRate = 15;
    params.u32Bitrate = 0;
    for (const bool rare : {true, false}) {
        if (rare)
            zu3_host_rare_key_frames();
        TestEncoder encoder(params);
        encoder.start();
        for (size_t frames = 1; frames <= 140; ++frames) {
            const PictureInCallback in_callback(picture);
            encoder.feed(1);
            if (picture.afterwards)
                std::exchange(picture.afterwards, nullptr)->after_callback();
            ASSERT_TRUE(encoder.receiver.wait_for_frames(frames));
        }
        const auto keys = std::ranges::count_if(encoder.receiver.frames, &Frame::key);
        EXPECT_EQ(keys, rare ? 1 : 5);
    }
}

// Catches a repetition for which a thread wakes up, one that is lost, and one that comes after a stop.
TEST(EncoderLending, LeavesARepetitionToTheCapture)
{
    const auto pool = PicturePool::own(layout, 0);
    PictureInFlight picture = picture_of(pool, *pool->acquire());
    picture.serial = 1;
    TestEncoder encoder(params_of(64, 64));
    encoder.start();
    Receiver& receiver = encoder.receiver;
    size_t frames = 0;
    const auto feed_until_left = [&] {
        std::shared_ptr<AfterCallback> left;
        EXPECT_TRUE(wait_until([&] {
            const PictureInCallback in_callback(picture);
            EXPECT_EQ(encoder.feed(1), ZU_OK);
            left = std::exchange(picture.afterwards, nullptr);
            return left || !receiver.wait_for_frames(++frames);
        }));
        EXPECT_EQ(receiver.frame_count(), frames);
        return left;
    };
    auto left = feed_until_left();
    ASSERT_TRUE(left);
    left->after_callback();
    ASSERT_EQ(receiver.frame_count(), ++frames);
    EXPECT_EQ(receiver.frames.back().thread, std::this_thread::get_id());
    left = feed_until_left();
    ASSERT_TRUE(left);
    encoder.stop();
    left->after_callback();
    EXPECT_EQ(receiver.frame_count(), frames);
}

// Catches changed parts that do not reach x264, or of another picture than the last: here a change
// that they do not name, which x264 therefore leaves out if it believes them.
TEST(EncoderLending, TellsX264WhichPartsChanged)
{
    const auto pool = PicturePool::own(layout, 0);
    PictureInFlight picture = picture_of(pool, *pool->acquire());
    const PictureRectangle corner{0, 0, {16, 16}};
    TestEncoder encoder(params_of(64, 64));
    encoder.start();
    const auto size_of_next = [&](uint64_t serial, uint64_t since, uint32_t number) {
        picture.serial = serial;
        picture.changed = {since, {&corner, 1}};
        const PictureInCallback in_callback(picture);
        encoder.feed(number);
        EXPECT_TRUE(encoder.receiver.wait_for_frames(serial));
        return encoder.receiver.frames.back().bytes.size();
    };
    uint64_t serial = 0;
    const auto settle = [&](uint32_t number) {
        for (int i = 0; i < 12; ++i, ++serial)
            size_of_next(serial + 1, serial, number);
    };
    settle(0);
    const size_t told = size_of_next(serial + 1, serial, 1);
    ++serial;
    settle(0);
    EXPECT_LT(told * 5, size_of_next(serial + 1, serial - 1, 1) * 4);
}

} // namespace
