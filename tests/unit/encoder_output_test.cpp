/** From the encoder's callback into the multiplexer: time stamps, refusals, busy answers. */

#include "library_test.h"

namespace {

using middleware::EncodedFrame;

class EncoderOutput : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        ASSERT_TRUE(steps::record(0));
        mw.take_logs();
    }
};

constexpr u64 none = ~u64{0};

// Catches times that start from a missing one, and an origin that a stop loses or a close keeps.
TEST_F(EncoderOutput, TimesAreRelativeToTheFirstValidOne)
{
    struct Frame {
        u8 type;
        u64 pts;
        bool pushed;
        u64 relative;
        /** input index noted afterwards, frame i carries i + 1 */
        u32 last_index;
    };
    const Frame frames[] = {
        {1, none, false, 0, 1},      {1, 1000, true, 0, 2},    {1, 4000, true, 3000, 3},
        {0xFF, 5000, true, none, 3}, {1, none, true, none, 5}, {0, 900, true, u64{0} - 100, 6},
        {0xFF, none, true, none, 6},
    };
    u32 index = 0, pushed = 0;
    for (const Frame& f : frames) {
        SCOPED_TRACE(index);
        index++;
        EXPECT_EQ(
            mw.fire_encoded_frame(
                {.bytes = {1, 2, u8(index)}, .type = f.type, .pts = f.pts, .input_index = index}),
            ZU_OK);
        pushed += f.pushed;
        ASSERT_EQ(mw.pushed().size(), pushed);
        if (f.pushed) {
            EXPECT_EQ(mw.pushed().back().pts, f.relative);
            EXPECT_EQ(mw.pushed().back().bytes, (Bytes{1, 2, u8(index)}));
            EXPECT_EQ(mw.pushed().back().source, task(0, VENC).u64MuxSrcId);
        }
        EXPECT_EQ(task(0, VENC).u32LastInBufIndex, f.last_index);
    }
    EXPECT_TRUE(mw.take_logs().empty());

    // A stop and start keep the origin; a new recording has its own, here a key frame's.
    steps::stop(0);
    steps::start(0);
    mw.fire_encoded_frame({.bytes = {1}, .pts = 11000});
    EXPECT_EQ(mw.pushed().back().pts, 10000u);
    steps::close(0);
    ASSERT_TRUE(steps::record(0));
    mw.fire_encoded_frame({.bytes = {1}, .type = 0xFF, .pts = 50000});
    EXPECT_EQ(mw.pushed().back().pts, none);
    mw.fire_encoded_frame({.bytes = {1}, .pts = 51000});
    EXPECT_EQ(mw.pushed().back().pts, 1000u);
}

// Catches a frame without data, size, record or encoder that is pushed or refused differently.
TEST_F(EncoderOutput, WhatIsRefusedAndHow)
{
    struct Case {
        const char* name;
        EncodedFrame frame;
        u32 result;
        std::vector<std::string> logs;
    };
    const std::string at = "[_SCREENRECORD_VencCbHandler]", invalid = "E " + at + "Invalid pu8Data";
    const Case cases[] = {
        {"no record", {.bytes = {1}, .null_record = true}, ZU_INVALID_ARGUMENT, {}},
        {"other event", {.bytes = {1}, .pts = 1, .event = 2}, ZU_OK, {"E " + at + "eEvent Error!"}},
        {"dropped by the encoder",
         {.pts = 1},
         ZU_OK,
         {"D " + at + "[ZU DEMO TRANSCODE] Drop Frame"}},
        {"size without data", {.pts = 1, .size = 5}, ZU_INVALID_ARGUMENT, {invalid}},
        {"data without size", {.bytes = {1}, .pts = 1, .size = 0}, ZU_INVALID_ARGUMENT, {invalid}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(mw.fire_encoded_frame(c.frame), c.result);
        EXPECT_CALLS(mw.take_logs(), c.logs);
        EXPECT_EQ(mw.pushed().size(), 0u);
    }
    ZU_VENC_FrameInfo_t frame = {};
    const auto callback = mw.last().encoder.pfnCallback;
    for (const s32 unknown : {0, 0x99})
        EXPECT_EQ(callback(unknown, ZU_VENC_EVENT_FRAME, &frame, nullptr), ZU_FAILURE);
    EXPECT_CALLS(mw.take_logs(), {"E [_SCREENRECORD_Handle2SlotId]Can't find Transcode SlotID!",
                                  "E [_SCREENRECORD_Handle2SlotId]Can't find Transcode SlotID!"});
}

// Catches a frame dropped for lack of a multiplexer, which is the multiplexer's to refuse.
TEST_F(EncoderOutput, AFrameIsPushedAlsoWhereNothingIsAttached)
{
    steps::close(0);
    ASSERT_TRUE(steps::open(0) && steps::set_video(0));
    forget();
    mw.fail("ZU_TSMUX_PushMediaData", {.result = 7});
    EXPECT_EQ(mw.fire_encoded_frame({.bytes = {1}, .pts = 1}), 7u)
        << "the multiplexer's own answer";
    ASSERT_EQ(steps::set_mux(0), 1u);
    task(0, VENC).u64MuxSrcId = 0;
    EXPECT_EQ(mw.fire_encoded_frame({.bytes = {1}, .pts = 1}), ZU_INVALID_ARGUMENT);
    EXPECT_CALLS(mw.calls_of({"ZU_TSMUX_Push"}),
                 {"ZU_TSMUX_PushMediaData(0x0, 0x0 size=1 pts=0)=7",
                  "ZU_TSMUX_PushMediaData(0x42, 0x0 size=1 pts=0)=8"});
    const std::string at = "E [_SCREENRECORD_VencCbHandler]Error ",
                      failed = ": failed to ZU_TSMUX_PushMediaData(VencCbHandler)";
    EXPECT_CALLS(errors(), {at + "0x7" + failed, at + "0x8" + failed});
    task(0, VENC).u64MuxSrcId = 0x1'0000'0053;
}

// Catches a frame that a busy multiplexer loses or gets twice, and a loop without its pause.
TEST_F(EncoderOutput, ABusyMultiplexerIsTriedEvery200MsUntilItTakesTheFrame)
{
    for (int i = 0; i < 3; i++)
        // each answers one call
        mw.fail("ZU_TSMUX_PushMediaData", {.result = ZU_BUSY});
    const s64 before = mw.now_ms();
    EXPECT_EQ(mw.fire_encoded_frame({.bytes = {1}, .pts = 1}), ZU_OK);
    EXPECT_EQ(mw.count("ZU_TSMUX_PushMediaData"), 4);
    EXPECT_EQ(mw.now_ms() - before, 600);
    EXPECT_TRUE(mw.take_logs().empty());
}

// Catches a stop that waits behind a busy multiplexer, and a push while the record is deleted.
TEST_F(EncoderOutput, AStopEndsTheBusyLoopAndNothingIsPushedAfterIt)
{
    mw.fail("ZU_TSMUX_PushMediaData", {.result = ZU_BUSY, .forever = true});
    std::future<u32> stopped;
    mw.inside("ZU_TSMUX_PushMediaData",
              [&] {
                  stopped = std::async(std::launch::async, [] { return steps::stop(0); });
                  while (task(0, VENC).bTaskExit ==
                         0) // ends with the stop, which waits for this callback
                      std::this_thread::yield();
              },
              {.nth = 3});
    EXPECT_EQ(mw.fire_encoded_frame({.bytes = {1}, .pts = 1}), ZU_BUSY);
    EXPECT_EQ(stopped.get(), 1u);
    EXPECT_EQ(mw.count("ZU_TSMUX_PushMediaData"), 3);

    ASSERT_EQ(steps::start(0), 1u);
    mw.clear_script();
    mw.take_calls();
    // While the encoder's record is being deleted, a frame is taken and not pushed.
    u32 result = 99;
    mw.inside("ZU_OS_DeleteMutex",
              [&] { result = mw.fire_encoded_frame({.bytes = {1}, .pts = 2}); });
    EXPECT_EQ(steps::stop(0), 1u);
    EXPECT_EQ(result, ZU_OK);
    EXPECT_EQ(mw.count("ZU_TSMUX_PushMediaData"), 0);
}

// Catches another event reported as a full buffer, and an accepted event of the audio capture.
TEST_F(EncoderOutput, AFullOutputBufferIsOneLineOnStandardOutput)
{
    testing::internal::CaptureStdout();
    for (const u32 event : {1u, 2u, 3u})
        EXPECT_EQ(mw.fire_event(middleware::Kind::multiplexer, event), ZU_OK);
    EXPECT_EQ(
        testing::internal::GetCapturedStdout(),
        "\033[1;33mE_ZU_TSMUX_EVENT_OUTPUT_BUFFER_FULL: u64CallbackId = 0x1000000c3\n\033[0m");
    EXPECT_EQ(mw.fire_event(middleware::Kind::audio, 1), ZU_FAILURE);
    EXPECT_CALLS(mw.take_logs(), {"E [_SCREENRECORD_AcapCbHandler]Invalid Event!"});
}

} // namespace
