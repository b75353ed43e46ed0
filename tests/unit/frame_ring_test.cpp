/** The ring of three encoded frames: what it keeps, drops and stamps. */
#include <capenc/frame_ring.h>
#include <core/control_lock.h>

#include "library_test.h"

namespace {

constexpr u32 two_mib = 2 * 1024 * 1024;

class FrameRing : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        CapEnc_OpenParams params = {640, 480, 30, 1000000, 1, 0x200, 0};
        ASSERT_EQ(video_capenc_open(&params), 0);
        ASSERT_EQ(video_capenc_start(0), 0);
        _u64LastPts = 0;
        for (CrossThread<u64>& pts : _au64InputPts)
            pts = 0;
        forget();
    }

    u32 deliver(u8 name, bool key, u32 index = 1)
    {
        return mw.fire_encoded_frame({.bytes = {name}, .type = u8(key ? 0xFF : 1), .input_index = index});
    }
    /** Names of the frames that can be taken, one after the other. */
    std::string take_all()
    {
        std::string names;
        u8 buffer[16];
        CapEnc_EsInfo info = {};
        while (video_capenc_getES(buffer, sizeof(buffer), &info) == 0 && info.u64DataSize != 0)
            names += static_cast<char>(buffer[0]);
        return names;
    }
};

TEST_F(FrameRing, AnOverflowKeepsWhatFollowsTheNextKeyFrame)
{
    struct Case {
        const char* frames; /**< upper case = key frame; the first in the ring is one, else nothing gets in */
        const char* kept;   /**< what can be taken afterwards */
        bool waits;         /**< for a key frame */
    };
    const Case cases[] = {
        {"Abcd", "", true},     {"ABcd", "Bcd", false}, {"AbCd", "Cd", false}, {"AbcD", "D", false},
        {"ABCd", "BCd", false}, {"ABCD", "BCD", false}, {"AbcdE", "E", false}, {"abC", "C", false},
        {"Abc", "Abc", false},  {"AbcdeF", "F", false}, {"ABcde", "", true},   {"AbCde", "Cde", false},
        {"", "", true},         {"AbcdEfgh", "", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.frames);
        take_all();
        video_capenc_requestKeyFrame();
        for (const char* name = c.frames; *name; name++)
            EXPECT_EQ(deliver(static_cast<u8>(*name), *name < 'a'), ZU_OK);
        EXPECT_EQ(_bWaitKeyFrame, c.waits);
        EXPECT_EQ(take_all(), c.kept);
    }
}

TEST_F(FrameRing, AKeyFrameRequestDropsUpToTheNextOne)
{
    // The first is taken before the request, for a key frame at the head would satisfy it.
    for (const auto& [frames, kept] : {std::pair("Abc", ""), {"AbC", "C"}, {"ABc", "Bc"}, {"A", ""}}) {
        SCOPED_TRACE(frames);
        video_capenc_requestKeyFrame();
        for (const char* name = frames; *name; name++)
            deliver(static_cast<u8>(*name), *name < 'a');
        u8 buffer[16];
        CapEnc_EsInfo info = {};
        video_capenc_getES(buffer, sizeof(buffer), &info);
        EXPECT_EQ(video_capenc_requestKeyFrame(), 0);
        EXPECT_EQ(_bWaitKeyFrame, *kept == 0);
        EXPECT_EQ(take_all(), kept);
    }
    deliver('A', true);
    video_capenc_requestKeyFrame();
    EXPECT_EQ(take_all(), "A");
}

TEST_F(FrameRing, TheFirstFrameHandedOutIsAKeyFrameAndSaysSo)
{
    deliver('a', false);
    deliver('B', true);
    mw.fire_encoded_frame({.bytes = {'c', 'c'}, .type = 0, .input_index = 1});
    u8 buffer[16] = {};
    CapEnc_EsInfo info = {};
    ASSERT_EQ(video_capenc_getES(buffer, sizeof(buffer), &info), 0);
    EXPECT_EQ(info.bKeyFrame + 2 * info.bTypeZero, 1);
    ASSERT_EQ(video_capenc_getES(buffer, sizeof(buffer), &info), 0);
    EXPECT_EQ(info.bKeyFrame + 2 * info.bTypeZero, 2);
    EXPECT_EQ(info.u64DataSize, 2u);
    buffer[0] = 'x';
    info.u64Pts = 77;
    ASSERT_EQ(video_capenc_getES(buffer, sizeof(buffer), &info), 0);
    EXPECT_EQ(info.u64DataSize, 0u);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(info.u64Pts, 77u) << "an empty ring touches nothing else";
}

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
    for (const Case& c : {Case{0xFF, 3, 5000}, Case{1, 0, 1000}, Case{1, 15, 1015}, Case{1, 16, 5000},
                          Case{0, 0xFFFFFFFF, 5000}}) {
        u8 buffer[16];
        CapEnc_EsInfo info = {};
        EXPECT_EQ(mw.fire_encoded_frame({.bytes = {1}, .type = c.type, .pts = 42, .input_index = c.index}),
                  ZU_OK);
        ASSERT_EQ(video_capenc_getES(buffer, sizeof(buffer), &info), 0);
        EXPECT_EQ(info.u64Pts, c.pts);
    }
    EXPECT_EQ(task(0, E_SCREENRECORD_MODULE_VENC).u32LastInBufIndex, 0xFFFFFFFF);
}

TEST_F(FrameRing, NoTimeIsRefusedAsTheFirstOnly)
{
    _u64LastPts = ~u64{0};
    EXPECT_EQ(deliver('A', true), ZU_OK);
    EXPECT_CALLS(errors(), {error_of("_SCREENRECORD_VencCbHandler_NoTs", "Invalid pts fstpts=0,pts=-1")});
    _u64LastPts = 5;
    deliver('B', true);
    _u64LastPts = ~u64{0};
    deliver('C', true);
    EXPECT_EQ(take_all(), "BC");
}

TEST_F(FrameRing, AFrameBeyondTwoMebibytesCostsWhatDependsOnIt)
{
    mw.fire_encoded_frame({.bytes = middleware::Bytes(two_mib + 1), .type = 0xFF});
    EXPECT_EQ(mw.take_logs().back(),
              "D [_SCREENRECORD_VencCbHandler_NoTs]drop u64Pts: 0, u32DataSize: 2097153, u8FrameType: 255");
    deliver('b', false);
    EXPECT_EQ(_bWaitKeyFrame, 1);
    deliver('C', true);
    EXPECT_EQ(take_all(), "C");
}

TEST_F(FrameRing, ABufferThatIsTooSmallCostsTheFrame)
{
    CapEnc_EsInfo info = {};
    mw.fire_encoded_frame({.bytes = {1, 2, 3, 4}, .type = 0xFF});
    EXPECT_EQ(video_capenc_getES(nullptr, 3, &info), -1);
    EXPECT_EQ(info.u64DataSize, 4u);
    EXPECT_CALLS(errors(), {error_of("video_capenc_getES_lock",
                                     "bufferSize(3) is smaller than dataSize(4), drop frame !")});
    deliver('b', false);
    EXPECT_EQ(take_all(), "b");
}

TEST_F(FrameRing, WhatTheCallbackRefusesAndHow)
{
    EXPECT_EQ(mw.fire_encoded_frame({.bytes = {1}, .null_record = true}), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(mw.fire_encoded_frame({.bytes = {1}, .type = 0xFF, .event = 2}), ZU_OK);
    EXPECT_EQ(mw.fire_encoded_frame({.type = 0xFF, .size = 5}), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(take_all(), "");
    EXPECT_EQ(task(0, E_SCREENRECORD_MODULE_VENC).bFirstPtsSet, 0);
}

TEST_F(FrameRing, WithoutTheLockTheRingStaysUntouched)
{
    deliver('A', true);
    CapEnc_EsInfo info = {};
    info.u64DataSize = 9;
    mw.fail("ZU_OS_ObtainMutex", {.forever = true});
    EXPECT_EQ(deliver('c', false), ZU_FAILURE);
    EXPECT_EQ(video_capenc_getES(nullptr, 0, &info), -1);
    EXPECT_EQ(info.u64DataSize, 0u);
    EXPECT_EQ(video_capenc_requestKeyFrame(), 0);
    mw.clear_script();
    EXPECT_EQ(take_all(), "A");
}

TEST_F(FrameRing, FramesThatWaitCanBeTakenAfterTheStopAndNotAfterTheClose)
{
    deliver('A', true);
    EXPECT_EQ(video_capenc_stop(), 0);
    EXPECT_EQ(take_all(), "A");
    EXPECT_EQ(video_capenc_close(), 0);
    EXPECT_EQ(deliver('B', true), ZU_FAILURE);
    EXPECT_EQ(take_all(), "");
}

/** A reader in its loop, an encoder in its callback, and a client that starts and stops; ThreadSanitizer
 * judges. */
TEST_F(FrameRing, ReadersAndEncoderMayRunThroughStopAndClose)
{
    mw.run_freely(true);
    std::atomic<bool> stop{false};
    std::future<u32> encoder = mw.fire_on_thread([&] {
        for (u32 i = 0; !stop; i++) {
            deliver('x', i % 4 == 0);
            ZU_OS_DelayTask(1);
        }
        return 0u;
    });
    std::future<u32> reader = mw.fire_on_thread([&] {
        for (u32 i = 0; !stop; i++) {
            take_all();
            i % 2 ? video_capenc_requestKeyFrame() : video_capenc_setBitRate(1000000);
            ZU_OS_DelayTask(1);
        }
        return 0u;
    });
    for (int round = 0; round < 200; round++) {
        video_capenc_stop();
        if (round % 2) {
            video_capenc_close();
            CapEnc_OpenParams params = {640, 480, 30, 1000000, 1, 0x200, 0};
            ASSERT_EQ(video_capenc_open(&params), 0);
        }
        ASSERT_EQ(video_capenc_start(0), 0);
        mw.take_calls();
        mw.take_logs();
    }
    stop = true;
    encoder.get();
    reader.get();
    mw.run_freely(false);
}

} // namespace
