// What the encoder takes and refuses, and what becomes of it when it stops.
#include "encoder_fixture.h"

#include <atomic>
#include <cstdlib>

namespace zu3host {
namespace {

using Params = ZU_VENC_OpenParams_t;
using Buffer = ZU_VENC_InputBuffer_t;

// Catches sizes and values that x264 would choke on later, or that would overflow a size computation.
TEST(EncoderOpen, RefusesWhatItCannotEncode)
{
    void (*const spoil[])(Params&) = {
        [](Params& p) { p.eCodecType = 0; },        [](Params& p) { p.eColorFormat = 5; },
        [](Params& p) { p.u32Width = 0; },          [](Params& p) { p.u32Height = 0; },
        [](Params& p) { p.u32Width = 641; },        [](Params& p) { p.u32Height = 361; },
        [](Params& p) { p.u32Width = 62; },         [](Params& p) { p.u32Width = 3842; },
        [](Params& p) { p.u32Height = 2178; },      [](Params& p) { p.u32Width = 0xFFFFFFF0; },
        [](Params& p) { p.u32FrameRate = 121; },    [](Params& p) { p.u32Profile = 88; },
        [](Params& p) { p.u32Level = 99; },         [](Params& p) { p.u32EventMask = 2; },
        [](Params& p) { p.pfnCallback = nullptr; },
    };
    for (const auto& change : spoil) {
        Params params = params_of(640, 360);
        change(params);
        u32 handle = 0;
        EXPECT_NE(ZU_VENC_Open(&params, &handle), ZU_OK) << "case " << &change - spoil;
        EXPECT_EQ(handle, 0u);
    }
    Params greatest = params_of(3840, 2176);
    greatest.u32FrameRate = 0; // its own choice
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
}

// Catches reading memory that is not the encoder's, and a lent buffer that is lost when its lender gives up.
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
        EXPECT_EQ(ZU_VENC_WriteBufferComplete(encoder.handle, &buffer), ZU_INVALID_ARGUMENT);
        // Nothing at all follows a failed query, which is no mistake to be told of; others are told of once.
        EXPECT_EQ(testing::internal::GetCapturedStderr() == "", &change - spoil != 1) << &change - spoil;
        EXPECT_EQ(counters().pictures_refused, ++refused) << &change - spoil;
    }
    EXPECT_EQ(ZU_VENC_WriteBufferComplete(encoder.handle, &lent), ZU_OK);
    EXPECT_EQ(ZU_VENC_WriteBufferComplete(encoder.handle, &lent), ZU_INVALID_ARGUMENT);
    ASSERT_TRUE(encoder.receiver.wait_for_frames(1));
    ZU_VENC_EntireInjectBuf_t region{1, 1, {}};
    EXPECT_EQ(ZU_VENC_QueryEntireInjectBuffer(encoder.handle, &region), ZU_OK);
    EXPECT_EQ(region.u32VirtAddr, 0u); // opened for copies
}

/** An encoder's inject region, and how a picture goes in out of it. */
struct Injection {
    explicit Injection(TestEncoder& into)
        : encoder(into), bytes(static_cast<u32>(into.layout.picture_bytes()))
    {
        EXPECT_EQ(ZU_VENC_QueryEntireInjectBuffer(encoder.handle, &region), ZU_OK);
        start = reinterpret_cast<uint8_t*>(uintptr_t{region.u32VirtAddr});
    }
    u32 operator()(uint8_t* data) const
    {
        const Buffer buffer{data, bytes, 1, 0, {}, 1, 1, 0};
        return ZU_VENC_WriteBufferComplete(encoder.handle, &buffer);
    }
    TestEncoder& encoder;
    u32 bytes;
    ZU_VENC_EntireInjectBuf_t region{};
    uint8_t* start = nullptr;
};

// Catches a full queue that costs pictures at once although it is about to have room, copied or injected.
TEST(EncoderInput, WaitsForRoomWhenPicturesComeTooFast)
{
    for (const bool injected : {false, true}) {
        TestEncoder encoder(params_of(64, 64, injected ? E_ZU_VENC_COLOR_INJECT : E_ZU_VENC_COLOR_COPY));
        const Injection inject(encoder);
        encoder.start();
        uint32_t taken = 0, refused = 0;
        while (taken < 100 && refused < 100) {
            Buffer lent{};
            const bool accepted = injected ? inject(inject.start) == ZU_OK
                                           : ZU_VENC_QueryBuffer(encoder.handle, &lent) == ZU_OK &&
                                                 ZU_VENC_WriteBufferComplete(encoder.handle, &lent) == ZU_OK;
            ++(accepted ? taken : refused);
        }
        EXPECT_LT(refused, 10u) << "more than a busy machine explains";
    }
}

// Catches a region too small to work with, a picture that capture may overwrite too early, and a lease never
// ended.
TEST(EncoderInput, EncodesOutOfTheInjectRegionUnderALease)
{
    TestEncoder encoder(params_of(320, 256, E_ZU_VENC_COLOR_INJECT));
    setenv("ZU3_INJECT", "0", 1);
    EXPECT_EQ(Injection(encoder).start, nullptr);
    unsetenv("ZU3_INJECT");
    const Injection inject(encoder);
    uint8_t* const start = inject.start;
    ASSERT_EQ(inject.region.u32VirtAddr % picture_alignment, 0u);
    ASSERT_GE(inject.region.u32Size, 320u * 256 * 3 / 2 * 4);
    encoder.start();
    EXPECT_EQ(inject(start + inject.region.u32Size - inject.bytes + 1), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(inject(start - 1), ZU_INVALID_ARGUMENT);
    encoder.receiver.block(true);
    ASSERT_EQ(inject(start), ZU_OK);
    ASSERT_TRUE(encoder.receiver.wait_until_held());
    EXPECT_FALSE(picture_is_leased(start)); // encoded: x264 no longer needs it while its frame is handed out
    for (uint32_t number = 1; number <= 4; ++number)
        EXPECT_EQ(inject(start + size_t{number} * inject.bytes / 2), ZU_OK);
    EXPECT_EQ(inject(start), ZU_BUSY); // the queue is full
    EXPECT_FALSE(picture_is_leased(start));
    EXPECT_TRUE(picture_is_leased(start + inject.bytes));
    EXPECT_EQ(ZU_VENC_Stop(encoder.handle), ZU_OK);
    EXPECT_FALSE(picture_is_leased(start + inject.bytes));
}

// Catches a stop that waits for a callback which waits for the stop, and a callback that begins after it.
TEST(EncoderStop, ReturnsWhileACallbackIsBlockedAndDropsTheQueue)
{
    TestEncoder encoder(params_of(64, 64));
    encoder.start();
    encoder.fill();
    const uint64_t refused = counters().pictures_refused;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(ZU_VENC_Stop(encoder.handle), ZU_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s); // far below the deadline of a blocked callback
    EXPECT_EQ(counters().pictures_refused, refused + 4);
    EXPECT_EQ(encoder.feed(5), ZU_FAILURE);
    EXPECT_EQ(counters().pictures_refused, refused + 5);
    encoder.receiver.block(false);
    encoder.start();
    ASSERT_EQ(encoder.feed(6), ZU_OK);
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
        encoder.fill();
        std::atomic<bool> asking{false};
        std::thread waiting([&] {
            const auto before = std::chrono::steady_clock::now();
            asking = true;
            asking.notify_one();
            Buffer none{};
            EXPECT_EQ(ZU_VENC_QueryBuffer(encoder.handle, &none), ZU_BUSY);
            shortest = std::min(shortest, std::chrono::steady_clock::now() - before);
        });
        asking.wait(false);
        EXPECT_EQ(ZU_VENC_Stop(encoder.handle), ZU_OK);
        waiting.join();
    }
    EXPECT_LT(shortest, 60ms);
}

// Catches the end of a recording being lost, and pictures of a start that comes after the capture's.
TEST(EncoderStop, LetsWhatItTookBeEncodedFirst)
{
    const uint64_t encoded = counters().pictures_encoded;
    uint64_t bytes = counters().bytes_encoded;
    TestEncoder encoder(params_of(64, 64));
    for (uint32_t number = 0; number < 4; ++number)
        ASSERT_EQ(encoder.feed(number), ZU_OK); // before the start
    EXPECT_EQ(encoder.receiver.frame_count(), 0u);
    encoder.start();
    ASSERT_TRUE(encoder.receiver.wait_for_frames(1));
    EXPECT_EQ(ZU_VENC_Stop(encoder.handle), ZU_OK);
    ASSERT_EQ(encoder.receiver.frame_count(), 4u);
    for (const Frame& frame : encoder.receiver.frames)
        bytes += frame.bytes.size();
    EXPECT_EQ(counters().pictures_encoded, encoded + 4);
    EXPECT_EQ(counters().bytes_encoded, bytes);
}

} // namespace
} // namespace zu3host
