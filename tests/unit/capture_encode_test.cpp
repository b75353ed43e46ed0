/** The capture-encode interface and its watermark: control calls, conversions, failures. */
#include <unistd.h>

#include "capture_encode/watermark.h"
#include "modules/inject_buffer.h"

#include "library_test.h"

namespace {

class CaptureEncode : public LibraryTest {
protected:
    CapEnc_OpenParams params = {1000, 700, 25, 1048576, 2, 0x200, 0x101};

    s32 open() { return video_capenc_open(&params); }
    /** Opens it on an inject buffer, for a watermark. */
    middleware::InjectBuffer open_to_inject()
    {
        const auto buffer = mw.offer_inject_buffer(1008 * 704 * 2);
        mw.settings.first_fd = 4;
        EXPECT_EQ(open(), 0);
        forget();
        return buffer;
    }
    static s32 set_watermark() { return video_capenc_setWatermark(android::WatermarkParams()); }
};

// Catches a changed device call, and a start that reuses an earlier index, descriptor or path.
TEST_F(CaptureEncode, OpenToCloseCallByCall)
{
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(params.width, 1008u);
    EXPECT_EQ(params.height, 704u);
    EXPECT_CALLS(
        mw.take_calls(),
        {"ZU_SYS_Init(0)=0", "ZU_VIDEO_GetCaps()=0", "ZU_VENC_GetCaps()=0", "ZU_AUDIO_GetCaps()=0",
         "ZU_ACAP_GetCaps()=0", "ZU_CAP_Open(path=0)=0 h=0x11",
         "ZU_DISP_GetHandle(name=ZU_DISP_HD0)=0 h=0xd0",
         "ZU_CAP_ConnectInput(0x11, 0xd0, port=0)=0",
         "ZU_CAP_RegisterCallback(0x11, mask=1)=0 id=0x1000000c1",
         "ZU_VENC_Open(name=venc0 color=6 1008x704@25 bitrate=1024 profile=77 level=310 codec=1 "
         "mask=1)=0 h=0x21",
         "ZU_VENC_QueryEntireInjectBuffer(0x21)=0 size=0"});
    // as an earlier run leaves them
    task(0, VENC).u32InBufIndex = task(0, VENC).u32LastInBufIndex = 7;
    task(0, VCAP).stCapOutput.s32OutFd = 7;
    task(0, VCAP).u32CapturePath = 1;
    ASSERT_EQ(video_capenc_start(5), 0);
    EXPECT_EQ(task(0, VENC).u32InBufIndex, 0u);
    EXPECT_EQ(task(0, VENC).u32LastInBufIndex, 0u);
    EXPECT_CALLS(
        mw.take_calls(),
        {"ZU_CAP_CaptureStart(0x11, path=1 osd=1 1008x704@25 format=5 size=2128896 pitch=0 "
         "fd=-1 virt=0 phys=0x0)=0",
         "ZU_OS_CreateMutex(name=Tscode: 4)=0 m0", "ZU_VENC_Start(0x21, 0)=0"});
    EXPECT_EQ(task(0, VENC).u64StartTimeUs, 5);
    ASSERT_EQ(video_capenc_stop(), 0);
    EXPECT_CALLS(mw.take_calls(), {"ZU_CAP_CaptureStop(0x11)=0",
                                   "ZU_CAP_UnRegisterCallback(0x11, id=0x1000000c1 mask=1)=0",
                                   "ZU_CAP_DisconnectInput(0x11, 0xd0)=0", "ZU_VENC_Stop(0x21)=0",
                                   "ZU_OS_DeleteMutex(m0)=0"});
    ASSERT_EQ(video_capenc_close(), 0);
    EXPECT_CALLS(mw.take_calls(),
                 {"ZU_CAP_Close(0x11)=0", "ZU_VENC_Stop(0x21)=0", "ZU_VENC_Close(0x21)=0"});
    EXPECT_EQ(video_capenc_setBitRate(1048576), -1);
}

// Catches a profile or level that becomes another one, and an unknown one without an error line.
TEST_F(CaptureEncode, ProfileAndLevelCodesAreConverted)
{
    const std::pair<u32, u32> levels[] = {{1, 100},      {2, 101},     {4, 110},     {8, 120},
                                          {0x10, 130},   {0x20, 200},  {0x40, 210},  {0x80, 220},
                                          {0x100, 300},  {0x200, 310}, {0x400, 320}, {0x800, 400},
                                          {0x1000, 410}, {3, 0},       {0x2000, 0},  {0, 0}};
    const u32 profiles[] = {0, 66, 77, 0};
    for (const auto& [code, value] : levels) {
        params.level = code;
        params.profile = code % 4;
        forget();
        ASSERT_EQ(open(), 0);
        const auto record = mw.last().encoder;
        EXPECT_EQ(record.u32Level, value) << code;
        EXPECT_EQ(record.u32Profile, profiles[code % 4]);
        EXPECT_EQ(errors().size(), size_t(record.u32Level == 0) + (record.u32Profile == 0));
        video_capenc_close();
    }
}

// Catches a second open, a size beyond the encoder's and a watermark without an inject buffer.
TEST_F(CaptureEncode, RefusalsAndWhatIsLeftOpenAfterThem)
{
    ASSERT_EQ(open(), 0);
    forget();
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(set_watermark(), -1);
    EXPECT_CALLS(errors(),
                 {"E [video_capenc_open] Vcap not closed,Please close vcap!handle =11",
                  "E video_capenc_setWatermark watermark flow is supported in external memory case "
                  "only now"});
    video_capenc_close();

    for (const CapEnc_OpenParams& beyond : {CapEnc_OpenParams{4000, 2144, 30, 1, 1, 1, 0},
                                            {3840, 2176, 30, 1, 1, 1, 0},
                                            {640, 480, 121, 1, 1, 1, 0}}) {
        params = beyond;
        forget();
        EXPECT_EQ(open(), -1);
        EXPECT_CALLS(errors(),
                     {"E [_SCREENRECORD_OpenVenc_NoTs]Out of Venc Support size, 3840x2160@120)",
                      "E [video_capenc_open] _SCREENRECORD_OpenVenc Failed!"});
    }
    params = {0, 0, 0, 0, 1, 1, 0};
    ASSERT_EQ(open(), 0);
    const auto record = mw.last().encoder;
    EXPECT_EQ(record.u32Width + record.u32Height + record.u32FrameRate + record.u32Bitrate, 0u)
        << "defaults are the slot's";
    EXPECT_EQ(_astSlotCtrl[0].stSrcInfo.u32Width, 640u);
}

// Catches a second worker, a worker that survives a stop, and a descriptor that a close keeps.
TEST_F(CaptureEncode, TheWatermarksOrderOfCalls)
{
    const auto buffer = open_to_inject();
    ASSERT_EQ(set_watermark(), 0);
    EXPECT_CALLS(mw.take_calls(),
                 {"ZU_OS_Va2Pa()=0 phys=0x190002000",
                  "ZU_OS_IommuOperation(GET_BUFFINFO phys=0x190002000)=0 start=0x190000000",
                  "ZU_OS_IommuOperation(GET_BUFFD phys=0x190002000)=0 fd=4",
                  "SrGlWorker::newWorker()=1", "SrGlWorker::setWatermark(0x0 at 0,0 opacity=0)=0"});
    EXPECT_EQ(_stInjectBufFd.s32Fd, 4);
    EXPECT_EQ(_stInjectBufFd.u64PhyAddr, buffer.physical);
    EXPECT_EQ(_stInjectBufInfo.u64StartPhyAddr, buffer.block_physical);

    ASSERT_EQ(set_watermark(), 0);
    EXPECT_EQ(mw.take_calls().size(), 1u) << "a worker that exists is only given the new one";
    ASSERT_EQ(video_capenc_start(0), 0);
    EXPECT_EQ(mw.take_calls().front(), "SrGlWorker::prepare()=0");
    ASSERT_EQ(video_capenc_stop(), 0);
    EXPECT_EQ(mw.count("SrGlWorker::reset"), 1);
    mw.take_calls();
    ASSERT_EQ(video_capenc_start(0), 0);
    EXPECT_EQ(mw.count("SrGlWorker::prepare"), 0) << "the stop released it";
    video_capenc_close();
    EXPECT_EQ(mw.calls_of({"ZU_OS_IommuOperation(PUT_BUFFD"}).size(), 1u);
    EXPECT_EQ(_stInjectBufFd.s32Fd, -1);
}

// Catches an inject buffer's address that survives a close: the next capture would write there.
TEST_F(CaptureEncode, ARecordingBehindItDoesNotCaptureIntoItsInjectBuffer)
{
    for (const u32 slot : {0u, 1u}) {
        SCOPED_TRACE(slot);
        ASSERT_TRUE(SCREENRECORD_Init());
        open_to_inject();
        video_capenc_close();
        ASSERT_TRUE(steps::record_pictures(slot, 640, 480));
        EXPECT_EQ(mw.last().capture.stOutput.u64VirtAddr, 0u);
        steps::close(slot);
        SCREENRECORD_DeInit();
    }
}

// Catches a stop that deletes the worker under a call of it, from which a client may stop.
TEST_F(CaptureEncode, AStopFromInsideTheWatermarksWorkerLeavesItAliveUntilItReturns)
{
    for (const char* const call :
         {"SrGlWorker::setWatermark", "SrGlWorker::prepare", "SrGlWorker::reset"}) {
        SCOPED_TRACE(call);
        open_to_inject();
        mw.inside(call, [] {
            EXPECT_EQ(video_capenc_stop(), 0);
            EXPECT_EQ(middleware::live_workers, 1);
        });
        set_watermark();
        video_capenc_start(0);
        EXPECT_EQ(video_capenc_stop(), 0);
        EXPECT_EQ(middleware::live_workers, 0);
        EXPECT_EQ(mw.count("SrGlWorker::reset"), 1);
        video_capenc_close();
    }
}

/** Goes after all that is static and has no such priority. */
struct LastLook {
    bool wanted = false;
    ~LastLook()
    {
        if (wanted)
            _exit(middleware::live_workers);
    }
};
__attribute__((init_priority(101))) LastLook last_look;

// Catches a worker that goes with the static objects: callbacks may draw until the process is gone.
TEST_F(CaptureEncode, TheWatermarksWorkerOutlivesAnExit)
{
    const auto exit_while_it_draws = [&] {
        open_to_inject();
        set_watermark();
        last_look.wanted = true;
        exit(0);
    };
    EXPECT_EXIT(exit_while_it_draws(), testing::ExitedWithCode(1), "");
}

// Catches an earlier open's inject buffer that serves a watermark or a start after a failed open.
TEST_F(CaptureEncode, AnOpenThatFailedLeavesNoInjectBufferBehind)
{
    open_to_inject();
    video_capenc_close();
    mw.fail("ZU_VENC_QueryEntireInjectBuffer");
    ASSERT_EQ(open(), -1);
    forget();
    EXPECT_EQ(set_watermark(), -1);
    EXPECT_CALLS(errors(),
                 {"E video_capenc_setWatermark watermark flow is supported in external memory case "
                  "only now"});
    Cap_OpenParams stills = {640, 480, 0, 0, 1};
    ASSERT_EQ(video_cap_open(&stills), 0);
    // rounds no address, since there is none
    EXPECT_EQ(video_capenc_start(0), 0);
}

// Catches a size that another check refuses before the encoder names what it can do.
TEST_F(CaptureEncode, ASizeBeyondTheEncoderIsRefusedAsSuch)
{
    const struct {
        u32 width, height;
        /** modulo 2^32 */
        u32 frame_size;
    } cases[] = {{3841, 64, 370176}, {100000, 100000, 2116698112}, {0xFFFFFFF0, 1088, 2147457536}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.width);
        CapEnc_OpenParams params = {c.width, c.height, 30, 1000000, 1, 0x200, 0};
        forget();
        EXPECT_EQ(video_capenc_open(&params), -1);
        EXPECT_CALLS(errors(),
                     {"E [_SCREENRECORD_OpenVenc_NoTs]Out of Venc Support size, 3840x2160@120)",
                      "E [video_capenc_open] _SCREENRECORD_OpenVenc Failed!"});
        EXPECT_EQ(_astSlotCtrl[0].stSrcInfo.u32FrameSize, c.frame_size);
        EXPECT_EQ(mw.count("ZU_CAP_Close"), 1);
    }
}

// Catches a start without its worker, and a failed start that leaves slot or worker behind.
TEST_F(CaptureEncode, AWorkerThatIsNotReadyStartsAndClosesNothing)
{
    open_to_inject();
    mw.fail("SrGlWorker::setWatermark", {.result = 1});
    EXPECT_EQ(set_watermark(), -1);
    mw.fail("SrGlWorker::prepare", {.result = 1});
    EXPECT_EQ(video_capenc_start(0), -1) << "the worker exists, though it refused the watermark";
    EXPECT_NE(task(0, VCAP).u32Handle, 0u);
    EXPECT_EQ(task(0, VCAP).bRunning, 0);
    mw.fail("ZU_CAP_CaptureStart");
    EXPECT_EQ(video_capenc_start(0), -1);
    EXPECT_EQ(task(0, VCAP).u32Handle, 0u);
    EXPECT_EQ(mw.count("SrGlWorker::reset"), 1);
}

} // namespace
