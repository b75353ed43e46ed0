/** From a captured picture to the encoder's input: drop rules, copy and injection, watermark. */
#include <numeric>

#include "capture_encode/frame_ring.h"
#include "modules/inject_buffer.h"
#include <srglworker/SrGlWorker.h>

#include "library_test.h"

namespace {

constexpr u32 width = 64, height = 64;
constexpr u32 frame_size = width * height * 3 / 2;

class CapturedFrame : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        std::iota(picture_.begin(), picture_.end(), u8{0});
        mw.map_physical(luma_address, picture_.data(), static_cast<u32>(picture_.size()));
        mw.settings.encoder_input_size = frame_size;
    }

    /** Opens and starts capture-encode; with a size, in inject mode. */
    void capture_encode(u32 inject_size)
    {
        if (inject_size != 0)
            inject_ = mw.offer_inject_buffer(inject_size);
        ASSERT_TRUE(steps::capture_encode(width, height));
        forget();
    }
    SCREENRECORD_TaskCtrl_s& venc() { return task(0, VENC); }

    Bytes picture_ = Bytes(frame_size);
    middleware::InjectBuffer inject_ = {};
};

// Catches a picture given back before its copy, a damaged one, an index beyond its time stamps.
TEST_F(CapturedFrame, APictureIsCopiedGivenBackAndStampedInThatOrder)
{
    ASSERT_TRUE(steps::record_pictures(0, width, height));
    forget();
    // which an earlier capture-encode may have left
    _bWaitKeyFrame = 0;
    mw.set_now_us(7'000'000);
    EXPECT_EQ(mw.fire_picture(
                  {.buffer = 3, .luma = luma_address, .chroma = luma_address + width * height}),
              1u);
    EXPECT_EQ(mw.last_encoder_input(), picture_);
    EXPECT_EQ(_au64InputPts[1], 7'000'000u);
    EXPECT_EQ(_u64LastPts, 7'000'000u);
    EXPECT_CALLS(
        mw.take_calls(),
        {"ZU_OS_Pa2NonCachedVa(0x500000)=0", "ZU_VENC_QueryBuffer(0x21)=0",
         "ZU_CAP_ProcessBufDone(0x11, 3)=0",
         "ZU_VENC_WriteBufferComplete(0x21, index=1 size=6144 pts=7000000 inject=0 key=0)=0"});
    for (int i = 0; i < 16; i++)
        mw.fire_picture({.luma = luma_address});
    EXPECT_EQ(venc().u32InBufIndex, 1u) << "sixteen pictures later";
}

// Catches a dropped picture that the capture never gets back or that counts; a start off by one.
TEST_F(CapturedFrame, DroppedPicturesGoBackAndLeaveNoTrace)
{
    capture_encode(0);
    venc().u64StartTimeUs = 8'000'000;
    mw.set_now_us(7'999'999);
    EXPECT_EQ(mw.fire_picture({.buffer = 1, .luma = luma_address}), 1u);
    EXPECT_EQ(mw.take_logs().back(),
              "D [_SCREENRECORD_Callback]Drop capture frame, pts(7999999) < startTimeUs(8000000)");
    mw.set_now_us(8'000'000);
    video_capenc_pause();
    EXPECT_EQ(mw.fire_picture({.buffer = 2, .luma = luma_address}), 1u);
    EXPECT_EQ(mw.take_logs().back(),
              "D [_SCREENRECORD_Callback]Drop capture frame, pts(8000000), cause by pausing");
    video_capenc_resume();
    EXPECT_EQ(mw.fire_picture({.buffer = 3, .luma = 0x1}), 1u);
    EXPECT_EQ(mw.take_logs().back(),
              "E [_SCREENRECORD_Callback]Fail to convert phyYAddr(0x1) to virtual address");
    EXPECT_CALLS(mw.calls_of({"ZU_CAP", "ZU_VENC"}),
                 {"ZU_CAP_ProcessBufDone(0x11, 1)=0", "ZU_CAP_ProcessBufDone(0x11, 2)=0",
                  "ZU_CAP_ProcessBufDone(0x11, 3)=0"});
    EXPECT_EQ(venc().u32InBufIndex, 0u);
    EXPECT_EQ(mw.fire_picture({.luma = luma_address}), 1u);
    const auto inputs = mw.encoder_inputs();
    ASSERT_EQ(inputs.size(), 1u) << "the start time itself is in time";
    EXPECT_EQ(inputs[0].bRequestIFrame, 1) << "after a pause as after an open";
}

// Catches a failing call that costs more than its picture, waits wrongly, or stamps no input.
TEST_F(CapturedFrame, WhatAFailingCallCosts)
{
    struct Case {
        const char* call;
        u32 answer = 1;
        s64 ms = 0;
        bool stamped = true;
    };
    ASSERT_TRUE(steps::record_pictures(0, width, height));
    u32 index = 0;
    for (const Case& c : {Case{"ZU_OS_Pa2NonCachedVa"}, Case{"ZU_VENC_QueryBuffer", 1, 100},
                          Case{"ZU_CAP_ProcessBufDone", 0, 0, false},
                          Case{"ZU_VENC_WriteBufferComplete", 1, 100}}) {
        SCOPED_TRACE(c.call);
        const s64 before = mw.now_ms();
        mw.fail(c.call);
        EXPECT_EQ(mw.fire_picture({.luma = luma_address}), c.answer);
        EXPECT_EQ(mw.now_ms() - before, c.ms);
        index += c.stamped;
        EXPECT_EQ(venc().u32InBufIndex, index);
        EXPECT_EQ(_au64InputPts[index], _u64LastPts);
    }
    EXPECT_EQ(mw.encoder_inputs().size(), 2u)
        << "the cached mapping, and no picture at all, serve as well";
    const std::string said = "D [_SCREENRECORD_Callback]venc query buffer is null";
    EXPECT_EQ(std::ranges::count(mw.take_logs(), said), 1);
}

// Catches an injected picture that is copied, or announced at another address or with another size.
TEST_F(CapturedFrame, InInjectModeTheEncoderIsPointedAtThePicture)
{
    capture_encode(4 * frame_size);
    EXPECT_EQ(mw.fire_picture({.luma = inject_.physical + frame_size}), 1u);
    const auto input = mw.encoder_inputs().at(0);
    EXPECT_EQ(input.pu8Data, inject_.address + frame_size);
    EXPECT_EQ(input.bEntireInject, 1);
    EXPECT_EQ(input.u32DataSize, _astSlotCtrl[0].stSrcInfo.u32FrameSize);
    EXPECT_EQ(mw.count("ZU_VENC_QueryBuffer"), 0);
}

// Catches an allocation per frame, and a second copy of a picture or an encoded frame.
TEST_F(CapturedFrame, ARunningPipelineAllocatesNothingAndCopiesAPictureOnceAtMost)
{
    for (const u32 inject : {0u, 4 * frame_size}) {
        capture_encode(inject);
        const u64 at = inject ? inject_.physical : luma_address;
        const middleware::AllocationWindow window;
        Bytes frame(video_capenc_getMaxEsSize());
        CapEnc_EsInfo info = {};
        for (int i = 0; i < 50; i++) {
            mw.fire_picture({.luma = at});
            mw.fire_encoded_frame({.bytes = {1, 2, 3}, .type = 0xFF});
            EXPECT_EQ(video_capenc_getES(frame.data(), frame.size(), &info), 0);
        }
        EXPECT_EQ(window.count(), 0);
        // an encoded frame is copied into the ring and out of it
        const size_t frames = 2 * 50 * 3;
        if (copies_are_counted) {
            EXPECT_EQ(window.copied_bytes() - frames, inject ? 0u : 50u * frame_size);
        }
        video_capenc_stop();
        video_capenc_close();
    }
}

// Catches a watermark outside of the inject buffer, and a picture at its edge without one.
TEST_F(CapturedFrame, TheWatermarkIsDrawnIntoPicturesOfTheInjectBufferOnly)
{
    for (const s32 fd : {0, 1}) { // as the double counts them; the library treats 0 as none
        video_capenc_stop();
        video_capenc_close();
        capture_encode(4 * frame_size);
        ASSERT_EQ(video_capenc_setWatermark(android::WatermarkParams()), 0);
        mw.fire_picture({.luma = inject_.physical, .chroma = inject_.physical});
        EXPECT_EQ(mw.count("SrGlWorker::render"), fd);
    }
    const u64 start = inject_.physical, end = start + inject_.size;
    struct Case {
        u64 y, c;
        int renders;
    };
    for (const Case& c :
         {Case{start, start + 4096, 1}, Case{end - 1, end - 1, 1}, Case{start, end, 0},
          Case{end, end - 1, 0}, Case{start - 1, start, 0}, Case{start, start - 1, 0}}) {
        mw.take_calls();
        mw.map_physical(c.y & ~u64{0xFFF}, picture_.data(), 4096);
        EXPECT_EQ(mw.fire_picture({.luma = c.y, .chroma = c.c}), 1u);
        EXPECT_EQ(mw.count("SrGlWorker::render"), c.renders) << c.y - start << " " << c.c - start;
    }
    mw.take_calls();
    mw.fire_picture({.luma = start + 64, .chroma = start + 128});
    EXPECT_CALLS(mw.calls_of({"VideoBuffer", "SrGl", "ZU_CAP"}),
                 {"VideoBuffer::newBuffer(version=0x201 flags=2 format=0x23 64x64 pitch=64 addr=" +
                      middleware::hex(reinterpret_cast<uintptr_t>(inject_.address)) +
                      " phys=0x190000000 fd=1,1 offset=8256,8320)=1",
                  "SrGlWorker::render()=0", "ZU_CAP_ProcessBufDone(0x12, 0)=0"});
    mw.take_logs();
    mw.fail("SrGlWorker::render", {.result = 1});
    EXPECT_EQ(mw.fire_picture({.luma = start, .chroma = start}), 1u);
    mw.fail("VideoBuffer::newBuffer");
    EXPECT_EQ(mw.fire_picture({.luma = start, .chroma = start}), 1u);
    EXPECT_CALLS(errors(), {"E [_SCREENRECORD_Callback]SrGlWorker::onRender failed",
                            "E [_SCREENRECORD_Callback]VideoBuffer::newBuffer failed"});
}

} // namespace
