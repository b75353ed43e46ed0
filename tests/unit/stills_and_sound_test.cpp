/** Still frames, PCM, and how the interfaces of slot 0 exclude one another. */
#include "library_test.h"

namespace {

class StillFrames : public LibraryTest {
protected:
    static s32 open(u32 width, u32 height, u32 format, s32 count, u32 osd = 0)
    {
        Cap_OpenParams params = {width, height, format, osd, count};
        return video_cap_open(&params);
    }
};

TEST_F(StillFrames, BuffersAreDescribedAsTheyAreCapturedInto)
{
    struct Case {
        u32 width, height, format;
        u32 pitch;
        u64 frame_size;
        u32 capture_format;
    };
    const Case cases[] = {
        {0, 0, 0, 1280, 614400, 0},        {640, 480, 1, 1280, 614400, 1}, {640, 480, 2, 2560, 1228800, 2},
        {1920, 1080, 3, 2880, 3112960, 5}, {1, 1, 2, 4, 4096, 2},          {1024, 1, 2, 4096, 4096, 2},
        {1025, 1, 2, 4100, 8192, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "/" + std::to_string(c.format));
        ASSERT_EQ(open(c.width, c.height, c.format, 3, 1), 0);
        Cap_Buffer buffers[3] = {};
        EXPECT_EQ(video_cap_getCaptureBuffers(buffers, 2), -1);
        ASSERT_EQ(video_cap_getCaptureBuffers(buffers, 3), 0);
        const u32 width = c.width ? c.width : 640, height = c.height ? c.height : 480;
        const auto allocation = mw.last<ZU_OS_IommuAlloc_t>("ZU_OS_AllocateIommuMemory");
        EXPECT_STREQ(allocation.acTag, "vdec_fb");
        EXPECT_EQ(allocation.u32Size, 3 * c.frame_size);
        EXPECT_EQ(allocation.u32Flags, 3u);
        for (u32 i = 0; i < 3; i++) {
            const Cap_Buffer& b = buffers[i];
            EXPECT_EQ(b.fd[0], _astSlotCtrl[0].s32CapBufFd);
            EXPECT_EQ(b.offset[0], i * c.frame_size);
            EXPECT_EQ(b.width, width);
            EXPECT_EQ(b.height, height);
            EXPECT_EQ(b.pitch, c.pitch);
            EXPECT_EQ(b.format, c.format);
            if (c.format == 3) {
                EXPECT_EQ(b.planeCount, 2u);
                EXPECT_EQ(b.fd[1], b.fd[0]);
                EXPECT_EQ(b.size[0], u64{width} * height);
                EXPECT_EQ(b.offset[1], b.offset[0] + b.size[0]);
                EXPECT_EQ(b.size[1], b.size[0] / 2);
            } else {
                EXPECT_EQ(b.planeCount, 1u);
                EXPECT_EQ(b.size[0], c.frame_size);
            }
            ASSERT_EQ(video_cap_captureScreen(static_cast<s32>(i)), 0);
            const auto params = mw.last<ZU_CAP_CaptureParams_t>("ZU_CAP_CaptureOne");
            EXPECT_EQ(params.u32Osd, 1u);
            EXPECT_EQ(params.stOutput.u64PhyAddr, _astSlotCtrl[0].u64CapBufPhyAddr + i * c.frame_size);
            EXPECT_EQ(params.stOutput.u32OutSize, c.frame_size);
            EXPECT_EQ(params.stOutput.u32OutWidth, width);
            EXPECT_EQ(params.stOutput.u32OutHeight, height);
            EXPECT_EQ(params.stOutput.eOutFormat, c.capture_format);
            EXPECT_EQ(params.stOutput.u32Pitch, c.pitch);
            EXPECT_EQ(params.stOutput.u32OutFrameRate, 0u);
        }
        EXPECT_EQ(video_cap_close(), 0);
        EXPECT_EQ(video_cap_getCaptureBuffers(buffers, 3), -1);
        EXPECT_CALLS(mw.ledger_problems(), {});
    }
}

TEST_F(StillFrames, RefusalsAndWhatIsLeftAfterThem)
{
    for (const s32 count : {0, -1}) {
        EXPECT_EQ(open(640, 480, 2, count), -1);
        EXPECT_CALLS(errors(),
                     {error_of("video_cap_open", "Invalid param, buffer_number: " + std::to_string(count))});
    }
    EXPECT_CALLS(mw.take_calls(), {});
    EXPECT_EQ(open(640, 480, 4, 1), -1);
    EXPECT_CALLS(errors(),
                 {error_of("video_cap_GetOutFmtPitch", "not defined format(4)!"),
                  error_of("video_cap_open", " video_cap_GetOutFmtPitch Failed !!!, outColorFmt = 4")});
    EXPECT_NE(task(0, E_SCREENRECORD_MODULE_VCAP).u32Handle, 0u) << "open until the close";
    EXPECT_EQ(video_cap_close(), 0);

    ASSERT_EQ(open(640, 480, 2, 2), 0);
    mw.take_logs();
    EXPECT_EQ(video_cap_captureScreen(2), -1);
    EXPECT_EQ(video_cap_captureScreen(-1), -1);
    EXPECT_CALLS(errors(), {error_of("video_cap_captureScreen", "Invalid param, index: 2, u32MaxFrameNum: 2"),
                            error_of("video_cap_captureScreen",
                                     "Invalid param, index: 4294967295, u32MaxFrameNum: 2")});
    video_cap_close();
    EXPECT_EQ(open(32768, 32768, 2, 1), 0);
    EXPECT_CALLS(errors(),
                 {error_of("_video_cap_allocBuffer", "_video_cap_allocBuffer ZU_OS_AllocateIommuMemory "
                                                     "fail, tag: vdec_fb, size: 0x100000000")});
}

TEST_F(StillFrames, WithoutABlockNoCaptureReachesTheDevice)
{
    ASSERT_EQ(open(640, 480, 2, 2), 0);
    video_cap_close();
    for (const char* call : {"ZU_OS_AllocateIommuMemory", "ZU_OS_IommuOperation:GET_BUFFD"}) {
        mw.fail(call);
        EXPECT_EQ(open(640, 480, 2, 2), 0);
        forget();
        EXPECT_EQ(video_cap_captureScreen(1), -1);
        EXPECT_EQ(errors().size(), 1u);
        EXPECT_EQ(mw.count("ZU_CAP_CaptureOne"), 0);
        Cap_Buffer buffers[2];
        EXPECT_EQ(video_cap_getCaptureBuffers(buffers, 2), -1);
        EXPECT_EQ(video_cap_close(), 0);
        EXPECT_CALLS(mw.ledger_problems(), {});
    }
}

using Pcm = LibraryTest;

TEST_F(Pcm, OpenToCloseCallByCall)
{
    EXPECT_EQ(audio_cap_close(), 0) << "not open";
    ASSERT_EQ(audio_cap_open(), 0);
    ASSERT_EQ(audio_cap_start(), 0);
    ASSERT_EQ(audio_cap_stop(), 0);
    ASSERT_EQ(audio_cap_close(), 0);
    EXPECT_CALLS(mw.calls_of({"ZU_ACAP"}),
                 {"ZU_ACAP_Init(0)=0", "ZU_ACAP_Open(name=acap_s)=0 h=0x31", "ZU_ACAP_SetVolume(0x31, 100)=0",
                  "ZU_ACAP_Start(0x31, 0)=0", "ZU_ACAP_Stop(0x31)=0", "ZU_ACAP_Stop(0x31)=0",
                  "ZU_ACAP_UnRegisterCallback(0x31, id=0x0)=0", "ZU_ACAP_Close(0x31)=0"});
    AudioCap_Info info = {};
    EXPECT_EQ(audio_cap_getInfo(&info), 0);
    EXPECT_EQ(info.u64BufSize, 12288u);
    EXPECT_EQ(info.u32Channels, 2u);
    EXPECT_EQ(info.u64SampleRate, 48000u);
    EXPECT_EQ(info.u32SampleFormat, 1u);
    EXPECT_EQ(audio_cap_getLostSize(), 0u);
}

TEST_F(Pcm, AReadComesOnceAWholeBufferIsWaiting)
{
    ASSERT_EQ(audio_cap_open(), 0);
    ASSERT_EQ(audio_cap_start(), 0);
    middleware::Bytes buffer(12288);
    u64 size = 5;
    mw.queue_audio(middleware::Bytes(12287, 1));
    EXPECT_EQ(audio_cap_getPCM(buffer.data(), buffer.size(), &size), 0);
    EXPECT_EQ(size, 0u);
    mw.queue_audio(middleware::Bytes(1, 2));
    EXPECT_EQ(audio_cap_getPCM(buffer.data(), buffer.size(), &size), 0);
    EXPECT_EQ(size, 12288u);
    EXPECT_EQ(buffer.back(), 2);
    mw.settings.audio_level = 49153;
    mw.take_logs();
    mw.fail("ZU_ACAP_Read", {.result = 6});
    size = 5;
    EXPECT_EQ(audio_cap_getPCM(buffer.data(), buffer.size(), &size), 0);
    EXPECT_EQ(size, 5u) << "a failed read leaves it as it was";
    audio_cap_close();
    EXPECT_EQ(audio_cap_getPCM(buffer.data(), buffer.size(), &size), -1);
    const std::string at = "audio_cap_getPCM";
    EXPECT_CALLS(errors(), {error_of(at.c_str(), "Error: audio_cap_getPCM: Out of buffer level 49153!!"),
                            error_of(at.c_str(), "audio_cap_getPCM: ZU_ACAP_Read fail, ret=0x6!!"),
                            error_of(at.c_str(), "Error: audio_cap_getPCM: acap not opened!!")});
}

/** Slot 0 serves one interface at a time: who holds what, and who is refused. */
TEST_F(StillFrames, TheInterfacesOfSlotZeroExcludeOneAnother)
{
    struct Interface {
        const char* name;
        std::function<bool()> open;
        std::function<void()> close;
    };
    CapEnc_OpenParams params = {640, 480, 30, 1000000, 1, 1, 0};
    const Interface interfaces[] = {
        {"recording", [] { return steps::record(0); }, [] { steps::close(0); }},
        {"capture-encode", [&] { return video_capenc_open(&params) == 0 && video_capenc_start(0) == 0; },
         [] { video_capenc_stop(), video_capenc_close(); }},
        {"stills", [] { return open(640, 480, 2, 1) == 0; }, [] { video_cap_close(); }},
        {"PCM", [] { return audio_cap_open() == 0 && audio_cap_start() == 0; }, [] { audio_cap_close(); }},
    };
    // Row = who is there, column = who comes; PCM and pictures share nothing.
    const bool allowed[4][4] = {
        {false, false, false, false},
        {false, false, false, true},
        {true, false, false, true}, // nothing of stills runs, so a recording may reset the slot
        {false, true, true, false}};
    SCREENRECORD_Init();
    for (int there = 0; there < 4; there++) {
        for (int comes = 0; comes < 4; comes++) {
            if (there == 2 && comes == 0)
                continue; // a recording resets slot 0: its client closes the stills first
            SCOPED_TRACE(std::string(interfaces[comes].name) + " while " + interfaces[there].name);
            ASSERT_TRUE(interfaces[there].open());
            EXPECT_EQ(interfaces[comes].open(), allowed[there][comes]);
            if (allowed[there][comes])
                interfaces[comes].close();
            interfaces[there].close();
            mw.take_logs();
        }
    }
}

} // namespace
