/** The ring of three encoded frames: which ones it keeps and drops, and their times. */
#include "capture_encode/frame_ring.h"

#include "library_test.h"

namespace {

class FrameRing : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        ASSERT_TRUE(steps::capture_encode());
        _u64LastPts = 0;
        std::ranges::fill(_au64InputPts, u64{0});
        forget();
    }

    /**
     * A frame for each letter, a capital being a key frame; '!' is too large, '-' takes one, '?'
     * requests a key frame.
     */
    u32 play(std::string_view script)
    {
        u32 answer = ZU_OK;
        for (const char step : script)
            if (step == '-')
                take();
            else if (step == '?')
                EXPECT_EQ(video_capenc_requestKeyFrame(), 0);
            else if (step == '!')
                mw.fire_encoded_frame({.bytes = {1}, .type = 0xFF, .size = 0xFFFFFFFF});
            else
                answer = mw.fire_encoded_frame({.bytes = {static_cast<u8>(step)},
                                                .type = u8(step < 'a' ? 0xFF : 1),
                                                .input_index = 1});
        return answer;
    }
    bool take()
    {
        return video_capenc_getES(buffer, sizeof(buffer), &info) == 0 && info.u64DataSize != 0;
    }
    /** Names of the frames that can be taken, one after the other. */
    std::string take_all()
    {
        std::string names;
        while (take())
            names += static_cast<char>(buffer[0]);
        return names;
    }

    u8 buffer[16] = {};
    CapEnc_EsInfo info = {};
};

// Catches a frame without its dropped key frame, and one dropped needlessly or without a log line.
TEST_F(FrameRing, AnOverflowAndARequestKeepWhatFollowsTheNextKeyFrame)
{
    struct Case {
        /** the first in the ring is a key frame, otherwise nothing gets in */
        const char* script;
        /** the frames that can be read afterwards */
        const char* kept;
        /** for a key frame */
        bool waits;
    };
    const Case cases[] = {
        {"Abcd", "", true},     {"ABcd", "Bcd", false},   {"AbCd", "Cd", false},
        {"AbcD", "D", false},   {"ABCd", "BCd", false},   {"ABCD", "BCD", false},
        {"AbcdE", "E", false},  {"abC", "C", false},      {"Abc", "Abc", false},
        {"AbcdeF", "F", false}, {"ABcde", "", true},      {"AbCde", "Cde", false},
        {"", "", true},         {"AbcdEfgh", "", true},   {"Abc-?", "", true},
        {"AbC-?", "C", false},  {"ABc-?", "Bc", false},   {"A-?", "", true},
        {"A?", "A", false},     {"!bC", "C", false},      {"A!bc", "A", true},
        {"ABc!d", "Bc", true},  {"ABc!dE", "BcE", false}, {"A!?b", "A", true},
        {"A!?bC", "AC", false}, {"A!C?d", "ACd", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.script);
        play("---?");
        mw.take_logs();
        EXPECT_EQ(play(c.script), ZU_OK);
        EXPECT_EQ(_bWaitKeyFrame, c.waits);
        const auto dropped = std::ranges::count_if(
            mw.take_logs(), [](const auto& line) { return line.find("]drop ") != line.npos; });
        const std::string taken = take_all(), script = c.script;
        EXPECT_EQ(taken, c.kept);
        const auto others = std::ranges::count(script, '?') + 2 * std::ranges::count(script, '-');
        EXPECT_EQ(dropped, std::ssize(script) - others - std::ssize(taken));
    }
}

// Catches a frame without its key frame after a refused open, which resets the indices only.
TEST_F(FrameRing, ARefusedOpenLeavesNothingToBeTakenWithoutAKeyFrame)
{
    play("A-B");
    // takes the capture out of the pipeline
    EXPECT_EQ(video_cap_close(), 0);
    EXPECT_FALSE(steps::capture_encode());
    EXPECT_CALLS(errors(), {"E [video_capenc_open] Venc not closed,Please close venc!handle =21"});
    // C takes A's place, d finds B in its own
    play("Cd");
    EXPECT_TRUE(_bWaitKeyFrame);
    EXPECT_EQ(take_all(), "");
    EXPECT_EQ(play("eF"), ZU_OK);
    EXPECT_EQ(take_all(), "F");
}

// Catches a frame before the first key frame, a wrong type, and an empty ring that writes anything.
TEST_F(FrameRing, TheFirstFrameHandedOutIsAKeyFrameAndSaysSo)
{
    play("aB");
    mw.fire_encoded_frame({.bytes = {'c', 'c'}, .type = 0, .input_index = 1});
    ASSERT_TRUE(take());
    EXPECT_EQ(info.bKeyFrame + 2 * info.bTypeZero, 1);
    ASSERT_TRUE(take());
    EXPECT_EQ(info.bKeyFrame + 2 * info.bTypeZero, 2);
    EXPECT_EQ(info.u64DataSize, 2u);
    buffer[0] = 'x';
    info.u64Pts = 77;
    ASSERT_EQ(video_capenc_getES(buffer, sizeof(buffer), &info), 0);
    EXPECT_EQ(info.u64DataSize, 0u);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(info.u64Pts, 77u) << "an empty ring touches only the size";
}

// Catches a frame that gets another picture's time, and an index beyond the table.
TEST_F(FrameRing, FramesGetTheTimeOfTheirPicture)
{
    for (u32 i = 0; i < 16; i++)
        _au64InputPts[i] = 1000 + i;
    _u64LastPts = 5000;
    struct Case {
        u8 type;
        u32 index;
        u64 pts;
    };
    for (const Case& c : {Case{0xFF, 3, 5000}, Case{1, 0, 1000}, Case{1, 15, 1015},
                          Case{1, 16, 5000}, Case{0, 0xFFFFFFFF, 5000}}) {
        EXPECT_EQ(mw.fire_encoded_frame(
                      {.bytes = {1}, .type = c.type, .pts = 42, .input_index = c.index}),
                  ZU_OK);
        ASSERT_TRUE(take());
        EXPECT_EQ(info.u64Pts, c.pts);
    }
    EXPECT_EQ(task(0, VENC).u32LastInBufIndex, 0xFFFFFFFF);
}

// Catches a recording that starts without a valid time, and a later frame dropped for lack of one.
TEST_F(FrameRing, NoTimeIsRefusedAsTheFirstOnly)
{
    _u64LastPts = ~u64{0};
    EXPECT_EQ(play("A"), ZU_OK);
    EXPECT_CALLS(errors(), {"E [_SCREENRECORD_VencCbHandler_NoTs]Invalid pts fstpts=0,pts=-1"});
    _u64LastPts = 5;
    play("B");
    EXPECT_EQ(task(0, VENC).u64FirstPts, 5u);
    _u64LastPts = ~u64{0};
    play("C");
    EXPECT_EQ(take_all(), "BC");
}

// Catches an event without record or data, or of another kind, that enters the ring.
TEST_F(FrameRing, WhatTheCallbackRefusesAndHow)
{
    EXPECT_EQ(mw.fire_encoded_frame({.bytes = {1}, .null_record = true}), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(mw.fire_encoded_frame({.bytes = {1}, .type = 0xFF, .event = 2}), ZU_OK);
    EXPECT_EQ(mw.fire_encoded_frame({.type = 0xFF, .size = 5}), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(take_all(), "");
    EXPECT_EQ(task(0, VENC).bFirstPtsSet, 0);
}

// Catches a change of the ring without its lock.
TEST_F(FrameRing, WithoutTheLockTheRingStaysUntouched)
{
    play("A");
    info.u64DataSize = 9;
    mw.fail("ZU_OS_ObtainMutex", {.forever = true});
    EXPECT_EQ(play("c"), ZU_FAILURE);
    EXPECT_EQ(video_capenc_getES(nullptr, 0, &info), -1);
    EXPECT_EQ(info.u64DataSize, 0u);
    EXPECT_EQ(video_capenc_requestKeyFrame(), 0);
    mw.clear_script();
    EXPECT_EQ(take_all(), "A");
}

// Catches a stop that discards finished frames, and a close that leaves them to the next recording.
TEST_F(FrameRing, FramesThatWaitCanBeTakenAfterTheStopAndNotAfterTheClose)
{
    play("A");
    EXPECT_EQ(video_capenc_stop(), 0);
    EXPECT_EQ(take_all(), "A");
    EXPECT_EQ(video_capenc_close(), 0);
    EXPECT_EQ(play("B"), ZU_FAILURE);
    EXPECT_EQ(take_all(), "");
}

// Catches a data race between reader, callback and a restarting client, under ThreadSanitizer.
TEST_F(FrameRing, ReadersAndEncoderMayRunThroughStopAndClose)
{
    u32 delivered = 0, turns = 0;
    const auto encoder = [&] { play(delivered++ % 4 == 0 ? "X" : "x"); };
    const auto reader = [&] {
        take_all();
        turns++ % 2 ? video_capenc_requestKeyFrame() : video_capenc_setBitRate(1000000);
    };
    under_fire({encoder, reader}, [&] {
        for (int round = 0; round < 200; round++) {
            video_capenc_stop();
            if (round % 2)
                video_capenc_close();
            ASSERT_TRUE(round % 2 ? steps::capture_encode() : video_capenc_start(0) == 0);
            mw.take_calls();
            mw.take_logs();
        }
    });
}

} // namespace
