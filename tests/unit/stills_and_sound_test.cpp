/** Still frames and PCM; random calls judge that slot 0 serves one interface at a time. */
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

struct Layout {
    u32 width, height, format;
    u32 pitch;
    u64 frame_size;
    /** as the capture gets it */
    const char* output;
};

/** Still number `i` of a block, as a client must be told of it. */
Cap_Buffer described(const Layout& layout, u32 i)
{
    const s32 fd = _astSlotCtrl[0].s32CapBufFd;
    const u32 width = layout.width ? layout.width : 640,
              height = layout.height ? layout.height : 480, luma = width * height,
              at = static_cast<u32>(i * layout.frame_size);
    if (layout.format != 3)
        return {{fd}, {at}, {layout.frame_size}, 1, width, height, layout.pitch, layout.format, 0};
    return {{fd, fd},
            {at, at + luma},
            {luma, (layout.pitch - width) * height},
            2,
            width,
            height,
            layout.pitch,
            3,
            0};
}

// Catches a client that gets another offset, pitch or size than the capture; overlapping stills.
TEST_F(StillFrames, BuffersAreDescribedAsTheyAreCapturedInto)
{
    const Layout cases[] = {
        {0, 0, 0, 1280, 614400, "640x480@0 format=0 size=614400 pitch=1280"},
        {640, 480, 1, 1280, 614400, "640x480@0 format=1 size=614400 pitch=1280"},
        {640, 480, 2, 2560, 1228800, "640x480@0 format=2 size=1228800 pitch=2560"},
        {1920, 1080, 3, 2880, 3112960, "1920x1080@0 format=5 size=3112960 pitch=2880"},
        {1067, 1024, 3, 1600, 1638400,
         "1067x1024@0 format=5 size=1638400 pitch=1600"}, // full to the last byte
        {1, 1, 2, 4, 4096, "1x1@0 format=2 size=4096 pitch=4"},
        {1024, 1, 2, 4096, 4096, "1024x1@0 format=2 size=4096 pitch=4096"},
        {1025, 1, 2, 4100, 8192, "1025x1@0 format=2 size=8192 pitch=4100"},
    };
    for (const Layout& c : cases) {
        SCOPED_TRACE(c.output);
        mw.settings.first_fd = 5;
        ASSERT_EQ(open(c.width, c.height, c.format, 3, 1), 0);
        Cap_Buffer buffers[3] = {};
        ASSERT_EQ(video_cap_getCaptureBuffers(buffers, 3), 0);
        const std::string allocation =
            "ZU_OS_AllocateIommuMemory(tag=vdec_fb size=" + std::to_string(3 * c.frame_size) +
            " flags=3)=0";
        EXPECT_EQ(mw.calls_of({allocation}).size(), 1u);
        mw.take_calls();
        const u64 start = _astSlotCtrl[0].u64CapBufPhyAddr;
        for (u32 i = 0; i < 3; i++) {
            EXPECT_EQ(testing::PrintToString(buffers[i]), testing::PrintToString(described(c, i)));
            ASSERT_EQ(video_cap_captureScreen(static_cast<s32>(i)), 0);
            EXPECT_EQ(mw.take_calls().front(),
                      middleware::text("ZU_CAP_CaptureOne(0x11, path=0 osd=1 ", c.output,
                                       " fd=0 virt=0 phys=",
                                       middleware::hex(start + i * c.frame_size), ")=0 buffer=5"));
        }
        EXPECT_EQ(video_cap_close(), 0);
        EXPECT_CALLS(mw.ledger_problems(), {});
        // the next capture has the first handle
        mw.reset();
    }
}

// Catches a wrong number of buffers, a block freed before its descriptor, buffers after a close.
TEST_F(StillFrames, TheCloseGivesBackTheDescriptorBeforeTheBlock)
{
    ASSERT_EQ(open(640, 480, 2, 3), 0);
    Cap_Buffer buffers[3] = {};
    EXPECT_EQ(video_cap_getCaptureBuffers(buffers, 2), -1);
    ASSERT_EQ(video_cap_getCaptureBuffers(buffers, 3), 0);
    mw.take_calls();
    EXPECT_EQ(video_cap_close(), 0);
    const auto given_back = mw.calls_of({"ZU_OS_"});
    ASSERT_GE(given_back.size(), 2u);
    EXPECT_NE(given_back[0].find("PUT_BUFFD"), std::string::npos);
    EXPECT_TRUE(given_back[1].starts_with("ZU_OS_FreeIommuMemory"));
    EXPECT_EQ(video_cap_getCaptureBuffers(buffers, 3), -1);
}

// Catches a count, format or index out of range, and a capture into memory never allocated.
TEST_F(StillFrames, RefusalsAndWhatIsLeftAfterThem)
{
    for (const s32 count : {0, -1}) {
        EXPECT_EQ(open(640, 480, 2, count), -1);
        EXPECT_CALLS(errors(),
                     {"E [video_cap_open]Invalid param, buffer_number: " + std::to_string(count)});
    }
    EXPECT_CALLS(mw.take_calls(), {});
    EXPECT_EQ(open(640, 480, 4, 1), -1);
    EXPECT_CALLS(errors(),
                 {"E [video_cap_GetOutFmtPitch]not defined format(4)!",
                  "E [video_cap_open] video_cap_GetOutFmtPitch Failed !!!, outColorFmt = 4"});
    EXPECT_NE(task(0, VCAP).u32Handle, 0u) << "open until the close";
    EXPECT_EQ(video_cap_close(), 0);

    ASSERT_EQ(open(640, 480, 2, 2), 0);
    mw.take_logs();
    EXPECT_EQ(video_cap_captureScreen(2), -1);
    EXPECT_EQ(video_cap_captureScreen(-1), -1);
    EXPECT_CALLS(
        errors(),
        {"E [video_cap_captureScreen]Invalid param, index: 2, u32MaxFrameNum: 2",
         "E [video_cap_captureScreen]Invalid param, index: 4294967295, u32MaxFrameNum: 2"});
    video_cap_close();
    EXPECT_EQ(open(32768, 32768, 2, 1), 0);
    EXPECT_CALLS(errors(),
                 {"E [_video_cap_allocBuffer]_video_cap_allocBuffer ZU_OS_AllocateIommuMemory "
                  "fail, tag: vdec_fb, size: 0x100000000"});
    EXPECT_EQ(video_cap_captureScreen(1), -1) << "the count is left from before";
    EXPECT_CALLS(errors(), {"E [video_cap_captureScreen]No capture buffer, index: 1"});
}

using Pcm = LibraryTest;

// Catches a changed order of the audio device's calls, and an open that keeps an old module mark.
TEST_F(Pcm, OpenToCloseCallByCall)
{
    EXPECT_EQ(audio_cap_close(), 0) << "not open";
    // as an earlier use leaves it
    task(0, ACAP).eModule = E_SCREENRECORD_MODULE_MAX;
    ASSERT_EQ(audio_cap_open(), 0);
    ASSERT_EQ(audio_cap_start(), 0);
    ASSERT_EQ(audio_cap_stop(), 0);
    ASSERT_EQ(audio_cap_close(), 0);
    EXPECT_CALLS(mw.calls_of({"ZU_ACAP"}),
                 {"ZU_ACAP_Init(0)=0", "ZU_ACAP_Open(name=acap_s)=0 h=0x31",
                  "ZU_ACAP_SetVolume(0x31, 100)=0", "ZU_ACAP_Start(0x31, 0)=0",
                  "ZU_ACAP_Stop(0x31)=0", "ZU_ACAP_Stop(0x31)=0",
                  "ZU_ACAP_UnRegisterCallback(0x31, id=0x0 mask=1)=0", "ZU_ACAP_Close(0x31)=0"});
    AudioCap_Info info = {};
    EXPECT_EQ(audio_cap_getInfo(&info), 0);
    EXPECT_EQ(info.u64BufSize, 12288u);
    EXPECT_EQ(info.u32Channels, 2u);
    EXPECT_EQ(info.u64SampleRate, 48000u);
    EXPECT_EQ(info.u32SampleFormat, 1u);
    EXPECT_EQ(audio_cap_getLostSize(), 0u);
}

// Catches sound that arrives changed, a failed read that reports bytes, and a silent overflow.
TEST_F(Pcm, WhatIsReadAndWhatIsSaidOfIt)
{
    ASSERT_EQ(audio_cap_open(), 0);
    mw.queue_audio({1, 2, 3});
    Bytes buffer(3);
    u64 size = 5;
    EXPECT_EQ(audio_cap_getPCM(buffer.data(), buffer.size(), &size), 0);
    EXPECT_EQ(buffer, (Bytes{1, 2, 3}));
    mw.take_logs();
    for (const u32 level : {49152u, 49153u}) {
        mw.settings.audio_level = level;
        mw.fail("ZU_ACAP_Read", {.result = 6});
        size = 5;
        EXPECT_EQ(audio_cap_getPCM(buffer.data(), buffer.size(), &size), 0);
        EXPECT_EQ(size, 5u) << "a failed read leaves it as it was";
    }
    audio_cap_close();
    EXPECT_EQ(audio_cap_getPCM(buffer.data(), buffer.size(), &size), -1);
    EXPECT_CALLS(errors(),
                 {"E [audio_cap_getPCM]audio_cap_getPCM: ZU_ACAP_Read fail, ret=0x6!!",
                  "E [audio_cap_getPCM]Error: audio_cap_getPCM: Out of buffer level 49153!!",
                  "E [audio_cap_getPCM]audio_cap_getPCM: ZU_ACAP_Read fail, ret=0x6!!",
                  "E [audio_cap_getPCM]Error: audio_cap_getPCM: acap not opened!!"});
}

} // namespace
