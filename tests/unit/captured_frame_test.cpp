/** From a captured picture to the encoder's input: the drop rules, both ways of handing over, the watermark.
 */
#include <capenc/capture_encode.h>
#include <capenc/frame_ring.h>
#include <srglworker/SrGlWorker.h>

#include "library_test.h"

namespace {

constexpr u64 luma = 0x500000;
constexpr u32 width = 64, height = 64;
constexpr u32 frame_size = width * height * 3 / 2;

class CapturedFrame : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        for (size_t i = 0; i < picture_.size(); i++)
            picture_[i] = static_cast<u8>(i);
        mw.map_physical(luma, picture_.data(), static_cast<u32>(picture_.size()));
        mw.settings.encoder_input_size = frame_size;
    }

    void record_small()
    {
        SCREENRECORD_Init();
        ASSERT_TRUE(steps::open(0) && steps::set_video(0, "cap", nullptr, width, height) &&
                    steps::set_mux(0) && steps::start(0));
        forget();
    }
    /** Opens and starts capture-encode; with a size, in inject mode. */
    void capture_encode(u32 inject_size)
    {
        if (inject_size != 0)
            inject_ = mw.offer_inject_buffer(inject_size);
        CapEnc_OpenParams params = {width, height, 30, 1000000, 1, 0x200, 0};
        ASSERT_EQ(video_capenc_open(&params), 0);
        ASSERT_EQ(video_capenc_start(0), 0);
        forget();
    }
    SCREENRECORD_TaskCtrl_s& venc() { return task(0, E_SCREENRECORD_MODULE_VENC); }

    middleware::Bytes picture_ = middleware::Bytes(frame_size);
    middleware::InjectBuffer inject_ = {};
};

TEST_F(CapturedFrame, APictureIsCopiedGivenBackAndStampedInThatOrder)
{
    record_small();
    mw.set_now_us(7'000'000);
    EXPECT_EQ(mw.fire_picture({.buffer = 3, .luma = luma, .chroma = luma + width * height}), 1u);
    const auto input = mw.encoder_inputs().at(0);
    EXPECT_EQ(mw.last_encoder_input(), picture_);
    EXPECT_EQ(input.u64Pts, 7'000'000u);
    EXPECT_EQ(input.u32InBufIndex, 1u) << "advanced before use";
    EXPECT_EQ(input.bEntireInject, 0);
    EXPECT_EQ(_au64InputPts[1], 7'000'000u);
    EXPECT_EQ(_u64LastPts, 7'000'000u);
    const std::vector<std::string> calls = mw.calls_of({"ZU_OS_Pa2", "ZU_VENC", "ZU_CAP"});
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].substr(0, 20), "ZU_OS_Pa2NonCachedVa");
    EXPECT_EQ(calls[1].substr(0, 19), "ZU_VENC_QueryBuffer");
    EXPECT_EQ(calls[2], "ZU_CAP_ProcessBufDone(0x11, 3)=0");
    EXPECT_EQ(calls[3].substr(0, 27), "ZU_VENC_WriteBufferComplete");
    for (int i = 0; i < 16; i++)
        mw.fire_picture({.luma = luma});
    EXPECT_EQ(venc().u32InBufIndex, 1u) << "sixteen pictures later";
}

TEST_F(CapturedFrame, DroppedPicturesGoBackAndLeaveNoTrace)
{
    capture_encode(0);
    venc().u64StartTimeUs = 8'000'000;
    mw.set_now_us(7'999'999);
    EXPECT_EQ(mw.fire_picture({.buffer = 1, .luma = luma}), 1u);
    EXPECT_EQ(mw.take_logs().back(), "D [_SCREENRECORD_Callback]Drop capture frame, pts(7999999) < "
                                     "startTimeUs(8000000)");
    mw.set_now_us(8'000'000);
    video_capenc_pause();
    EXPECT_EQ(mw.fire_picture({.buffer = 2, .luma = luma}), 1u);
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
    EXPECT_EQ(mw.fire_picture({.luma = luma}), 1u);
    EXPECT_EQ(mw.encoder_inputs().size(), 1u) << "the start time itself is in time";
    EXPECT_EQ(mw.encoder_inputs()[0].bRequestIFrame, 1) << "after a pause as after an open";
}

TEST_F(CapturedFrame, WhatAFailingCallCosts)
{
    record_small();
    mw.fail("ZU_OS_Pa2NonCachedVa");
    EXPECT_EQ(mw.fire_picture({.luma = luma}), 1u);
    EXPECT_EQ(mw.encoder_inputs().size(), 1u) << "the cached mapping serves as well";
    mw.take_logs();

    s64 before = mw.now_ms();
    mw.fail("ZU_VENC_QueryBuffer");
    EXPECT_EQ(mw.fire_picture({.luma = luma}), 1u);
    EXPECT_EQ(mw.now_ms() - before, 100);
    EXPECT_EQ(mw.take_logs()[1], "D [_SCREENRECORD_Callback]venc query buffer is null");
    EXPECT_EQ(venc().u32InBufIndex, 2u);

    mw.set_now_us(3'000'000'000);
    mw.fail("ZU_CAP_ProcessBufDone");
    EXPECT_EQ(mw.fire_picture({.buffer = 5, .luma = luma}), 0u);
    EXPECT_NE(mw.take_logs().back().find("[ ZU_CAP_ProcessBufDone bufindex = 5 fail !!]\033[m"),
              std::string::npos);
    EXPECT_EQ(venc().u32InBufIndex, 2u);
    EXPECT_LT(_u64LastPts, 3'000'000'000u);

    before = mw.now_ms();
    mw.fail("ZU_VENC_WriteBufferComplete");
    EXPECT_EQ(mw.fire_picture({.luma = luma}), 1u);
    EXPECT_EQ(mw.now_ms() - before, 100);
    EXPECT_EQ(mw.take_logs().back(), "E [_SCREENRECORD_Callback]Failed to ZU_VENC_WriteBufferComplete(...)!");
    EXPECT_EQ(venc().u32InBufIndex, 3u);
    EXPECT_GE(_u64LastPts, 3'000'000'000u);
}

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

TEST_F(CapturedFrame, ARunningPipelineAllocatesNothingAndCopiesAPictureOnceAtMost)
{
    for (const u32 inject : {0u, 4 * frame_size}) {
        capture_encode(inject);
        const u64 at = inject ? inject_.physical : luma;
        const middleware::AllocationWindow window;
        middleware::Bytes frame(video_capenc_getMaxEsSize());
        CapEnc_EsInfo info = {};
        for (int i = 0; i < 50; i++) {
            mw.fire_picture({.luma = at});
            mw.fire_encoded_frame({.bytes = {1, 2, 3}, .type = 0xFF});
            EXPECT_EQ(video_capenc_getES(frame.data(), frame.size(), &info), 0);
        }
        EXPECT_EQ(window.count(), 0);
        const size_t frames = 2 * 50 * 3; // an encoded frame is copied into the ring and out of it
        if (copies_are_counted) {
            EXPECT_EQ(window.copied_bytes() - frames, inject ? 0u : 50u * frame_size);
        }
        video_capenc_stop();
        video_capenc_close();
    }
}

/** Where a picture and the inject buffer lie decides whether the watermark is drawn. */
TEST_F(CapturedFrame, TheWatermarkIsDrawnIntoPicturesOfTheInjectBufferOnly)
{
    mw.settings.first_fd = 1;
    capture_encode(4 * frame_size);
    ASSERT_EQ(video_capenc_setWatermark(android::WatermarkParams()), 0);
    const u64 start = inject_.physical, end = start + inject_.size;
    struct Case {
        u64 y, c;
        int renders;
    };
    for (const Case& c : {Case{start, start + 4096, 1}, Case{end - 1, end - 1, 1}, Case{start, end, 0},
                          Case{end, end - 1, 0}, Case{start - 1, start, 0}, Case{start, start - 1, 0}}) {
        mw.take_calls();
        mw.map_physical(c.y & ~u64{0xFFF}, picture_.data(), 4096);
        EXPECT_EQ(mw.fire_picture({.luma = c.y, .chroma = c.c}), 1u);
        EXPECT_EQ(mw.count("SrGlWorker::render"), c.renders) << c.y - start << " " << c.c - start;
    }
    mw.take_calls();
    mw.fire_picture({.luma = start + 64, .chroma = start + 128});
    EXPECT_TRUE(mw.calls_of({"VideoBuffer", "ZU_CAP_P", "ZU_VENC_W"}).front().starts_with("VideoBuffer"))
        << "drawn before the picture is given back";
    const auto buffer = mw.last<android::qrl_native_buffer_t>("VideoBuffer::newBuffer");
    EXPECT_EQ(buffer.version, 513u);
    EXPECT_EQ(buffer.flags, 2u);
    EXPECT_EQ(buffer.format, 35u);
    EXPECT_EQ(buffer.width, width);
    EXPECT_EQ(buffer.height, height);
    EXPECT_EQ(buffer.pitch, width);
    EXPECT_EQ(buffer.addr, inject_.address);
    EXPECT_EQ(buffer.phys, inject_.block_physical);
    EXPECT_EQ(buffer.fd[0], 1);
    EXPECT_EQ(buffer.fd[1], 1);
    EXPECT_EQ(buffer.offset[0], 64 + start - inject_.block_physical);
    EXPECT_EQ(buffer.offset[1], 128 + start - inject_.block_physical);

    mw.take_logs();
    mw.fail("SrGlWorker::render", {.result = 1});
    EXPECT_EQ(mw.fire_picture({.luma = start, .chroma = start}), 1u);
    mw.fail("VideoBuffer::newBuffer");
    EXPECT_EQ(mw.fire_picture({.luma = start, .chroma = start}), 1u);
    EXPECT_CALLS(errors(), {error_of("_SCREENRECORD_Callback", "SrGlWorker::onRender failed"),
                            error_of("_SCREENRECORD_Callback", "VideoBuffer::newBuffer failed")});
}

TEST_F(CapturedFrame, ADescriptorOfZeroOrNoneDrawsNoWatermark)
{
    mw.settings.first_fd = 0;
    capture_encode(4 * frame_size);
    ASSERT_EQ(video_capenc_setWatermark(android::WatermarkParams()), 0);
    mw.fire_picture({.luma = inject_.physical, .chroma = inject_.physical});
    EXPECT_EQ(mw.count("SrGlWorker::render"), 0);
    EXPECT_EQ(mw.encoder_inputs().size(), 1u);
}

} // namespace
